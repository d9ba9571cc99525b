"""The connection plugin's side of the session keeper (keeper.py beside this file): where the
keeper's socket is, starting the keeper when none is there (one per socket, however many tasks
start at once), and one request's exchange with it.
"""

import fcntl
import importlib.util
import os
import selectors
import socket
import subprocess
import sys

from ansible.errors import AnsibleConnectionFailure
from ansible.utils.display import Display

display = Display()

KEEPER = os.path.join(os.path.dirname(os.path.abspath(__file__)), "keeper.py")
_found = importlib.util.spec_from_file_location("pelmora_session_keeper", KEEPER)
keeper = importlib.util.module_from_spec(_found)
_found.loader.exec_module(keeper)


def keeper_path(control_path_dir):
    """The keeper's socket in `control_path_dir`, or None when that folder is not private to
    the user (a warning says why)."""
    folder = os.path.expanduser(control_path_dir)
    try:
        os.makedirs(folder, mode=0o700, exist_ok=True)
        status = os.stat(folder)
    except OSError as error:
        display.warning(f"pelmora: no session keeper, {folder}: {error.strerror}")
        return None
    if status.st_uid != os.getuid() or status.st_mode & 0o077:
        display.warning(f"pelmora: no session keeper, {folder} is not private to this user "
                        "(mode 700)")
        return None
    path = os.path.join(folder, "keeper")
    if len(path.encode()) >= 100:  # a socket's path has room for 107 bytes
        display.warning(f"pelmora: no session keeper, {folder} is too long a path for a "
                        "socket (set pelmora_control_path_dir to a shorter folder)")
        return None
    return path


def greeted(path, timeout, host):
    """A connection to the keeper at path that it has taken, or None when no keeper is there
    (or it was ending: the request would not have run)."""
    client = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
    client.settimeout(timeout)
    try:
        client.connect(path)
        keeper.receive_message(client)
    except (FileNotFoundError, ConnectionError):
        client.close()
        return None
    except (OSError, ValueError) as error:
        client.close()
        raise AnsibleConnectionFailure(
            f"pelmora: {host}: the session keeper at {path} did not answer: {error}") from error
    client.settimeout(None)
    return client


def keeper_connection(path, timeout, host):
    """A greeted connection to the keeper, started first if none is there."""
    client = greeted(path, timeout, host)
    if client is not None:
        return client
    with open(path + ".lock", "a") as lock:  # one keeper, however many tasks start
        fcntl.flock(lock, fcntl.LOCK_EX)
        client = greeted(path, timeout, host)
        if client is None:
            start_keeper(path, timeout, host)
            client = greeted(path, timeout, host)
    if client is None:
        raise AnsibleConnectionFailure(f"pelmora: {host}: the session keeper at {path} went away")
    return client


def start_keeper(path, timeout, host):
    """Starts a keeper on the socket path and waits up to `timeout` + 30 seconds for its
    "ready"; AnsibleConnectionFailure when it does not start."""
    started = subprocess.Popen(
        [sys.executable, KEEPER, path], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
        stderr=subprocess.DEVNULL, cwd="/", close_fds=True, start_new_session=True)
    with selectors.DefaultSelector() as selector:
        selector.register(started.stdout, selectors.EVENT_READ)
        answered = selector.select(timeout + 30)
    answer = started.stdout.readline().decode(errors="replace").strip() if answered else ""
    started.stdout.close()
    if answer == "ready":
        display.vvv(f"PELMORA KEEPER started at {path}", host=host)
        return
    if not answered:
        started.kill()
    started.wait()
    raise AnsibleConnectionFailure(f"pelmora: {host}: the session keeper did not "
                                   f"start ({answer or 'no answer'})")


def exchange(path, request, blobs, timeout, host):
    """The keeper's reply (header, byte strings) to `request` and its byte strings `blobs`."""
    client = keeper_connection(path, timeout, host)
    with client:
        try:
            keeper.send_message(client, request, blobs)
            return keeper.receive_message(client)
        except (OSError, ValueError) as error:
            raise AnsibleConnectionFailure(
                f"pelmora: {host}: the session keeper failed: {error}") from error
