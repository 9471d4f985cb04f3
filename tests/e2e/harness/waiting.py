"""Waiting with a limit."""

import contextlib
import signal
import time


class TimeLimitReached(Exception):
    pass


def wait_until(condition, seconds=10.0, what="the condition"):
    """Returns the first true result of condition()."""
    end = time.monotonic() + seconds
    while True:
        result = condition()
        if result:
            return result
        if time.monotonic() > end:
            raise AssertionError(f"after {seconds} s still waiting for {what}")
        time.sleep(0.01)


@contextlib.contextmanager
def time_limit(seconds, what):
    """Breaks into whatever the main thread is doing when the time is up."""

    def stop(*_):
        raise TimeLimitReached(f"{what} took longer than {seconds} s")

    before = signal.signal(signal.SIGALRM, stop)
    signal.alarm(seconds)
    try:
        yield
    finally:
        signal.alarm(0)
        signal.signal(signal.SIGALRM, before)
