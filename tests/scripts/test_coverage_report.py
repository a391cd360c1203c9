# SPDX-License-Identifier: Apache-2.0
"""scripts/lib/coverage-report sums up what gcovr counted."""

import json
import subprocess

import pytest


def line(number, count, branches=(), **more):
    return {"line_number": number, "count": count, "branches": [{"count": taken} for taken in branches], **more}


@pytest.fixture
def report(top, tmp_path):
    def run(files, *options, status=0):
        path = tmp_path / "coverage.json"
        path.write_text(json.dumps({"files": [{"file": name, "lines": lines} for name, lines in files.items()]}))
        done = subprocess.run(["/usr/bin/python3", top / "scripts/lib/coverage-report", *options, path],
                              capture_output=True, text=True, check=False)
        assert (done.returncode, done.stderr) == (status, "")
        return done.stdout
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


def reaching(lines, branches):
    """A tree of 1000 lines and 1000 branches of which so many are reached."""
    taken = [1] * branches + [0] * (1000 - branches)
    return {"src/a/x.cpp": [line(number, int(number < lines), taken if number == 0 else ()) for number in range(1000)]}


@pytest.mark.parametrize("lines, branches, short", [(950, 850, []), (949, 850, ["lines"]), (950, 849, ["branches"]),
                                                    (0, 0, ["lines", "branches"]), (1000, 1000, [])])
def test_less_than_the_least_share_is_a_failure_that_is_told(report, lines, branches, short):
    said = report(reaching(lines, branches), "--least", "95", "85", status=1 if short else 0)
    assert [sentence.split()[5] for sentence in said.splitlines() if sentence.startswith("Only")] == short
    assert ("Only 94.90 % of the lines are reached; it should be 95 % at least." in said) == (lines == 949)


def test_any_share_will_do_where_none_is_asked_for(report):
    report(reaching(0, 0))


def test_all_tests_together_have_to_reach_their_share_and_the_unit_tests_alone_need_not(top):
    script = (top / "scripts" / "coverage").read_text(encoding="utf-8")
    assert "'') e2e=yes least=(--least 95 85) ;;" in script
    assert "--unit) e2e=no least=() ;;" in script
    assert 'coverage-report "${least[@]}" "$build/coverage.json" || exit 1' in script
