# SPDX-License-Identifier: Apache-2.0
"""scripts/fuzz knows the fuzzers that there are, and each has what it begins with."""

import subprocess

import pytest


def fuzz(top, *arguments):
    return subprocess.run([top / "scripts/fuzz", *arguments], capture_output=True, text=True, check=False,
                          stdin=subprocess.DEVNULL)


@pytest.mark.parametrize("seconds", ["", "-1", "5m", "host_conf"])
def test_what_is_no_number_of_seconds_is_refused(top, seconds):
    ended = fuzz(top, seconds)
    assert (ended.returncode, ended.stderr) == (1, "usage: scripts/fuzz [SECONDS [NAME...]]\n")


def test_an_unknown_fuzzer_is_refused(top):
    ended = fuzz(top, "1", "host_conf", "nonsense")
    assert (ended.returncode, ended.stderr) == (1, 'There is no fuzzer "nonsense".\n')


def test_each_fuzzer_has_a_corpus_and_a_dictionary(top):
    tree = top / "tests/fuzz"
    fuzzers = {path.stem for path in tree.glob("*.cpp") if "LLVMFuzzerTestOneInput(const" in path.read_text()}
    assert fuzzers == {path.name for path in (tree / "corpus").iterdir()} == {path.stem for path in (tree / "dict").iterdir()}
    assert all(len(list(path.iterdir())) >= 12 for path in (tree / "corpus").iterdir())
