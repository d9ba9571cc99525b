"""The Pelmora library from Python: every late-bound class, reached by member name.

    import pelmora
    with pelmora.CreateObject("Pelmora.AdminClient") as admin:
        admin.ServicePort = 8002
        if admin.Connect("server"):
            admin.on("CommandOutput", lambda text: print(text, end=""))
            admin.RemoteCommandCall("uname -a", 10000)

Members are found without regard to ASCII case. Reading an attribute reads a property (or gives
a callable for a method or an indexed property such as Item); assigning one sets a property.

By-reference arguments: a method that takes arguments by reference returns a tuple of its
result followed by the new values of those arguments, in order:

    ok, data = socket.GetData(None, 100)      # GetData(ByRef Data, MaxLen) As Boolean

Values: Empty is None, Null is pelmora.Null, dates are naive datetime.datetime in local time,
currency is decimal.Decimal, byte arrays are bytes, arrays are lists and objects are
pelmora.Object (Nothing is None). Raised errors become pelmora.Error with the error's number,
description and source. Calls release the GIL while the member runs; event callbacks run on the
thread that raised the event, with the GIL held.

Encrypted sessions: pelmora.use_tls(fso, ...) before Connect (or the Tls... properties by name).
"""

import collections
import os

from . import _pelmora
from ._pelmora import ListClasses, Object

__all__ = ["CommandResult", "CreateObject", "Error", "ListClasses", "Null", "Object", "TLS_PORT",
           "config_folder", "get_file_mode", "run_command", "set_file_mode", "use_tls"]


class Error(Exception):
    """An error raised by a Pelmora object: number, description and source."""

    def __init__(self, number, description, source=""):
        super().__init__(number, description, source)
        self.number = number
        self.description = description
        self.source = source

    def __str__(self):
        where = f"{self.source}: " if self.source else ""
        return f"{where}{self.number} {self.description}"


class _NullType:
    """The database Null (a value that is known to be unknown), distinct from None (Empty)."""

    _instance = None

    def __new__(cls):
        if cls._instance is None:
            cls._instance = super().__new__(cls)
        return cls._instance

    def __repr__(self):
        return "pelmora.Null"

    def __bool__(self):
        return False


Null = _NullType()
_pelmora._set_error_class(Error)
_pelmora._set_null(Null)


def CreateObject(prog_id):
    """A new object of the class registered as prog_id, for example "Pelmora.WinSock"."""
    return _pelmora.CreateObject(prog_id)


def _enter(self):
    return self


def _exit(self, *exc_info):
    """Leaving a with block disconnects (or closes) the object when it can."""
    for name in ("Disconnect", "Close"):
        if self._has_member(name):
            self._call(name)
            break
    return False


def _len(self):
    if not self._has_member("Count"):
        raise TypeError(f"{self._prog_id} object has no Count")
    return int(self.Count)


def _iter(self):
    """Walks a collection through Count and Item(i), 1-based as collections are."""
    count = _len(self)
    item = self.Item
    for index in range(1, count + 1):
        yield item(index)


Object.__enter__ = _enter
Object.__exit__ = _exit
Object.__len__ = _len
Object.__iter__ = _iter


CommandResult = collections.namedtuple("CommandResult", "status stdout stderr timed_out")
CommandResult.__doc__ = """How a remote command ended: status as a shell gives it (0-255, 128 + N
for signal N; None when the command's time-out ran out and timed_out is True), and its standard
output and standard error as bytes."""


def run_command(fso, command, input=b"", timeout=0):
    """Runs command on the service of the connected Pelmora.RCFSO fso, through the extended
    command exchange: command is a str (a line for the service's shell) or a list of str (a
    program and its arguments, run without a shell); input (bytes or str) is its standard input;
    timeout is in milliseconds, 0 for none. Returns a CommandResult. Raises pelmora.Error with
    the client's error when the call fails, also when the service has no extended exchange
    (fso.ExtendedCommandVersion() is then 0)."""
    status, out, err = fso.RunCommand(list(command) if isinstance(command, (list, tuple))
                                      else command, timeout, input, None, None)
    if status == -1:
        raise Error(fso.ErrCode, fso.ErrDescription, "RunCommand")
    if status == -2:
        return CommandResult(None, bytes(out or b""), bytes(err or b""), True)
    return CommandResult(status, bytes(out or b""), bytes(err or b""), False)


