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

import os
import posixpath
import secrets
import shlex

from ansible.errors import AnsibleConnectionFailure, AnsibleError, AnsibleFileNotFound
from ansible.plugins.connection import ConnectionBase
from ansible.utils.display import Display

display = Display()

try:
    import pelmora
except ImportError as error:  # reported when the plugin is used, not when Ansible lists plugins
    pelmora = None
    _import_error = error


def wrap_command(cmd, marker):
    """The command with a last line that carries its exit status after `marker`."""
    return f"{cmd}; printf '\\n{marker}%d\\n' \"$?\""


def split_status(output, marker):
    """(status, output without the marker line), or (None, output) when the marker is missing."""
    at = output.rfind("\n" + marker)
    if at < 0:
        return None, output
    tail = output[at + 1 + len(marker):].strip()
    try:
        return int(tail.splitlines()[0]), output[:at]
    except (ValueError, IndexError):
        return None, output


def home_command(root):
    """The shell command that prints the home folder of the identity commands run as, or `root`
    when that folder is not beneath `root` (the drive's folder, the only place files can go)."""
    base = posixpath.normpath(root)
    if base == "/":
        return "echo ~"
    quoted = shlex.quote(base)
    return f'h=~; case "$h/" in {quoted}/*) echo "$h" ;; *) echo {quoted} ;; esac'


def drive_path(path, drive, root):
    """The service's drive path of an absolute host path beneath `root`."""
    normal = posixpath.normpath(path)
    base = posixpath.normpath(root)
    if base == "/":
        relative = normal.lstrip("/")
    elif normal == base or normal.startswith(base + "/"):
        relative = normal[len(base):].lstrip("/")
    else:
        raise AnsibleError(f"{path} is not beneath {root}, the folder of drive {drive}:")
    return f"{drive}:\\" + relative.replace("/", "\\")


