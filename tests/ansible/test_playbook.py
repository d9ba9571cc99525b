"""Ansible over the connection plugin against several real pelmorad instances on loopback."""

import hashlib
import re
import os
import pathlib
import shutil
import socket
import subprocess
import sys
import tempfile

import pytest

SOURCE = pathlib.Path(os.environ["PELMORA_SOURCE_DIR"])
sys.path.insert(0, str(SOURCE / "python" / "tests"))
from service import ACCOUNT, PASSWORD, Service  # noqa: E402

KEEPER = SOURCE / "ansible/ansible_collections/pelmora/admin/plugins/plugin_utils/keeper.py"
sys.path.insert(0, str(KEEPER.parent))
import keeper  # noqa: E402

KEEPERS = pathlib.Path(tempfile.mkdtemp(prefix="pelmora-keepers-"))


@pytest.fixture(scope="module", autouse=True)
def keepers_folder_removed():
    yield
    shutil.rmtree(KEEPERS, ignore_errors=True)


def ask_keeper(path, header, blobs=()):
    """The reply of the session keeper at path to one request."""
    with socket.socket(socket.AF_UNIX) as client:
        client.connect(str(path))
        assert keeper.receive_message(client)[0]["keeper"] == 2
        keeper.send_message(client, header, blobs)
        return keeper.receive_message(client)


def stop_keeper(path):
    """Ends the session keeper at path and every session it holds."""
    assert ask_keeper(path, {"op": "end"})[0] == {"ok": True, "sizes": []}


def keepers_of(folder):
    """The folder of the keepers' sockets of the runs in folder: short, as a socket's path
    must be."""
    return KEEPERS / hashlib.sha256(str(folder).encode()).hexdigest()[:8]


def stop_keepers(folder):
    """Ends the session keepers whose sockets are in keepers_of(folder)."""
    for path in keepers_of(folder).glob("*"):
        if path.is_socket():
            stop_keeper(path)


def logins(service):
    return (service.folder / "pelmorad.log").read_text().count('path="login" result=0')


@pytest.fixture(scope="module")
def fleet(tmp_path_factory):
    folder = tmp_path_factory.mktemp("ansible")
    services = [Service(drive_root="/") for _ in range(3)]
    lines = ["[fleet]"]
    for index, service in enumerate(services):
        password = PASSWORD if index < 2 else "not the password"
        lines.append(f"host{index} ansible_host=127.0.0.1 ansible_port={service.port} "
                     f"ansible_password='{password}'")
    lines += ["[fleet:vars]", "ansible_connection=pelmora.admin.pelmora",
              f"ansible_user={ACCOUNT}", "ansible_python_interpreter=/usr/bin/python3"]
    inventory = folder / "inventory.ini"
    inventory.write_text("\n".join(lines) + "\n")
    yield folder, inventory
    stop_keepers(folder)
    for service in services:
        service.stop()


def ansible(program, folder, *args, remote_tmp="remote-tmp"):
    """Runs an Ansible program; remote_tmp None leaves Ansible's own remote folder setting.
    The session keepers' sockets go to keepers_of(folder)."""
    env = dict(os.environ,
               PELMORA_CONTROL_PATH_DIR=str(keepers_of(folder)),
               ANSIBLE_COLLECTIONS_PATH=str(SOURCE / "ansible"),
               ANSIBLE_LOCAL_TEMP=str(folder / "local-tmp"),
               ANSIBLE_HOME=str(folder / "home"),
               ANSIBLE_STDOUT_CALLBACK="default",
               ANSIBLE_NOCOLOR="1",
               ANSIBLE_TIMEOUT="10")
    env.pop("ANSIBLE_REMOTE_TMP", None)
    if remote_tmp:
        env["ANSIBLE_REMOTE_TMP"] = str(folder / remote_tmp)
    return subprocess.run([program, *args], env=env, capture_output=True, text=True,
                          timeout=300)


def test_ad_hoc_command_runs_on_every_reachable_host(fleet):
    folder, inventory = fleet
    done = ansible("ansible", folder, "fleet", "-i", str(inventory), "-m", "command",
                   "-a", "echo hello from $PPID")
    assert done.returncode != 0  # host2 has the wrong password
    assert done.stdout.count("CHANGED | rc=0") == 2, done.stdout + done.stderr
    assert "host2 | UNREACHABLE" in done.stdout
    assert "1326" in done.stdout


