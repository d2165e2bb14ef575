"""Waiting for a condition, never longer than a deadline."""

import os
import time

# Long enough for a sanitizer build on a busy machine; a test that passes never comes near it. An emulator needs more.
DEADLINE_SECONDS = int(os.environ.get("SSO_DEADLINE_SECONDS", "20"))
# How late a busy machine may be: much less than what would take place in place of what is expected.
MARGIN_SECONDS = DEADLINE_SECONDS / 2


def wait_until(condition, what, seconds=DEADLINE_SECONDS):
    """Return the first true value of `condition()`; fail with `what` when the deadline passes."""
    end = time.monotonic() + seconds
    while True:
        value = condition()
        if value:
            return value
        if time.monotonic() > end:
            raise AssertionError(f"waited {seconds} s in vain: {what() if callable(what) else what}")
        time.sleep(0.003)
