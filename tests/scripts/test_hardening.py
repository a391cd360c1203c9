# SPDX-License-Identifier: Apache-2.0
"""How the program that users run is built."""

import re
import subprocess

import pytest


def readelf(option, program):
    return subprocess.run(["readelf", "--wide", option, program], capture_output=True, text=True, check=True).stdout


@pytest.fixture(scope="module")
def program(top):
    return top / "build/release/tallowick"


def test_program_is_position_independent(program):
    assert "DYN (Position-Independent Executable file)" in readelf("--file-header", program)


def test_relocations_are_read_only_once_they_are_done_at_the_start(program):
    assert "GNU_RELRO" in readelf("--program-headers", program)
    dynamic = readelf("--dynamic", program)
    assert "BIND_NOW" in dynamic
    assert "Flags: NOW PIE" in dynamic


def test_stack_is_protected_and_not_executable(program):
    assert "__stack_chk_fail" in readelf("--dyn-syms", program)
    stack = next(line for line in readelf("--program-headers", program).splitlines() if "GNU_STACK" in line)
    assert "RWE" not in stack.replace(" ", "")


def test_calls_of_the_c_library_are_fortified(program):
    # Those whose bounds the compiler cannot judge itself.
    assert re.search(r"__(?!stack)\w+_chk@GLIBC", readelf("--dyn-syms", program))