def test_ad_hoc_shell_keeps_status_and_standard_error_apart(fleet):
    folder, inventory = fleet
    done = ansible("ansible", folder, "host0", "-i", str(inventory), "-m", "shell",
                   "-a", "echo to-out; echo to-err >&2; exit 3")
    assert "host0 | FAILED | rc=3" in done.stdout, done.stdout + done.stderr
    assert "__pelmora_status_" not in done.stdout
    out_at, err_at = done.stdout.find(">>\nto-out"), done.stdout.find("to-err")
    assert out_at >= 0 and err_at > out_at, done.stdout
    assert "to-out\nto-err" not in done.stdout


def test_pipelined_modules_run_when_the_service_takes_input(fleet):
    folder, inventory = fleet
    done = ansible("ansible", folder, "host0:host1", "-i", str(inventory), "-m", "ping",
                   "-e", "ansible_pipelining=true")
    assert done.stdout.count("SUCCESS") == 2, done.stdout + done.stderr


def test_playbook_copies_runs_and_fetches(fleet, tmp_path):
    folder, inventory = fleet
    source = tmp_path / "payload.txt"
    source.write_text("payload for the fleet\n")
    target = folder / "copied"
    playbook = tmp_path / "play.yml"
    playbook.write_text(f"""
- hosts: host0,host1
  gather_facts: false
  tasks:
    - name: copy a file
      copy: {{src: "{source}", dest: "{target}-{{{{ inventory_hostname }}}}.txt"}}
    - name: run a command
      command: cat {target}-{{{{ inventory_hostname }}}}.txt
      register: shown
    - name: check what it printed
      assert: {{that: ["shown.stdout == 'payload for the fleet'"]}}
    - name: fetch it back
      fetch: {{src: "{target}-{{{{ inventory_hostname }}}}.txt", dest: "{tmp_path}/fetched/"}}
""")
    done = ansible("ansible-playbook", folder, "-i", str(inventory), str(playbook))
    assert done.returncode == 0, done.stdout[-4000:] + done.stderr[-4000:]
    recap = done.stdout[done.stdout.index("PLAY RECAP"):]
    for host in ("host0", "host1"):
        assert re.search(host + r"\s+: ok=4 .*failed=0", recap), recap
    for host in ("host0", "host1"):
        fetched = tmp_path / "fetched" / host / f"{target}-{host}.txt".lstrip("/")
        assert fetched.read_text() == "payload for the fleet\n"


def write_inventory(folder, group, host_lines, group_vars=()):
    """folder/inventory.ini: the hosts of `group` logging in as the test account."""
    lines = [f"[{group}]", *host_lines, f"[{group}:vars]",
             "ansible_connection=pelmora.admin.pelmora", f"ansible_user={ACCOUNT}",
             f"ansible_password='{PASSWORD}'", "ansible_python_interpreter=/usr/bin/python3",
             *group_vars]
    inventory = folder / "inventory.ini"
    inventory.write_text("\n".join(lines) + "\n")
    return inventory


def remote_tmp_of(output):
    """The remote folder that -vvv shows Ansible's module files going to."""
    found = re.search(r"PELMORA PUT \S+ TO (\S+)/ansible-tmp-", output)
    return found and found.group(1)


def test_home_of_the_commands_identity_holds_the_temporary_files(tmp_path):
    """Without ANSIBLE_REMOTE_TMP, "~" is the home of the run_as user (root here), never a
    literal "~operator" folder; with a drive folder that does not hold that home, the drive's
    folder stands for it; pelmora_remote_tmp names the folder outright."""
    drive = tmp_path / "drive"
    services = {"root": Service(drive_root="/"), "drive": Service(drive_root=str(drive))}
    try:
        inventory = write_inventory(tmp_path, "hosts", [
            f"whole ansible_host=127.0.0.1 ansible_port={services['root'].port}",
            f"drive ansible_host=127.0.0.1 ansible_port={services['drive'].port} "
            f"pelmora_drive_root={drive}",
            f"named ansible_host=127.0.0.1 ansible_port={services['drive'].port} "
            f"pelmora_drive_root={drive} pelmora_remote_tmp={drive}/tmp-of-ansible"])
        source = tmp_path / "payload.txt"
        source.write_text("payload\n")
        expected = {"whole": os.path.expanduser("~root") + "/.ansible/tmp",
                    "drive": f"{drive}/.ansible/tmp", "named": f"{drive}/tmp-of-ansible"}
        for host, folder in expected.items():
            done = ansible("ansible", tmp_path, host, "-i", str(inventory), "-vvv", "-m", "copy",
                           "-a", f"src={source} dest={drive}/copied-{host}.txt",
                           remote_tmp=None)
            assert done.returncode == 0, done.stdout[-3000:] + done.stderr[-3000:]
            assert remote_tmp_of(done.stdout) == folder, done.stdout[-3000:]
            assert (drive / f"copied-{host}.txt").read_text() == "payload\n"
        assert not (drive / f"~{ACCOUNT}").exists()
    finally:
        stop_keepers(tmp_path)
        for service in services.values():
            service.stop()


