# Ansible connection plugin over the Pelmora administration service.
from __future__ import annotations

DOCUMENTATION = r"""
name: pelmora
short_description: Run tasks through the Pelmora administration service (pelmorad)
description:
  - Runs commands and moves files through a pelmorad service with the pelmora Python module.
  - With a service that speaks the extended command exchange, each command's exit status,
    standard output and standard error come back apart and byte for byte, and module input can
    be piped (pipelining).
  - With an older service, standard output and standard error arrive merged and the exit status
    is recovered from a marker line the plugin appends to each command and removes from the
    output; pipelining is refused there.
author: Pelmora developers
options:
  remote_addr:
    description: Host name or address of the service.
    default: inventory_hostname
    vars:
      - name: inventory_hostname
      - name: ansible_host
  port:
    description: TCP port of the service (default 8002, or 8443 with O(tls)).
    type: int
    vars:
      - name: ansible_port
  remote_user:
    description: Service account.
    vars:
      - name: ansible_user
  password:
    description: Password of the service account.
    vars:
      - name: ansible_password
      - name: ansible_pelmora_pass
  timeout:
    description: Seconds to wait for the connection and for each reply.
    type: int
    default: 10
    ini:
      - section: defaults
        key: timeout
    env:
      - name: ANSIBLE_TIMEOUT
    vars:
      - name: ansible_timeout
  command_timeout:
    description: Milliseconds a command may run before the service kills it (0 is no limit).
    type: int
    default: 3600000
    vars:
      - name: ansible_pelmora_command_timeout
  drive:
    description: Drive letter under which the service shows drive_root.
    default: C
    vars:
      - name: pelmora_drive
  drive_root:
    description: Folder on the host that the drive letter stands for.
    default: /
    vars:
      - name: pelmora_drive_root
  remote_tmp:
    description:
      - Folder on the host for Ansible's temporary files, beneath O(drive_root). It replaces
        Ansible's C(remote_tmp) for this connection.
      - Without it, C(~) in Ansible's remote temporary folder (C(~/.ansible/tmp)) and in other
        remote paths stands for the home folder of the identity the service runs the account's
        commands as (the account's C(run_as) user), or for O(drive_root) when that home lies
        outside it; C(ansible_user) is a service account, not a user of the host.
    vars:
      - name: pelmora_remote_tmp
  pipelining:
    description:
      - Run modules from the command's standard input, without copying them to a remote
        temporary file first (Ansible's C(pipelining)). On by default for this connection, as the
        service gives commands no terminal, so C(requiretty) never applies. A service without
        the extended command exchange cannot pipe input; pipelining is then off whatever the
        setting.
    type: boolean
    default: true
    env:
      - name: ANSIBLE_PIPELINING
    ini:
      - section: defaults
        key: pipelining
      - section: connection
        key: pipelining
    vars:
      - name: ansible_pipelining
  persist:
    description:
      - Seconds a session keeper process stays after its last request. The keeper, started by
        the first task on a host, keeps logged-in sessions to that host's service open between
        tasks and between runs, as ssh's C(ControlPersist) keeps its master connection; a task
        then costs no login. V(0) logs in for each task instead. It is used only with a service
        that speaks the extended command exchange.
    type: int
    default: 60
    env:
      - name: PELMORA_PERSIST
    vars:
      - name: pelmora_persist
  control_path_dir:
    description:
      - Folder of the keepers' sockets, made with mode 700 if missing. A folder that other
        users can enter or that another user owns is refused (the plugin then logs in for each
        task). Each socket's name is a digest of the host, port, account, password and TLS
        settings, so sessions are shared only by tasks that would log in alike, and a keeper
        serves only processes of its own user.
    default: ~/.ansible/pelmora
    env:
      - name: PELMORA_CONTROL_PATH_DIR
    vars:
      - name: pelmora_control_path_dir
  tls:
    description:
      - Encrypt the session with TLS 1.3 and check the service's identity before the password
        is sent. The service's certificate is checked by O(fingerprint), else by O(ca_file),
        else by the known hosts file O(known_hosts).
    type: bool
    default: false
    vars:
      - name: pelmora_tls
    env:
      - name: PELMORA_TLS
  fingerprint:
    description: The only service certificate accepted, C(SHA256:...) as
      C(pelmorad --show-fingerprint) prints it.
    vars:
      - name: pelmora_fingerprint
  ca_file:
    description: PEM file of the authorities that verify the service's certificate chain and
      host name.
    vars:
      - name: pelmora_ca_file
  known_hosts:
    description:
      - File of C(host:port SHA256:...) lines, used when neither O(fingerprint) nor O(ca_file) is
        given. Default C(~/.config/pelmora/known_hosts) on the controller, as the pelmora tool
        uses. A host not listed is refused unless O(trust_new) is set (Ansible cannot ask); a host
        that presents another certificate than its line names is always refused.
    vars:
      - name: pelmora_known_hosts
  trust_new:
    description: Record a host that the known hosts file does not list yet (trust on first use).
    type: bool
    default: false
    vars:
      - name: pelmora_trust_new
  client_cert:
    description: Client certificate (PEM) for certificate login; default
      C(~/.config/pelmora/client.crt) when it and the key exist (C(pelmora admin keygen) makes
      them).
    vars:
      - name: pelmora_client_cert
  client_key:
    description: Key (PEM) of O(client_cert).
    vars:
      - name: pelmora_client_key
"""

