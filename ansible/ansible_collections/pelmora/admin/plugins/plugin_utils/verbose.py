"""The connection plugin's timing output: at -vvvv, how long each step of a task took, to see
where a run's time goes."""

import contextlib
import time

from ansible.utils.display import Display

display = Display()


@contextlib.contextmanager
def timed(what, host):
    """Shows at -vvvv how long `what` took."""
    start = time.monotonic()
    try:
        yield
    finally:
        display.vvvv(f"PELMORA {what} took {(time.monotonic() - start) * 1000:.1f} ms", host=host)