def test_tls_sessions_check_the_service_and_record_new_hosts(tmp_path):
    from tls_peer import TlsFront, make_certificate  # noqa: E402 (beside service.py)
    service = Service(drive_root="/")
    pem, fingerprint = make_certificate(tmp_path)
    front = TlsFront(pem, service.port)
    try:
        known = tmp_path / "known_hosts"
        wrong = "SHA256:" + "A" * 43
        inventory = write_inventory(tmp_path, "tls", [
            f"pinned pelmora_fingerprint={fingerprint}",
            f"recorded pelmora_known_hosts={known} pelmora_trust_new=true",
            f"unknown pelmora_known_hosts={tmp_path}/other_hosts",
            f"changed pelmora_fingerprint={wrong}"],
            ["ansible_host=127.0.0.1", f"ansible_port={front.port}", "pelmora_tls=true"])
        done = ansible("ansible", tmp_path, "tls", "-i", str(inventory), "-m", "command",
                       "-a", "echo over tls")
        assert re.search(r"pinned \| CHANGED \| rc=0 >>\nover tls", done.stdout), done.stdout
        assert re.search(r"recorded \| CHANGED \| rc=0 >>\nover tls", done.stdout), done.stdout
        assert "unknown | UNREACHABLE" in done.stdout
        assert "12045" in done.stdout and "pelmora_trust_new" in done.stdout
        assert "changed | UNREACHABLE" in done.stdout and "12169" in done.stdout
        assert known.read_text() == f"127.0.0.1:{front.port} {fingerprint}\n"
        assert front.handshakes >= 2
    finally:
        stop_keepers(tmp_path)
        front.stop()
        service.stop()


@pytest.mark.parametrize("setting, module_file_sent", [
    ([], False),                                   # the connection's default
    (["-e", "ansible_pipelining=false"], True),
])
def test_modules_are_piped_unless_pipelining_is_off(fleet, setting, module_file_sent):
    folder, inventory = fleet
    done = ansible("ansible", folder, "host0", "-i", str(inventory), "-vvv", "-m", "command",
                   "-a", "echo piped", *setting)
    assert "host0 | CHANGED | rc=0 >>\npiped" in done.stdout, done.stdout[-3000:]
    assert ("AnsiballZ_command.py" in "".join(re.findall(r"PELMORA PUT .*", done.stdout))) \
        == module_file_sent, done.stdout[-3000:]


def test_one_login_serves_every_task_and_run_until_the_connection_is_reset(tmp_path):
    """The session keeper logs in once for the tasks of a play and for the next run;
    reset_connection ends it; pelmora_persist=0 logs in for each task."""
    service = Service(drive_root="/")
    try:
        inventory = write_inventory(tmp_path, "one", [
            f"kept ansible_host=127.0.0.1 ansible_port={service.port}",
            f"each ansible_host=127.0.0.1 ansible_port={service.port} pelmora_persist=0"])
        playbook = tmp_path / "play.yml"
        tasks = """
    - command: echo one
    - copy: {content: "two\\n", dest: "%s/two-{{ inventory_hostname }}.txt"}
    - command: cat %s/two-{{ inventory_hostname }}.txt
      register: shown
    - assert: {that: ["shown.stdout == 'two'"]}""" % (tmp_path, tmp_path)
        playbook.write_text(f"- hosts: kept\n  gather_facts: false\n  tasks:{tasks}\n")
        for run in range(2):
            done = ansible("ansible-playbook", tmp_path, "-i", str(inventory), str(playbook))
            assert done.returncode == 0, done.stdout[-3000:] + done.stderr[-3000:]
            assert logins(service) == 1, (run, done.stdout[-3000:])
        playbook.write_text("- hosts: kept\n  gather_facts: false\n  tasks:\n"
                            "    - meta: reset_connection\n    - command: echo again\n")
        done = ansible("ansible-playbook", tmp_path, "-i", str(inventory), str(playbook))
        assert done.returncode == 0, done.stdout[-3000:] + done.stderr[-3000:]
        assert logins(service) == 2
        playbook.write_text(f"- hosts: each\n  gather_facts: false\n  tasks:{tasks}\n")
        done = ansible("ansible-playbook", tmp_path, "-i", str(inventory), str(playbook))
        assert done.returncode == 0, done.stdout[-3000:] + done.stderr[-3000:]
        assert logins(service) == 2 + 3  # one per task that reaches the host (not assert)
    finally:
        stop_keepers(tmp_path)
        service.stop()