import contextlib
import importlib.util
import os

from ansible.errors import AnsibleConnectionFailure, AnsibleError, AnsibleFileNotFound
from ansible.plugins.connection import ConnectionBase
from ansible.utils.display import Display

display = Display()

UTILS = os.path.join(os.path.dirname(os.path.dirname(os.path.abspath(__file__))), "plugin_utils")


def load_util(name):
    """plugin_utils/NAME.py, loaded from its file: the collection's folder need not be
    importable as a package (the helpers' tests load this plugin as a file, too)."""
    found = importlib.util.spec_from_file_location(f"pelmora_connection_{name}",
                                                   os.path.join(UTILS, name + ".py"))
    module = importlib.util.module_from_spec(found)
    found.loader.exec_module(module)
    return module


keeper_client = load_util("keeper_client")
pipelining = load_util("pipelining")
remote_paths = load_util("remote_paths")
status_marker = load_util("status_marker")
timed = load_util("verbose").timed
TLS_PORT = 8443  # the service's default port over TLS


def import_pelmora():
    """The pelmora module, loaded only by a task that talks to the service itself (with a
    keeper, the task never loads the library)."""
    try:
        import pelmora
    except ImportError as error:
        raise AnsibleError(f"the pelmora Python module is not installed: {error}") from error
    return pelmora


