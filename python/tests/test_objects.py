"""The module against the library's own classes, with a loopback peer where one is needed."""

import datetime
import decimal
import hashlib
import socket
import threading

import pytest

import pelmora


def test_lists_and_creates_registered_classes():
    classes = pelmora.ListClasses()
    assert "Pelmora.Crypto" in classes and "Pelmora.WinSock" in classes
    crypto = pelmora.CreateObject("pelmora.crypto")  # prog IDs ignore ASCII case
    assert crypto._prog_id == "Pelmora.Crypto"
    assert "HashByte" in dir(crypto)


def test_unknown_class_raises_error_429():
    with pytest.raises(pelmora.Error) as raised:
        pelmora.CreateObject("Pelmora.NoSuchThing")
    assert raised.value.number == 429
    assert raised.value.description == (
        "Component can't create object or return reference to this object")


def test_by_reference_arguments_come_back_after_the_result():
    crypto = pelmora.CreateObject("Pelmora.Crypto")
    ok, digest = crypto.HashByte(b"abc", None)
    assert ok is True
    assert digest == hashlib.md5(b"abc").digest()
    assert crypto.Byte2Hex(b"\x01\xab") == "01AB"  # no by-reference argument: the result alone


def test_properties_read_and_assign_and_members_ignore_case():
    sock = pelmora.CreateObject("Pelmora.WinSock")
    sock.remoteport = 4321
    assert sock.RemotePort == 4321
    sock.RemoteHost = "127.0.0.1"
    assert sock.REMOTEHOST == "127.0.0.1"


def test_errors_carry_number_description_and_source():
    sock = pelmora.CreateObject("Pelmora.WinSock")
    with pytest.raises(pelmora.Error) as raised:
        sock.ReceiveTimeout = -1
    assert raised.value.number == 380
    assert raised.value.description == "Invalid property value"
    with pytest.raises(AttributeError):
        sock.NoSuchMember
    with pytest.raises(pelmora.Error) as raised:
        sock.Connect("127.0.0.1", 1, 2, 3, 4, 5)
    assert raised.value.number == 450
    assert raised.value.source == "Pelmora.WinSock"


def test_values_of_every_kind_cross_unchanged():
    info = pelmora.CreateObject("Pelmora.RCFileInfo")
    cases = [
        ("LastWriteTime", datetime.datetime(2009, 3, 14, 15, 9, 26)),
        ("CreationTime", datetime.datetime(1899, 12, 30)),
        ("FileName", "Grüße €.txt"),
        ("FileName", ""),
        ("FileSize", -2147483648),
        ("FileSize", 2147483647),
        ("FileAttribues", 0x21),
    ]
    for name, value in cases:
        setattr(info, name, value)
        got = getattr(info, name)
        assert (type(got), got) == (type(value), value), name
    sock = pelmora.CreateObject("Pelmora.WinSock")
    with pytest.raises(TypeError):
        sock.RemoteHost = object()
    crypto = pelmora.CreateObject("Pelmora.Crypto")
    with pytest.raises(pelmora.Error) as raised:  # a string where bytes are wanted
        crypto.HashByte(3.5, None)
    assert raised.value.number == 13


def test_socket_exchange_through_late_binding():
    listener = socket.create_server(("127.0.0.1", 0))
    port = listener.getsockname()[1]

    def serve():
        conn, _ = listener.accept()
        with conn:
            conn.sendall(conn.recv(5).upper())

    server = threading.Thread(target=serve)
    server.start()
    with pelmora.CreateObject("Pelmora.WinSock") as sock:
        sock.RemoteHost = "127.0.0.1"
        sock.RemotePort = port
        sock.Connect()
        code, _ = sock.SendData(b"hello")
        assert code == 0
        code, data, data_type = sock.GetData(None, 5, 0)
        assert (code, data) == (0, "HELLO")
    server.join(10)
    listener.close()


def test_blocking_calls_release_the_gil():
    listener = socket.create_server(("127.0.0.1", 0))
    port = listener.getsockname()[1]
    sock = pelmora.CreateObject("Pelmora.WinSock")
    sock.RemoteHost, sock.RemotePort, sock.ReceiveTimeout = "127.0.0.1", port, 1500
    sock.Connect()
    conn, _ = listener.accept()
    ticks = []
    stop = threading.Event()

    def count():
        while not stop.is_set() and len(ticks) < 10000:
            ticks.append(1)
            stop.wait(0.01)

    counter = threading.Thread(target=count)
    counter.start()
    code, _, _ = sock.GetData(None, 5, 0)  # the peer sends nothing: waits for the time-out
    stop.set()
    counter.join(10)
    conn.close()
    listener.close()
    assert code != 0
    assert len(ticks) >= 20  # the other thread ran while the call waited
