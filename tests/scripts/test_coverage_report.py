# SPDX-License-Identifier: Apache-2.0
"""scripts/lib/coverage-report sums up what gcovr counted."""

import json
import subprocess

import pytest


def line(number, count, branches=(), **more):
    return {"line_number": number, "count": count, "branches": [{"count": taken} for taken in branches], **more}


@pytest.fixture
def report(top, tmp_path):
    def run(files):
        path = tmp_path / "coverage.json"
        path.write_text(json.dumps({"files": [{"file": name, "lines": lines} for name, lines in files.items()]}))
        return subprocess.run(["/usr/bin/python3", top / "scripts/lib/coverage-report", path], capture_output=True,
                              text=True, check=True).stdout
    return run


def test_folders_and_the_whole_have_the_shares_of_their_lines_and_branches(report):
    said = report({"src/b/x.cpp": [line(1, 5), line(2, 0)],
                   "src/a/y.cpp": [line(1, 1, [1, 0, 3, 4])],
                   "src/b/z.cpp": [line(7, 1), line(8, 1)]})
    assert said.splitlines()[:3] == [
        "src/a    lines  100.0 % (1 of 1)   branches   75.0 % (3 of 4)",
        "src/b    lines   75.0 % (3 of 4)   branches  100.0 % (0 of 0)",
        "in all   lines   80.0 % (4 of 5)   branches   75.0 % (3 of 4)"]


def test_lines_never_reached_are_named_in_runs(report):
    said = report({"src/a/x.cpp": [line(n, 0) for n in (9, 3, 4, 5)] + [line(6, 1)], "src/a/y.cpp": [line(1, 1)]})
    assert said.splitlines()[-2:] == ["Lines that nothing reaches:", "  src/a/x.cpp: 3-5, 9"]


def test_lines_without_code_do_not_count(report):
    said = report({"src/a/x.cpp": [line(1, 1), line(2, 0, **{"gcovr/noncode": True})]})
    assert "lines  100.0 % (1 of 1)" in said
    assert said.endswith("Every line is reached.\n")
