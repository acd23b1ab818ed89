"""Waiting for a condition in the tests of whole programs."""

import time


def wait_for(condition, seconds=20):
    """Waits until the condition is true and answers what it gave."""
    end = time.monotonic() + seconds
    while time.monotonic() < end:
        result = condition()
        if result:
            return result
        time.sleep(0.02)
    raise AssertionError("what was waited for did not happen")