def test_a_keeper_folder_other_users_can_enter_is_not_used(fleet):
    folder, inventory = fleet
    keepers = keepers_of(folder)
    stop_keepers(folder)
    keepers.mkdir(exist_ok=True)
    keepers.chmod(0o755)
    try:
        done = ansible("ansible", folder, "host0", "-i", str(inventory), "-m", "command",
                       "-a", "echo direct")
        assert "host0 | CHANGED | rc=0 >>\ndirect" in done.stdout, done.stdout
        assert "is not private to this user" in done.stderr, done.stderr
        assert not [p for p in keepers.iterdir() if p.is_socket()]
    finally:
        keepers.chmod(0o700)


def test_a_keeper_serves_its_own_user_only(tmp_path):
    """A keeper started by hand: it answers its user's requests, and a process of another
    user (nobody) meets the end of the stream before any greeting."""
    service = Service(drive_root="/")
    open_folder = pathlib.Path(tempfile.mkdtemp(prefix="pelmora-open-"))
    open_folder.chmod(0o755)
    path = open_folder / "keeper.sock"
    settings = {"host": "127.0.0.1", "port": service.port, "user": ACCOUNT,
                "password": PASSWORD, "timeout": 10, "tls": None, "persist": 60}
    started = subprocess.Popen([sys.executable, str(KEEPER), str(path)],
                               stdout=subprocess.PIPE, text=True)
    try:
        assert started.stdout.readline() == "ready\n"
        path.chmod(0o777)
        reply, (out, err) = ask_keeper(path, {"op": "exec", "command": "cat; echo err >&2",
                                              "settings": settings}, [b"input"])
        assert (reply["status"], out, err) == (0, b"input", b"err\n")
        wrong = dict(settings, password="not the password")
        reply, _ = ask_keeper(path, {"op": "exec", "command": "true", "settings": wrong})
        assert (reply["error"], reply["login"]) == (1326, True)
        stranger = subprocess.run(
            [sys.executable, "-c", "import socket, sys; s = socket.socket(socket.AF_UNIX); "
             "s.connect(sys.argv[1]); print(repr(s.recv(100)))", str(path)],
            user=65534, capture_output=True, text=True, timeout=60)
        assert stranger.stdout == "b''\n", stranger.stdout + stranger.stderr
    finally:
        if path.is_socket():
            stop_keeper(path)
        started.wait(60)
        service.stop()
        shutil.rmtree(open_folder)


PLAYS = int(os.environ.get("PELMORA_ANSIBLE_PLAYS", "0"))


@pytest.mark.skipif(PLAYS == 0, reason="set PELMORA_ANSIBLE_PLAYS=N to copy N times to 20 hosts")
def test_repeated_copies_to_twenty_hosts_all_succeed(tmp_path):
    """`ansible -m copy` to 20 hosts, PELMORA_ANSIBLE_PLAYS times, Ansible's own remote folder:
    every host-run succeeds. Each run is bounded by the subprocess time-out."""
    services = [Service(drive_root="/") for _ in range(20)]
    try:
        inventory = write_inventory(tmp_path, "fleet", [
            f"host{index} ansible_host=127.0.0.1 ansible_port={service.port}"
            for index, service in enumerate(services)])
        source = tmp_path / "payload.txt"
        source.write_text("payload\n" * 100)
        failed = []
        for play in range(PLAYS):
            done = ansible("ansible", tmp_path, "fleet", "-i", str(inventory), "-f", "20",
                           "-m", "copy", "-a",
                           f"src={source} dest={tmp_path}/out-{{{{ inventory_hostname }}}}-{play}",
                           remote_tmp=None)
            if done.returncode != 0:
                failed.append((play, re.findall(r"^(host\d+) \| (?:FAILED|UNREACHABLE).*$",
                                                done.stdout, re.M), done.stdout[-2000:]))
        assert not failed, failed
    finally:
        stop_keepers(tmp_path)
        for service in services:
            service.stop()
