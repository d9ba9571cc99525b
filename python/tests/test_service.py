"""The module against a real pelmorad: sessions, streamed command output, transfers, threads."""

import datetime
import os
import pathlib
import threading
import time

import pytest

import pelmora
from service import ACCOUNT, PASSWORD, Service, pelmorad_binary

pytestmark = pytest.mark.skipif(
    not pelmorad_binary().exists() and
    not (pathlib.Path(os.environ["PELMORA_SOURCE_DIR"]) / "pelmorad").exists(),
    reason="this checkout has no administration service")


@pytest.fixture(scope="module")
def service():
    started = Service()
    yield started
    started.stop()


def connect(service, password=PASSWORD):
    fso = pelmora.CreateObject("Pelmora.RCFSO")
    fso.timeout = 10000
    return fso, fso.Connect("127.0.0.1", service.port, ACCOUNT, password, False)


def test_connects_and_answers_requests(service):
    (service.drive / "here.txt").write_text("x")
    fso, connected = connect(service)
    with fso:
        assert connected, fso.ErrDescription
        assert fso.FileExists("C:\\here.txt") is True
        assert fso.FileExists("C:\\missing.txt") is False


def test_a_wrong_password_is_refused_with_the_service_text(service):
    fso, connected = connect(service, password="wrong")
    assert connected is False
    assert fso.ErrCode == 1326


def test_command_output_streams_through_the_event(service):
    fso, connected = connect(service)
    pieces = []
    with fso:
        fso.on("CommandOutput", pieces.append)
        assert fso.SyncCreateProcess("echo one; echo two >&2; exit 3", 10000) is True
    assert "".join(pieces) == "one\ntwo\n"


def test_run_command_gives_status_both_streams_and_takes_input(service):
    fso, connected = connect(service)
    with fso:
        assert connected, fso.ErrDescription
        assert fso.ExtendedCommandVersion() == 3
        result = pelmora.run_command(fso, "cat; echo oops >&2; exit 3", input=b"\x00\xffabc")
        assert result == pelmora.CommandResult(3, b"\x00\xffabc", b"oops\n", False)
        argv = pelmora.run_command(fso, ["printf", "%s|", "a b", "Привет"])
        assert argv.stdout == "a b|Привет|".encode()
        assert pelmora.run_command(fso, "kill -9 $$").status == 137
        slow = pelmora.run_command(fso, "sleep 30", timeout=200)
        assert slow.timed_out and slow.status is None
        with pytest.raises(pelmora.Error) as refused:
            pelmora.run_command(fso, ["no-such-program-here"])
        assert refused.value.number == 2


def test_file_modes_are_read_and_set_by_name_and_through_the_helpers(service):
    script = service.drive / "mode.sh"
    script.write_text("#!/bin/sh\n")
    script.chmod(0o640)
    fso, connected = connect(service)
    with fso:
        assert connected, fso.ErrDescription
        assert fso.GetFileMode("C:\\mode.sh", 0) == (True, 0o640)
        assert fso.SetFileMode("C:\\mode.sh", 0o755) is True
        assert script.stat().st_mode & 0o7777 == 0o755
        assert pelmora.get_file_mode(fso, "C:\\mode.sh") == 0o755
        pelmora.set_file_mode(fso, "C:\\mode.sh", 0o700)
        assert script.stat().st_mode & 0o7777 == 0o700
        with pytest.raises(pelmora.Error) as missing:
            pelmora.get_file_mode(fso, "C:\\none.sh")
        assert (missing.value.number, missing.value.source) == (2, "GetFileMode")
        with pytest.raises(pelmora.Error) as setuid:
            pelmora.set_file_mode(fso, "C:\\mode.sh", 0o4755)
        assert setuid.value.number == 87
        assert script.stat().st_mode & 0o7777 == 0o700


def test_files_go_up_and_come_back_with_equal_bytes(service, tmp_path):
    local = tmp_path / "up.bin"
    local.write_bytes(os.urandom(3 * 1500 + 7))
    back = tmp_path / "back.bin"
    fso, connected = connect(service)
    with fso:
        assert fso.Upload(str(local), "C:\\up.bin"), fso.ErrDescription
        assert (service.drive / "up.bin").read_bytes() == local.read_bytes()
        assert fso.Download(str(back), "C:\\up.bin"), fso.ErrDescription
    assert back.read_bytes() == local.read_bytes()
    assert int(back.stat().st_mtime) == int(local.stat().st_mtime)


def test_blocking_calls_of_two_threads_overlap(service):
    """Each call releases the GIL, so two one-second commands take about one second together."""
    results = []

    def run():
        fso, connected = connect(service)
        with fso:
            results.append(connected and fso.SyncCreateProcess("sleep 1", 10000))

    threads = [threading.Thread(target=run) for _ in range(2)]
    started = time.monotonic()
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join(30)
    elapsed = time.monotonic() - started
    assert results == [True, True]
    assert elapsed < 1.8


def test_folder_listings_iterate_and_file_information_comes_back(service):
    listed = service.drive / "listed"
    listed.mkdir(exist_ok=True)
    for name, size in (("a.txt", 1), ("b.bin", 1500)):
        (listed / name).write_bytes(b"x" * size)
    fso, connected = connect(service)
    with fso:
        assert connected, fso.ErrDescription
        files = fso.GetFolderFiles("C:\\listed")
        assert len(files) == 2
        assert sorted((f.FileName, f.FileSize) for f in files) == [("a.txt", 1), ("b.bin", 1500)]
        ok, info = fso.GetFileInfo("C:\\listed\\b.bin", None)
        assert ok and info.FileSize == 1500
        assert isinstance(info.LastWriteTime, datetime.datetime)
