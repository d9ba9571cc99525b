"""The connection plugin's pure helpers: the status marker and the drive-path mapping."""

import importlib.util
import os
import pathlib
import subprocess

import pytest
from ansible.errors import AnsibleError

PLUGIN = (pathlib.Path(os.environ["PELMORA_SOURCE_DIR"]) /
          "ansible/ansible_collections/pelmora/admin/plugins/connection/pelmora.py")
found = importlib.util.spec_from_file_location("pelmora_connection", PLUGIN)
plugin = importlib.util.module_from_spec(found)
found.loader.exec_module(plugin)


@pytest.mark.parametrize("output, status, rest", [
    ("hello\n\n__m=0\n", 0, "hello\n"),
    ("\n__m=3\n", 3, ""),
    ("a __m=9 inside\nb\n\n__m=2\n", 2, "a __m=9 inside\nb\n"),
    ("no marker at all\n", None, "no marker at all\n"),
    ("killed before the marker\n\n__m=", None, "killed before the marker\n\n__m="),
])
def test_status_comes_from_the_last_marker_line(output, status, rest):
    assert plugin.split_status(output, "__m=") == (status, rest)


def test_wrapped_command_prints_the_status_after_the_marker():
    assert plugin.wrap_command("false", "__m=") == "false; printf '\\n__m=%d\\n' \"$?\""


@pytest.mark.parametrize("path, root, expected", [
    ("/tmp/a/b.txt", "/", "C:\\tmp\\a\\b.txt"),
    ("/srv/c/x/../y", "/srv/c", "C:\\y"),
    ("/srv/c", "/srv/c/", "C:\\"),
])
def test_host_paths_become_drive_paths(path, root, expected):
    assert plugin.drive_path(path, "C", root) == expected


@pytest.mark.parametrize("path", ["/etc/passwd", "/srv/cc/x", "/srv/c/../d"])
def test_paths_outside_the_drive_folder_are_refused(path):
    with pytest.raises(AnsibleError):
        plugin.drive_path(path, "C", "/srv/c")


@pytest.mark.parametrize("home, root, printed", [
    ("/root", "/", "/root"),
    ("/srv/c/home/op", "/srv/c", "/srv/c/home/op"),
    ("/root", "/srv/c", "/srv/c"),
    ("/srv/cc", "/srv/c/", "/srv/c"),          # a neighbour with the same prefix is outside
    ("/nonexistent", "/srv/my drive", "/srv/my drive"),
])
def test_home_command_prints_a_home_beneath_the_drive_or_the_drive(home, root, printed):
    done = subprocess.run(["/bin/sh", "-c", plugin.home_command(root)], env={"HOME": home},
                          capture_output=True, text=True, timeout=10)
    assert done.stdout == printed + "\n"
