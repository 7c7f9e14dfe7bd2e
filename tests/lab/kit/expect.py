"""Waiting for observed state, always with a deadline."""
import inspect
import time

POLL_S = 0.02

# A machine that stood still (a paused guest, a burst of other work) has not tried: of the polls that
# fit into the deadline, at least this share is made before a test is failed.
LEAST_SHARE_OF_POLLS = 0.25


def text_of(condition, what):
    if what:
        return what
    try:
        return inspect.getsource(condition).strip()
    except (OSError, TypeError):
        return repr(condition)


def expect(condition, within=15, what=""):
    """Returns the first true value of condition(); fails after `within` seconds.

    The deadline is generous on purpose: it is only ever spent by a failing test.
    """
    deadline = time.monotonic() + within
    polls_left = within / POLL_S * LEAST_SHARE_OF_POLLS
    while True:
        value = condition()
        if value:
            return value
        polls_left -= 1
        if polls_left <= 0 and time.monotonic() > deadline:
            raise AssertionError(f"not within {within} s: {text_of(condition, what)}")
        time.sleep(POLL_S)