class Connection(ConnectionBase):
    transport = "pelmora.admin.pelmora"
    has_pipelining = True

    def __init__(self, *args, **kwargs):
        super().__init__(*args, **kwargs)
        self._fso = None
        self._extended = False
        self._adapt_shell()

    def _adapt_shell(self):
        """Makes the shell plugin's home and temporary folders those of the account's identity.

        Ansible expands "~" as "~<ansible_user>", a service account no host knows: the shell
        would print it back and the temporary folder would become a literal "~operator" folder.
        """
        shell = self._shell
        set_options, expand_user = shell.set_options, shell.expand_user

        def set_shell_options(*args, **kwargs):
            set_options(*args, **kwargs)
            remote_tmp = self.get_option("remote_tmp")
            if remote_tmp:
                shell.set_option("remote_tmp", remote_tmp)

        def expand_account_home(user_home_path, username=""):
            account = self.get_option("remote_user") or ""
            if user_home_path in ("~", "~" + account) and not username:
                return home_command(self.get_option("drive_root"))
            return expand_user(user_home_path, username)

        shell.set_options = set_shell_options
        shell.expand_user = expand_account_home

    def _failure(self, what):
        return f"{what} on {self.get_option('remote_addr')}: {self._fso.ErrCode} {self._fso.ErrDescription}"

    def _connect(self):
        if pelmora is None:
            raise AnsibleError(f"the pelmora Python module is not installed: {_import_error}")
        if self._connected:
            return self
        host = self.get_option("remote_addr")
        fso = pelmora.CreateObject("Pelmora.RCFSO")
        fso.timeout = int(self.get_option("timeout")) * 1000
        user = self.get_option("remote_user") or ""
        password = self.get_option("password") or ""
        tls = bool(self.get_option("tls"))
        port = int(self.get_option("port") or (pelmora.TLS_PORT if tls else 8002))
        if tls:
            self._use_tls(fso)
        display.vvv(f"PELMORA CONNECT {user}@{host}:{port}{' TLS' if tls else ''}", host=host)
        if not fso.Connect(host, port, user, password, False):
            hint = ""
            if fso.ErrCode == 12045 and not self.get_option("trust_new"):
                hint = (" (set pelmora_trust_new=true to record a new host, or pin it with "
                        "pelmora_fingerprint)")
            raise AnsibleConnectionFailure(
                f"pelmora: {host}: {fso.ErrCode} {fso.ErrDescription}{hint}")
        if tls:
            display.vvv(f"PELMORA TLS {fso.TlsPresentedFingerprint}", host=host)
        self._fso = fso
        self._extended = fso.ExtendedCommandVersion() >= 1
        self._connected = True
        return self

    def _use_tls(self, fso):
        cert, key = self.get_option("client_cert"), self.get_option("client_key")
        try:
            pelmora.use_tls(fso, fingerprint=self.get_option("fingerprint") or "",
                            ca_file=self.get_option("ca_file") or "",
                            known_hosts=self.get_option("known_hosts") or None,
                            trust_new=bool(self.get_option("trust_new")),
                            client_certificate=cert or (None if not key else ""),
                            client_key=key or (None if not cert else ""))
        except (ValueError, OSError) as error:
            raise AnsibleConnectionFailure(f"pelmora: {error}") from error

    def exec_command(self, cmd, in_data=None, sudoable=True):
        super().exec_command(cmd, in_data=in_data, sudoable=sudoable)
        if self._extended:
            return self._exec_extended(cmd, in_data)
        if in_data is not None:
            raise AnsibleError("this pelmora service cannot pipe input to commands: turn "
                               "pipelining off for it")
        marker = "__pelmora_status_" + secrets.token_hex(8) + "="
        pieces = []
        cookie = self._fso.on("CommandOutput", pieces.append)
        try:
            display.vvv(f"PELMORA EXEC {cmd}", host=self.get_option("remote_addr"))
            ended = self._fso.SyncCreateProcess(wrap_command(cmd, marker),
                                                int(self.get_option("command_timeout")))
        finally:
            self._fso.off(cookie)
        status, output = split_status("".join(pieces), marker)
        if status is None:
            if not ended and self._fso.ErrCode not in (9001, 9002, 9003):
                raise AnsibleConnectionFailure(self._failure("command failed"))
            status = 127 if self._fso.ErrCode == 9001 else 255
        return status, output.encode(), b""

    def _exec_extended(self, cmd, in_data):
        """The command through the extended exchange: no marker, streams apart, input piped."""
        display.vvv(f"PELMORA EXEC {cmd}", host=self.get_option("remote_addr"))
        try:
            result = pelmora.run_command(self._fso, cmd, input=in_data or b"",
                                         timeout=int(self.get_option("command_timeout")))
        except pelmora.Error as error:
            if error.number >= 10000:  # the connection itself failed
                raise AnsibleConnectionFailure(self._failure("command failed")) from error
            return 127, b"", str(error).encode() + b"\n"
        if result.timed_out:
            return 255, result.stdout, result.stderr + b"pelmora: the command timed out\n"
        return result.status, result.stdout, result.stderr

    def _drive_path(self, path):
        return drive_path(path, self.get_option("drive"), self.get_option("drive_root"))

    def put_file(self, in_path, out_path):
        super().put_file(in_path, out_path)
        if not os.path.exists(in_path):
            raise AnsibleFileNotFound(f"file or module does not exist: {in_path}")
        display.vvv(f"PELMORA PUT {in_path} TO {out_path}", host=self.get_option("remote_addr"))
        if not self._fso.Upload(in_path, self._drive_path(out_path)):
            raise AnsibleError(self._failure(f"upload of {in_path} to {out_path} failed"))

    def fetch_file(self, in_path, out_path):
        super().fetch_file(in_path, out_path)
        display.vvv(f"PELMORA FETCH {in_path} TO {out_path}", host=self.get_option("remote_addr"))
        if not self._fso.Download(out_path, self._drive_path(in_path)):
            raise AnsibleError(self._failure(f"download of {in_path} to {out_path} failed"))

    def close(self):
        if self._fso is not None:
            self._fso.Disconnect()
            self._fso = None
        self._connected = False
