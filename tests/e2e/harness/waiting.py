# SPDX-License-Identifier: Apache-2.0
"""Waiting for a condition, with a generous limit against hanging."""

import errno
import os
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


def open_for_reader(fifo):
    """Opens a FIFO for writing as soon as somebody reads from it; writing waits for the reader."""
    def attempt():
        try:
            return os.open(fifo, os.O_WRONLY | os.O_NONBLOCK | os.O_CLOEXEC)
        except OSError as error:
            if error.errno != errno.ENXIO:
                raise
            return None

    fd = wait_until(attempt, f"a reader of {fifo}")
    os.set_blocking(fd, True)
    return os.fdopen(fd, "wb", buffering=0)