class Connection(pipelining.ServicePipelining, ConnectionBase):
    transport = "pelmora.admin.pelmora"
    has_pipelining = True

    def __init__(self, *args, **kwargs):
        super().__init__(*args, **kwargs)
        self._fso = None
        self._extended = False
        self._keeper = None
        self._refused = None
        self._reporting = False
        remote_paths.adapt_shell(self._shell, self.get_option)  # "~": the identity's home

    def _host(self):
        return self.get_option("remote_addr")

    def _failure(self, what, number=None, description=None):
        if number is None:
            number, description = self._fso.ErrCode, self._fso.ErrDescription
        return f"{what} on {self._host()}: {number} {description}"

    def _unreachable(self, number, description):
        hint = ""
        if number == 12045 and not self.get_option("trust_new"):
            hint = (" (set pelmora_trust_new=true to record a new host, or pin it with "
                    "pelmora_fingerprint)")
        return AnsibleConnectionFailure(f"pelmora: {self._host()}: {number} {description}{hint}")

    def _settings(self):
        """What a session needs to log in: host, port (0 for the default), account, password,
        reply time-out in seconds and the TLS settings (None without TLS)."""
        tls = None
        if self.get_option("tls"):
            cert, key = self.get_option("client_cert"), self.get_option("client_key")
            tls = dict(fingerprint=self.get_option("fingerprint") or "",
                       ca_file=self.get_option("ca_file") or "",
                       known_hosts=self.get_option("known_hosts") or None,
                       trust_new=bool(self.get_option("trust_new")),
                       client_certificate=cert or (None if not key else ""),
                       client_key=key or (None if not cert else ""))
        return {"host": self._host(), "port": int(self.get_option("port") or 0),
                "user": self.get_option("remote_user") or "",
                "password": self.get_option("password") or "",
                "timeout": int(self.get_option("timeout")), "tls": tls}

    def _connect(self):
        if self._connected:
            return self
        if self._refused is not None:  # one login attempt per task, whoever asks again
            raise self._refused
        try:
            return self._log_in()
        except AnsibleConnectionFailure as error:
            self._refused = error
            raise

    def _log_in(self):
        settings = self._settings()
        user, host, tls = settings["user"], settings["host"], settings["tls"]
        port = settings["port"] or (TLS_PORT if tls else 8002)
        display.vvv(f"PELMORA CONNECT {user}@{host}:{port}{' TLS' if tls else ''}", host=host)
        self._keeper = None
        if int(self.get_option("persist")) > 0:
            path = keeper_client.keeper_path(self.get_option("control_path_dir"))
            if path:
                with timed("KEEPER", host):
                    reply, _ = self._ask({"op": "open"}, path=path)
                if reply.get("ok"):
                    self._keeper, self._extended, self._connected = path, True, True
                    return self
                if not reply.get("plain"):  # "plain": no extended exchange, talk to it here
                    raise self._unreachable(reply["error"], reply["description"])
        pelmora = import_pelmora()
        fso = pelmora.CreateObject("Pelmora.RCFSO")
        fso.timeout = settings["timeout"] * 1000
        if tls:
            try:
                pelmora.use_tls(fso, **tls)
            except (ValueError, OSError) as error:
                raise AnsibleConnectionFailure(f"pelmora: {error}") from error
        with timed("CONNECT", host):
            connected = fso.Connect(host, port, user, settings["password"], False)
        if not connected:
            raise self._unreachable(fso.ErrCode, fso.ErrDescription)
        if tls:
            display.vvv(f"PELMORA TLS {fso.TlsPresentedFingerprint}", host=host)
        self._fso = fso
        self._extended = fso.ExtendedCommandVersion() >= 1
        self._connected = True
        return self

    def _ask(self, header, blobs=(), path=None):
        """The keeper's reply (header, byte strings) to one request for this task's login."""
        settings = dict(self._settings(), persist=int(self.get_option("persist")))
        reply, blobs = keeper_client.exchange(path or self._keeper, dict(header, settings=settings),
                                              blobs, int(self.get_option("timeout")), self._host())
        if reply.get("login") and header["op"] != "open":  # a new session could not log in
            raise self._unreachable(reply["error"], reply["description"])
        if reply.get("plain") and header["op"] != "open":
            raise AnsibleConnectionFailure(f"pelmora: {self._host()}: the service no longer "
                                           "has the extended command exchange")
        return reply, blobs

    def exec_command(self, cmd, in_data=None, sudoable=True):
        super().exec_command(cmd, in_data=in_data, sudoable=sudoable)
        if self._extended:
            return self._exec_extended(cmd, in_data)
        if in_data is not None:
            raise AnsibleError("this pelmora service cannot pipe input to commands: turn "
                               "pipelining off for it")
        display.vvv(f"PELMORA EXEC {cmd}", host=self._host())
        status, output, ended = status_marker.run_marked(self._fso, cmd,
                                                         int(self.get_option("command_timeout")))
        if status is None:
            if not ended and self._fso.ErrCode not in (9001, 9002, 9003):
                raise AnsibleConnectionFailure(self._failure("command failed"))
            status = 127 if self._fso.ErrCode == 9001 else 255
        return status, output.encode(), b""

    def _exec_extended(self, cmd, in_data):
        """The command through the extended exchange: no marker, streams apart, input piped."""
        display.vvv(f"PELMORA EXEC {cmd}", host=self._host())
        timeout = int(self.get_option("command_timeout"))
        with timed("EXEC", self._host()):
            if self._keeper:
                reply, blobs = self._ask({"op": "exec", "command": cmd, "timeout": timeout},
                                         [in_data or b""])
                error = (reply["error"], reply["description"]) if "error" in reply else None
                status, timed_out = reply.get("status"), reply.get("timed_out")
                out, err = (blobs + [b"", b""])[:2]
            else:
                pelmora = import_pelmora()
                try:
                    result = pelmora.run_command(self._fso, cmd, input=in_data or b"",
                                                 timeout=timeout)
                    error = None
                    status, out, err, timed_out = result
                except pelmora.Error as raised:
                    error = (raised.number, raised.description)
        if error:
            if error[0] >= 10000:  # the connection itself failed
                raise AnsibleConnectionFailure(self._failure("command failed", *error))
            return 127, b"", f"{error[0]} {error[1]}\n".encode()
        if timed_out:
            return 255, out, err + b"pelmora: the command timed out\n"
        return status, out, err

    def _drive_path(self, path):
        return remote_paths.drive_path(path, self.get_option("drive"),
                                       self.get_option("drive_root"))

    def _transfer(self, operation, local, remote, what):
        """Upload (put) or download (fetch) between a local path and a remote drive path."""
        with timed(operation.upper(), self._host()):
            if self._keeper:
                reply, _ = self._ask({"op": operation, "local": local, "remote": remote})
                error = (reply["error"], reply["description"]) if "error" in reply else None
            else:
                move = self._fso.Upload if operation == "put" else self._fso.Download
                done = move(local, remote)
                error = None if done else (self._fso.ErrCode, self._fso.ErrDescription)
        if error:
            raise AnsibleError(self._failure(f"{what} failed", *error))

    def put_file(self, in_path, out_path):
        super().put_file(in_path, out_path)
        if not os.path.exists(in_path):
            raise AnsibleFileNotFound(f"file or module does not exist: {in_path}")
        display.vvv(f"PELMORA PUT {in_path} TO {out_path}", host=self._host())
        self._transfer("put", in_path, self._drive_path(out_path),
                       f"upload of {in_path} to {out_path}")

    def fetch_file(self, in_path, out_path):
        super().fetch_file(in_path, out_path)
        display.vvv(f"PELMORA FETCH {in_path} TO {out_path}", host=self._host())
        self._transfer("fetch", out_path, self._drive_path(in_path),
                       f"download of {in_path} to {out_path}")

    def reset(self):
        """Ends the host's keeper (meta: reset_connection): the next task logs in afresh."""
        self.close()
        if int(self.get_option("persist")) <= 0:
            return
        path = keeper_client.keeper_path(self.get_option("control_path_dir"))
        if path and os.path.exists(path):
            with contextlib.suppress(AnsibleConnectionFailure):
                self._ask({"op": "stop"}, path=path)
            display.vvv(f"PELMORA KEEPER ended the sessions of {self._host()}", host=self._host())

    def close(self):
        if self._fso is not None:
            self._fso.Disconnect()
            self._fso = None
        self._connected = False
