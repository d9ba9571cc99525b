"""Where the connection plugin's remote paths lead: host paths as the service's drive paths, and
"~" as the home folder of the identity the service runs the account's commands as.

Ansible expands "~" as "~<ansible_user>", but ansible_user is a service account that no host
knows: adapt_shell makes the shell plugin print the identity's home folder instead (or the
drive's folder when that home lies outside it), and puts the connection's remote_tmp in place
of Ansible's.
"""

import posixpath
import shlex

from ansible.errors import AnsibleError


def home_command(root):
    """The shell command that prints the home folder of the identity commands run as, or `root`
    when that folder is not beneath `root` (the drive's folder, the only place files can go)."""
    base = posixpath.normpath(root)
    if base == "/":
        return "echo ~"
    quoted = shlex.quote(base)
    return f'h=~; case "$h/" in {quoted}/*) echo "$h" ;; *) echo {quoted} ;; esac'


def drive_path(path, drive, root):
    """The service's drive path of an absolute host path beneath `root`."""
    normal = posixpath.normpath(path)
    base = posixpath.normpath(root)
    if base == "/":
        relative = normal.lstrip("/")
    elif normal == base or normal.startswith(base + "/"):
        relative = normal[len(base):].lstrip("/")
    else:
        raise AnsibleError(f"{path} is not beneath {root}, the folder of drive {drive}:")
    return f"{drive}:\\" + relative.replace("/", "\\")


def adapt_shell(shell, get_option):
    """Makes `shell`'s home and temporary folders those of the account's identity; `get_option`
    reads the connection's options when the shell needs them."""
    set_options, expand_user = shell.set_options, shell.expand_user

    def set_shell_options(*args, **kwargs):
        set_options(*args, **kwargs)
        remote_tmp = get_option("remote_tmp")
        if remote_tmp:
            shell.set_option("remote_tmp", remote_tmp)

    def expand_account_home(user_home_path, username=""):
        account = get_option("remote_user") or ""
        if user_home_path in ("~", "~" + account) and not username:
            return home_command(get_option("drive_root"))
        return expand_user(user_home_path, username)

    shell.set_options = set_shell_options
    shell.expand_user = expand_account_home