def get_file_mode(fso, path):
    """The permission bits (0 to 0o777) of the server file path, through the connected
    Pelmora.RCFSO fso (its GetFileMode). Raises pelmora.Error with the client's error: 2 or 3
    when the file or its folder is missing, 5 without the right or for a link, 87 for anything
    but a regular file, 1 from a service without the file mode requests
    (fso.ExtendedCommandVersion() below 2)."""
    done, mode = fso.GetFileMode(path, 0)
    if not done:
        raise Error(fso.ErrCode, fso.ErrDescription, "GetFileMode")
    return mode


def set_file_mode(fso, path, mode):
    """Sets the permission bits of the server file path to mode (0 to 0o777; setuid, setgid and
    sticky bits are refused with 87 before anything is sent), through fso's SetFileMode. Raises
    pelmora.Error as get_file_mode does, and with 5 for a read-only account."""
    if not fso.SetFileMode(path, mode):
        raise Error(fso.ErrCode, fso.ErrDescription, "SetFileMode")


TLS_PORT = 8443
"""The service's default port over TLS (the plain protocol's is 8002)."""


def config_folder():
    """The folder of the user's pelmora files, as the pelmora tool finds it:
    $XDG_CONFIG_HOME/pelmora, else ~/.config/pelmora."""
    base = os.environ.get("XDG_CONFIG_HOME", "")
    if not base.startswith("/"):
        base = os.path.join(os.path.expanduser("~"), ".config")
    return os.path.join(base, "pelmora")


def use_tls(fso, fingerprint="", ca_file="", known_hosts=None, trust_new=False,
            client_certificate=None, client_key=None):
    """Makes the next Connect of fso (a Pelmora.RCFSO or Pelmora.AdminClient) run over TLS 1.3,
    with the checks of the server's identity the pelmora tool makes:

    fingerprint pins one certificate ("SHA256:..." as `pelmorad --show-fingerprint` prints it);
    ca_file verifies the chain, the dates and the host name; known_hosts is a file of
    "host:port SHA256:..." lines, by default config_folder()/known_hosts (its folder made with mode
    700) when neither fingerprint nor ca_file is given, "" for none; trust_new records a host that
    file does not list yet (a host that presents another certificate than the recorded one is
    always refused). client_certificate and client_key (PEM paths) present a client certificate;
    None takes config_folder()'s client.crt and client.key when both exist, "" presents none.

    Connect then fails with 12045 (not trusted), 12169 (another certificate than the pinned or
    recorded one), 12038/12037 (name or dates, under ca_file), 12044 (a bad client certificate)
    or 12157 (no TLS on that port), with a text that says what to do, before any credential
    leaves the client. fso.TlsPresentedFingerprint names the certificate the server showed.
    Returns fso."""
    folder = config_folder()
    if known_hosts is None:
        known_hosts = "" if fingerprint or ca_file else os.path.join(folder, "known_hosts")
    if known_hosts:
        parent = os.path.dirname(known_hosts)
        if parent and not os.path.isdir(parent):
            os.makedirs(parent, mode=0o700, exist_ok=True)
    if client_certificate is None and client_key is None:
        pair = (os.path.join(folder, "client.crt"), os.path.join(folder, "client.key"))
        client_certificate, client_key = pair if all(map(os.path.exists, pair)) else ("", "")
    elif bool(client_certificate) != bool(client_key):
        raise ValueError("client_certificate and client_key go together: give both or neither")
    fso.Tls = True
    fso.TlsFingerprint = fingerprint or ""
    fso.TlsCaFile = ca_file or ""
    fso.TlsKnownHosts = known_hosts
    fso.TlsTrustNew = bool(trust_new)
    fso.TlsClientCertificate = client_certificate
    fso.TlsClientKey = client_key
    return fso
