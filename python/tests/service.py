"""Starts a real pelmorad on a free loopback port with a throwaway configuration (test helper)."""

import os
import pathlib
import subprocess
import tempfile
import time

ACCOUNT = "operator"
PASSWORD = "correct horse battery staple"


def pelmorad_binary():
    return pathlib.Path(os.environ["PELMORA_BUILD_DIR"]) / "pelmorad" / "pelmorad"


def hash_password(password):
    done = subprocess.run([str(pelmorad_binary()), "--hash-password"], input=password + "\n",
                          capture_output=True, text=True, check=True, timeout=30)
    return done.stdout.strip()


class Service:
    """One pelmorad with drive C mapped to a temporary folder; stop() ends it."""

    def __init__(self, drive_root=None, password=PASSWORD):
        self.folder = pathlib.Path(tempfile.mkdtemp(prefix="pelmora-py-"))
        self.drive = pathlib.Path(drive_root) if drive_root else self.folder / "c"
        self.drive.mkdir(parents=True, exist_ok=True)
        config = self.folder / "pelmorad.toml"
        config.write_text(f"""listen = ["127.0.0.1:0"]
[drives]
C = "{self.drive}"
[accounts.{ACCOUNT}]
password = "{hash_password(password)}"
commands = true
run_as = "root"
""")
        config.chmod(0o600)
        port_file = self.folder / "port"
        self.log = open(self.folder / "pelmorad.log", "w")
        self.process = subprocess.Popen(
            [str(pelmorad_binary()), "--config", str(config), "--port-file", str(port_file)],
            stdout=self.log, stderr=subprocess.STDOUT)
        deadline = time.monotonic() + 20
        while not (port_file.exists() and port_file.read_text().strip()):
            if self.process.poll() is not None or time.monotonic() > deadline:
                raise RuntimeError("pelmorad did not start: " +
                                   (self.folder / "pelmorad.log").read_text())
            time.sleep(0.05)
        self.port = int(port_file.read_text().strip())

    def stop(self):
        self.process.terminate()
        try:
            self.process.wait(10)
        except subprocess.TimeoutExpired:
            self.process.kill()
            self.process.wait(10)
        self.log.close()
