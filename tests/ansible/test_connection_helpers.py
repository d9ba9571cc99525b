"""The connection plugin's pure helpers: the status marker and the drive-path mapping."""

import importlib.util
import os
import pathlib
import socket
import subprocess

import pytest
from ansible.errors import AnsibleError

PLUGIN = (pathlib.Path(os.environ["PELMORA_SOURCE_DIR"]) /
          "ansible/ansible_collections/pelmora/admin/plugins/connection/pelmora.py")
found = importlib.util.spec_from_file_location("pelmora_connection", PLUGIN)
plugin = importlib.util.module_from_spec(found)
found.loader.exec_module(plugin)
status_marker = plugin.status_marker  # the helpers, loaded by the plugin from plugin_utils
remote_paths = plugin.remote_paths


@pytest.mark.parametrize("output, status, rest", [
    ("hello\n\n__m=0\n", 0, "hello\n"),
    ("\n__m=3\n", 3, ""),
    ("a __m=9 inside\nb\n\n__m=2\n", 2, "a __m=9 inside\nb\n"),
    ("no marker at all\n", None, "no marker at all\n"),
    ("killed before the marker\n\n__m=", None, "killed before the marker\n\n__m="),
])
def test_status_comes_from_the_last_marker_line(output, status, rest):
    assert status_marker.split_status(output, "__m=") == (status, rest)


def test_wrapped_command_prints_the_status_after_the_marker():
    assert status_marker.wrap_command("false", "__m=") == "false; printf '\\n__m=%d\\n' \"$?\""


class ShellSession:
    """A stand-in for the library's session that runs a command with /bin/sh and hands its
    merged output to the CommandOutput handler, as a service without the extended exchange."""

    def __init__(self):
        self.handlers = {}

    def on(self, event, handler):
        self.handlers[event] = handler
        return event

    def off(self, cookie):
        del self.handlers[cookie]

    def SyncCreateProcess(self, command, timeout_ms):  # noqa: N802 (the library's name)
        done = subprocess.run(["/bin/sh", "-c", command], capture_output=True, text=True,
                              timeout=timeout_ms / 1000)
        self.handlers["CommandOutput"](done.stdout + done.stderr)
        return True


def test_marked_command_gives_its_status_and_output_without_the_marker():
    session = ShellSession()
    assert status_marker.run_marked(session, "echo out; false", 10000) == (1, "out\n", True)
    assert session.handlers == {}  # the output handler is removed after the command


@pytest.mark.parametrize("path, root, expected", [
    ("/tmp/a/b.txt", "/", "C:\\tmp\\a\\b.txt"),
    ("/srv/c/x/../y", "/srv/c", "C:\\y"),
    ("/srv/c", "/srv/c/", "C:\\"),
])
def test_host_paths_become_drive_paths(path, root, expected):
    assert remote_paths.drive_path(path, "C", root) == expected


@pytest.mark.parametrize("path", ["/etc/passwd", "/srv/cc/x", "/srv/c/../d"])
def test_paths_outside_the_drive_folder_are_refused(path):
    with pytest.raises(AnsibleError):
        remote_paths.drive_path(path, "C", "/srv/c")


@pytest.mark.parametrize("home, root, printed", [
    ("/root", "/", "/root"),
    ("/srv/c/home/op", "/srv/c", "/srv/c/home/op"),
    ("/root", "/srv/c", "/srv/c"),
    ("/srv/cc", "/srv/c/", "/srv/c"),          # a neighbour with the same prefix is outside
    ("/nonexistent", "/srv/my drive", "/srv/my drive"),
])
def test_home_command_prints_a_home_beneath_the_drive_or_the_drive(home, root, printed):
    done = subprocess.run(["/bin/sh", "-c", remote_paths.home_command(root)], env={"HOME": home},
                          capture_output=True, text=True, timeout=10)
    assert done.stdout == printed + "\n"


keeper = plugin.keeper_client.keeper  # the session keeper's exchange, loaded by the plugin


def header(data):
    return keeper.LENGTH.pack(len(data)) + data


@pytest.mark.parametrize("stream, error", [
    (b"", ConnectionError),                                   # ended before the length
    (b"\x00\x00", ConnectionError),                           # ended inside the length
    (header(b'{"sizes": []')[:-3], ConnectionError),          # ended inside the header
    (keeper.LENGTH.pack(keeper.MAX_HEADER + 1), ValueError),  # a header beyond the bound
    (header(b"[1, 2]"), ValueError),                          # not an object
    (header(b'{"op": "exec"}'), ValueError),                  # no sizes
    (header(b'{"sizes": [-1]}'), ValueError),
    (header(b'{"sizes": [1073741825]}'), ValueError),          # a byte string beyond the bound
    (header(b'{"sizes": [0, 0, 0, 0]}'), ValueError),         # too many byte strings
    (header(b'{"sizes": [true]}'), ValueError),
    (header(b'{"sizes": [5]}') + b"abc", ConnectionError),    # ended inside a byte string
    (header(b"\xff"), ValueError),                            # not UTF-8 JSON
])
def test_keeper_messages_out_of_bounds_are_refused(stream, error):
    sender, receiver = socket.socketpair()
    with sender, receiver:
        sender.sendall(stream)
        sender.shutdown(socket.SHUT_WR)
        with pytest.raises(error):
            keeper.receive_message(receiver)


def test_keeper_messages_carry_their_byte_strings():
    sender, receiver = socket.socketpair()
    with sender, receiver:
        keeper.send_message(sender, {"op": "exec", "command": ["a", "b"]}, [b"in\0put", b""])
        assert keeper.receive_message(receiver) == (
            {"op": "exec", "command": ["a", "b"], "sizes": [6, 0]}, [b"in\0put", b""])
