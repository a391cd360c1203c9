# SPDX-License-Identifier: Apache-2.0
"""The command lines that the source host is to see."""

import os
import re

_SPECIAL = re.compile(rb"[\t \"#$&'()*;<>?\[\\`|~]")


def sh_quote(word):
    """One word as the program quotes it, as bytes."""
    return _SPECIAL.sub(rb"\\\g<0>", os.fsencode(word)).replace(b"\n", b"'\n'")


def words(*parts):
    """Words, each quoted, joined by blanks."""
    return b" ".join(sh_quote(str(part) if not isinstance(part, bytes) else part) for part in parts)


def in_directory(directory, command):
    """What is sent to run `command` as the login."""
    return words("sh", "-c", b"cd " + os.fsencode(str(directory)) + b"; " + command)


def as_root(directory, command):
    """What is sent to run `command` through sudo."""
    return in_directory(directory, b"sudo -k; sudo -S -p ' ' " + command)


SUDO_CHECK = [b"sudo -V", b"sudo -k; sudo -S -p ' ' true"]
