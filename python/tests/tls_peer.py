"""A TLS 1.3 front for a plain pelmorad in tests: it terminates TLS with its own self-signed
certificate on a free loopback port and forwards the bytes both ways to the service's plain port,
as a service listening for TLS itself would answer (test helper)."""

import base64
import hashlib
import pathlib
import socket
import ssl
import subprocess
import threading


def make_certificate(folder, name="server"):
    """Writes folder/<name>.pem (an ECDSA P-256 key and a self-signed certificate for localhost and
    127.0.0.1) and returns (path, fingerprint)."""
    pem = pathlib.Path(folder) / f"{name}.pem"
    subprocess.run(["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt",
                    "ec_paramgen_curve:P-256", "-nodes", "-days", "2", "-subj", "/CN=localhost",
                    "-addext", "subjectAltName=DNS:localhost,IP:127.0.0.1",
                    "-keyout", str(pem), "-out", str(pem) + ".crt"],
                   check=True, capture_output=True, timeout=60)
    certificate = (pathlib.Path(str(pem) + ".crt")).read_text()
    pem.write_text(pem.read_text() + certificate)
    return str(pem), fingerprint_of(certificate)


def fingerprint_of(certificate_pem):
    """"SHA256:" and the unpadded base64 of the SHA-256 of the certificate's DER form."""
    der = ssl.PEM_cert_to_DER_cert(certificate_pem)
    return "SHA256:" + base64.b64encode(hashlib.sha256(der).digest()).decode().rstrip("=")


class TlsFront:
    """Accepts TLS on self.port (of `address`) and relays each connection to
    127.0.0.1:target_port."""

    def __init__(self, pem, target_port, address="127.0.0.1"):
        self.target_port = target_port
        self.context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        self.context.minimum_version = ssl.TLSVersion.TLSv1_3
        self.context.load_cert_chain(pem)
        self.listener = socket.create_server((address, 0), backlog=1024)
        self.port = self.listener.getsockname()[1]
        self.handshakes = 0
        self.closed = False
        self.thread = threading.Thread(target=self._accept, daemon=True)
        self.thread.start()

    def _accept(self):
        while not self.closed:
            try:
                client, _ = self.listener.accept()
            except OSError:
                return
            threading.Thread(target=self._serve, args=(client,), daemon=True).start()

    def _serve(self, client):
        client.settimeout(30)
        try:
            tls = self.context.wrap_socket(client, server_side=True)
        except (OSError, ssl.SSLError):
            client.close()
            return
        self.handshakes += 1
        service = socket.create_connection(("127.0.0.1", self.target_port), timeout=30)
        threading.Thread(target=self._pump, args=(service, tls), daemon=True).start()
        self._pump(tls, service)

    @staticmethod
    def _pump(source, sink):
        try:
            while True:
                data = source.recv(65536)
                if not data:
                    break
                sink.sendall(data)
        except (OSError, ssl.SSLError):
            pass
        for end in (sink, source):
            try:
                end.shutdown(socket.SHUT_RDWR)
            except OSError:
                pass

    def stop(self):
        self.closed = True
        self.listener.close()
