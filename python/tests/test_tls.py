"""The module's encrypted sessions against a real pelmorad behind a TLS front: each way of
checking the server, trust on first use, a changed certificate refused, the default files."""

import os
import pathlib

import pytest

import pelmora
from service import ACCOUNT, PASSWORD, Service, pelmorad_binary
from tls_peer import TlsFront, make_certificate

pytestmark = pytest.mark.skipif(
    not pelmorad_binary().exists() and
    not (pathlib.Path(os.environ["PELMORA_SOURCE_DIR"]) / "pelmorad").exists(),
    reason="this checkout has no administration service")

OTHER_KEY = "SHA256:" + "A" * 43


@pytest.fixture(scope="module")
def front(tmp_path_factory):
    service = Service()
    pem, fingerprint = make_certificate(tmp_path_factory.mktemp("tls"))
    started = TlsFront(pem, service.port)
    started.fingerprint = fingerprint
    started.certificate = pem + ".crt"
    started.host_port = f"127.0.0.1:{started.port}"
    yield started
    started.stop()
    service.stop()


@pytest.fixture
def home(tmp_path, monkeypatch):
    monkeypatch.setenv("HOME", str(tmp_path))
    monkeypatch.delenv("XDG_CONFIG_HOME", raising=False)
    return tmp_path


def login(front, **checks):
    fso = pelmora.CreateObject("Pelmora.RCFSO")
    fso.timeout = 10000
    pelmora.use_tls(fso, **checks)
    return fso, fso.Connect("127.0.0.1", front.port, ACCOUNT, PASSWORD, False)


def test_each_way_of_checking_accepts_the_server(front, home):
    (home / "hosts").write_text(f"{front.host_port} {front.fingerprint}\n")
    for checks in ({"fingerprint": front.fingerprint},
                   {"known_hosts": str(home / "hosts")},
                   {"ca_file": front.certificate}):
        fso, connected = login(front, **checks)
        with fso:
            assert connected, (checks, fso.ErrCode, fso.ErrDescription)
            assert fso.TlsPresentedFingerprint == front.fingerprint
            assert pelmora.run_command(fso, "echo over tls").stdout == b"over tls\n"


def test_unknown_host_is_recorded_only_with_trust_new(front, home):
    known = home / ".config" / "pelmora" / "known_hosts"
    fso, connected = login(front)
    assert not connected
    assert fso.ErrCode == 12045
    assert f"{front.host_port} is not in {known}" in fso.ErrDescription
    assert not known.exists()
    assert (known.parent.stat().st_mode & 0o777) == 0o700
    fso, connected = login(front, trust_new=True)
    with fso:
        assert connected, fso.ErrDescription
    assert known.read_text() == f"{front.host_port} {front.fingerprint}\n"
    fso, connected = login(front)
    with fso:
        assert connected, fso.ErrDescription


@pytest.mark.parametrize("checks", [
    {"fingerprint": OTHER_KEY},
    {"known_hosts": "HOSTS"},
    {"known_hosts": "HOSTS", "trust_new": True},
])
def test_another_certificate_is_refused_before_the_login(front, home, checks):
    hosts = home / "hosts"
    hosts.write_text(f"{front.host_port} {OTHER_KEY}\n")
    if checks.get("known_hosts") == "HOSTS":
        checks = dict(checks, known_hosts=str(hosts))
    fso, connected = login(front, **checks)
    assert not connected
    assert fso.ErrCode == 12169
    assert f"presented the certificate {front.fingerprint}" in fso.ErrDescription
    assert hosts.read_text() == f"{front.host_port} {OTHER_KEY}\n"


def test_client_certificate_defaults_to_the_users_pair(front, home):
    folder = home / ".config" / "pelmora"
    folder.mkdir(parents=True)
    fso = pelmora.CreateObject("Pelmora.RCFSO")
    pelmora.use_tls(fso, fingerprint=front.fingerprint)
    assert (fso.TlsClientCertificate, fso.TlsClientKey, fso.TlsKnownHosts) == ("", "", "")
    make_certificate(folder, "client")
    os.rename(folder / "client.pem.crt", folder / "client.crt")
    os.rename(folder / "client.pem", folder / "client.key")
    pelmora.use_tls(fso, fingerprint=front.fingerprint)
    assert fso.TlsClientCertificate == str(folder / "client.crt")
    assert fso.TlsClientKey == str(folder / "client.key")
    fso.timeout = 10000
    with fso:
        assert fso.Connect("127.0.0.1", front.port, ACCOUNT, PASSWORD, False), fso.ErrDescription
    with pytest.raises(ValueError):
        pelmora.use_tls(fso, client_certificate=str(folder / "client.crt"))


def test_plain_port_gives_a_clear_error(front, home):
    fso = pelmora.CreateObject("Pelmora.RCFSO")
    fso.timeout = 3000
    pelmora.use_tls(fso, fingerprint=front.fingerprint)
    assert not fso.Connect("127.0.0.1", front.target_port, ACCOUNT, PASSWORD, False)
    assert fso.ErrCode == 12157
