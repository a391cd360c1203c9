# SPDX-License-Identifier: Apache-2.0
"""What scripts/torture takes for a finding: a harness that finds nothing has to be shown to look."""

import pathlib
import sys
from types import SimpleNamespace

import pytest

_TESTS = pathlib.Path(__file__).resolve().parents[1]
sys.path[:0] = [str(_TESTS / "torture"), str(_TESTS / "e2e")]

# pylint: disable=wrong-import-position
import judging
import torture
from cases import CASES, CONTENT, NEIGHBOURS, make_case
from harness.places import make_dir, write

SUCCESS = b'<execution-result status="success"/>'
FAILURE = b'<execution-result status="error"/>'


@pytest.fixture
def case(tmp_path):
    """Fetching content, on the way: nothing is here yet, all is on the source host."""
    made = make_case("get-content", tmp_path, 22)
    make_dir(made.session.path)
    for directory, files in ((made.source, NEIGHBOURS), (made.agent, CONTENT)):
        for name, content in files.items():
            make_dir((directory / name).parent)
            write(directory / name, content)
    return made


def run_of(case, status=1, stderr=b"", hung=False):
    return SimpleNamespace(status=status, stdout=b"", stderr=stderr, seconds=1, hung=hung, session=case.session)


def kinds(case, **run):
    return {kind for kind, _ in judging.findings(case, run_of(case, **run))}


def finish(case):
    """Does all that the run owes."""
    for path, content in CONTENT.items():
        make_dir((case.session.path / path).parent)
        write(case.session.path / path, content)
        (case.agent / path).unlink()
    write(case.session.file("dump-name"), str(case.session.file("dump.xml")))
    write(case.session.file("migration-result-name"), str(case.session.file("migration.result")))
    write(case.session.file(case.result), SUCCESS)


def test_failure_that_leaves_everything_is_no_finding(case):
    write(case.session.file(case.result), FAILURE)
    assert kinds(case) == set()


def test_success_that_has_done_all_is_no_finding(case):
    finish(case)
    assert kinds(case, status=0) == set()


def test_run_without_end_and_run_ended_by_a_signal_are_findings(case):
    assert kinds(case, status=-9, hung=True) == {"hang"}
    for status in (-6, -11, 3, 99, 134):
        assert kinds(case, status=status) == {"crash"}


@pytest.mark.parametrize("name", ["migration.status", "migration.result", "transfer.result", "transfer.result.12"])
def test_half_of_a_document_is_a_finding(case, name):
    write(case.session.file(name), b"<execution-result><mess")
    assert kinds(case) == {"torn document"}


def test_document_of_another_kind_is_a_finding(case):
    write(case.session.file("migration.status"), SUCCESS)
    assert kinds(case) == {"torn document"}


def test_half_of_a_temporary_file_is_no_finding(case):
    write(case.session.file("migration.statusAb12xZ"), b"<migr")
    assert kinds(case) == set()


def test_half_of_a_content_file_is_a_finding(case):
    write(case.session.file("flat"), CONTENT["flat"][:10])
    assert kinds(case) == {"torn document"}


def test_content_that_is_nowhere_is_a_finding(case):
    (case.agent / "flat").unlink()
    assert kinds(case) == {"lost file"}


def test_neighbour_of_the_agent_that_is_gone_is_a_finding(case):
    (case.source / "agen").unlink()
    assert kinds(case) == {"lost file"}


@pytest.mark.parametrize("status", [0, 2])
def test_telling_success_with_the_work_undone_is_a_finding(case, status):
    write(case.session.file(case.result), SUCCESS)
    assert kinds(case, status=status) == {"false success"}


def test_success_without_a_result_document_is_a_finding(case):
    finish(case)
    case.session.file(case.result).unlink()
    assert kinds(case, status=0) == {"false success"}


def test_mandated_success_needs_its_evidence(case):
    finish(case)
    write(case.agent / "flat", CONTENT["flat"])
    assert kinds(case, status=0) == {"false success"}
    write(case.session.file("migration.log"), b"UnableToRemoveRemoteFile[1]: Unable to remove remote file")
    assert kinds(case, status=0) == set()


def test_password_that_is_shown_is_a_finding(case):
    assert kinds(case, stderr=case.account.password.encode()) == {"password"}


def test_every_case_belongs_to_one_of_the_seven_actions():
    actions = {kind.action for kind in CASES.values()}
    assert actions == {"send-scout", "deploy-agent", "get-dumping-status", "dump-selected", "dump-all", "get-content",
                       "remove-agent", "remove-dumping-status"}


def test_memory_that_is_never_freed_is_a_finding(case):
    assert kinds(case, stderr=b"==1==ERROR: LeakSanitizer: detected memory leaks") == {"leak"}


def test_place_is_taken_again_only_in_the_first_case_of_an_action_and_for_no_allocation():
    def fault(case, name, stack, ordinal=1, way=0):
        return torture.Fault(case, name, ordinal, way, stack)

    wanted = [
        fault("get-content", "write", "77"), fault("get-content", "write", "77", ordinal=2), fault("get-content", "new", "5"),
        fault("dump-all", "write", "77"),
        fault("get-content, again", "write", "78"), fault("get-content, again", "write", "77", way=1),
        fault("get-content, again", "new", "6"),
    ]
    known = [fault("get-content, again", "write", "77"), fault("dump-all", "new", "5", ordinal=9),
             fault("get-content, sudo", "write", "78")]
    assert torture.distinct([*wanted, *known]) == wanted
