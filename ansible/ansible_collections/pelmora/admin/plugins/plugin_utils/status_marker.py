"""Commands on a service without the extended command exchange: standard output and standard
error arrive merged and no exit status comes back, so the connection plugin appends a marker
line that prints the status and removes it from the output.
"""

import secrets


def new_marker():
    """A marker no command's output holds by chance."""
    return "__pelmora_status_" + secrets.token_hex(8) + "="


def wrap_command(cmd, marker):
    """The command with a last line that carries its exit status after `marker`."""
    return f"{cmd}; printf '\\n{marker}%d\\n' \"$?\""


def split_status(output, marker):
    """(status, output without the marker line), or (None, output) when the marker is missing."""
    at = output.rfind("\n" + marker)
    if at < 0:
        return None, output
    tail = output[at + 1 + len(marker):].strip()
    try:
        return int(tail.splitlines()[0]), output[:at]
    except (ValueError, IndexError):
        return None, output


def run_marked(fso, cmd, timeout_ms):
    """Runs `cmd` through the session `fso` (the library's RCFSO) with the marker; (status,
    output, ended), where status is None when the marker line never came and ended is what
    SyncCreateProcess returned."""
    marker = new_marker()
    pieces = []
    cookie = fso.on("CommandOutput", pieces.append)
    try:
        ended = fso.SyncCreateProcess(wrap_command(cmd, marker), timeout_ms)
    finally:
        fso.off(cookie)
    status, output = split_status("".join(pieces), marker)
    return status, output, ended
