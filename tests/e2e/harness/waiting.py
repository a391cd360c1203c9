# SPDX-License-Identifier: Apache-2.0
"""Waiting for a condition, with a generous limit against hanging."""

import time


def wait_until(condition, what, limit=30.0, step=0.01):
    """Returns the first true value of `condition()`; fails with `what` after `limit` seconds."""
    end = time.monotonic() + limit
    while True:
        value = condition()
        if value:
            return value
        if time.monotonic() > end:
            raise AssertionError(f"waited {limit:.0f} s in vain for: {what}")
        time.sleep(step)
