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
from cases import (AGENT_STAYS, AGENT_TREE, ANSWER, CASES, CONTENT, DIFFERS, DUMPING_STATUS, ENTRY_POINT, LEFT_OVER,
                   NEIGHBOURS, NOT_PRINTED, OLD_RESULT, SHARED_TREE, STATUS_STAYS, STAYS, Servers, Undone, make_case)
from harness.agents import AgentCatalogue
from harness.places import make_dir, write
from harness.product import Product

SUCCESS = b'<execution-result status="success"/>'
FAILURE = (b'<execution-result status="error"><message code="AgentNotFound" id="76931fac-9dab-42b3-86c2-48b87d6ae33f" '
           b'severity="error"><description>Agent a was not found</description></message></execution-result>')
IDLE = b"<migration-status><idle/></migration-status>"
BUSY = b"<migration-status><transfer><host>h</host><dumpfile/></transfer></migration-status>"
LEAKS = (b"==1==ERROR: LeakSanitizer: detected memory leaks\n    #0 0x7f in operator new(unsigned long) (libasan.so)\n"
         b"SUMMARY: AddressSanitizer: 128 byte(s) leaked in 16 allocation(s).\n")


def make(name, directory):
    """A case of that name before anything has happened."""
    made = make_case(name, directory, Servers(*(SimpleNamespace(port=port) for port in (22, 23, 24))))
    make_dir(made.session.path)
    for where, files in ((made.source, NEIGHBOURS), (made.agent, made.remote_files())):
        for path, content in files.items():
            make_dir((where / path).parent)
            write(where / path, content)
    return made


@pytest.fixture
def case(tmp_path):
    """Fetching content, on the way: nothing is here yet, all is on the source host."""
    return make("get-content", tmp_path)


def run_of(case, status=1, stderr=b"an error", hung=False, stdout=b""):
    return SimpleNamespace(status=status, stdout=stdout, stderr=stderr, seconds=1, hung=hung, session=case.session)


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
    write(case.session.file("migration.status"), IDLE)


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


@pytest.mark.parametrize("name, content", [
    ("migration.status", b"<migration-status/>"), ("transfer.result", b'<execution-result status="good"/>')])
def test_document_that_its_schema_refuses_is_a_finding(case, name, content):
    write(case.session.file(name), content)
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
    write(case.session.file("migration.status"), IDLE)
    assert kinds(case, status=status) == {"false success"} | ({"contradiction"} if status else set())


def test_success_without_a_result_document_is_a_finding(case):
    finish(case)
    case.session.file(case.result).unlink()
    assert kinds(case, status=0) == {"false success"}


def log(case, *lines):
    write(case.session.file("migration.log"), "".join(f"2026-01-01 00:00:00,000 {line}\n" for line in lines))


def forgiven(case, *undone, **run):
    """Which of these a run may leave undone and tell of success all the same."""
    case.undone = lambda _: undone
    write(case.session.file(case.result), SUCCESS)
    told = judging.false_successes(case, run_of(case, status=0, **run))
    return {each for each in undone if str(each) not in told}


def test_nothing_is_forgiven_without_evidence(tmp_path):
    everything = [Undone(what, path) for what in (DIFFERS, STAYS, LEFT_OVER, NOT_PRINTED)
                  for path in ("", *CONTENT, *AGENT_TREE, *SHARED_TREE)]
    for number, name in enumerate(CASES):
        assert forgiven(make(name, tmp_path / str(number)), *everything) == set()


def test_remove_agent_may_leave_the_agent_directory_and_nothing_else(tmp_path, case):
    kept = Undone(AGENT_STAYS)
    removal = make("remove-agent", tmp_path / "removal")
    assert forgiven(removal, kept, Undone(DIFFERS, "a"), Undone(STAYS, "a")) == {kept}
    assert forgiven(case, kept) == set()


def test_remove_dumping_status_may_leave_the_status_and_nothing_else(tmp_path, case):
    kept = Undone(STATUS_STAYS)
    removal = make("remove-dumping-status", tmp_path / "removal")
    assert forgiven(removal, kept, Undone(DIFFERS, "a"), Undone(AGENT_STAYS)) == {kept}
    assert forgiven(case, kept) == set()


def test_unreadable_local_file_may_be_sent_empty_and_no_other_may(tmp_path):
    deployment = make("deploy-agent", tmp_path)
    catalogue = AgentCatalogue(Product())
    own, shared = Undone(DIFFERS, "bin/own"), Undone(DIFFERS, "lib/small")
    others = [Undone(DIFFERS, "lib/large"), Undone(DIFFERS, "agent-deployment.status"), Undone(STAYS, "bin/own")]
    for undone, directory in ((own, catalogue.path()), (shared, catalogue.shared)):
        log(deployment, f"ERROR k.Ssh: Cannot read {directory / undone.path}: Too many open files")
        assert forgiven(deployment, undone, *others) == set(), "it has not been sent at all"
        write(make_dir((deployment.agent / undone.path).parent) / pathlib.Path(undone.path).name, b"")
        assert forgiven(deployment, own, shared, *others) == {undone}
        write(deployment.agent / undone.path, b"half")
        assert forgiven(deployment, undone, *others) == set(), "it has been sent in part"


def test_entry_point_that_has_not_arrived_may_answer_nothing(tmp_path):
    unread, failed = make("deploy-agent", tmp_path / "unread"), make("deploy-agent", tmp_path / "failed")
    undone = {Undone(DIFFERS, ENTRY_POINT), Undone(DIFFERS, ANSWER)}
    log(unread, f"ERROR k.Ssh: Cannot read {AgentCatalogue(Product()).path() / ENTRY_POINT}: Too many open files")
    write(make_dir(unread.agent) / ENTRY_POINT, b"")
    log(failed, f"ERROR k.Ssh: Writing to the remote file {failed.agent}/{ENTRY_POINT} has ended with return code 1")
    for deployment in (unread, failed):
        assert forgiven(deployment, *undone, Undone(DIFFERS, "bin/own")) == undone


def test_file_whose_upload_has_failed_may_differ_and_no_other_may(tmp_path):
    deployment = make("deploy-agent", tmp_path)
    log(deployment, f"ERROR k.Ssh: Writing to the remote file {deployment.agent}/bin/own has ended with return code 1")
    undone = Undone(DIFFERS, "bin/own")
    assert forgiven(deployment, undone, Undone(DIFFERS, "bin/ow"), Undone(DIFFERS, "lib/small"),
                    Undone(DIFFERS, "agent-deployment.status"), Undone(STAYS, "bin/own")) == {undone}


def test_remote_file_that_cannot_be_removed_may_stay_and_no_other_may(case):
    log(case, f"ERROR UnableToRemoveRemoteFile[1]: Unable to remove remote file '{case.agent}/flat' from 'host': no")
    undone = Undone(STAYS, "flat")
    assert forgiven(case, undone, Undone(STAYS, "empty"), Undone(STAYS, "in/a/directory"), Undone(DIFFERS, "flat"),
                    Undone(LEFT_OVER, "flat"), Undone(DIFFERS, "dump-name")) == {undone}


def test_content_that_differs_from_its_sum_may_be_so_and_stay_and_no_other_may(case):
    log(case, f"WARN k.log: WrongMd5Sum[1]: File '{case.agent}/flat' is not what the content list says: a instead of b")
    undone = {Undone(STAYS, "flat"), Undone(DIFFERS, "flat")}
    assert forgiven(case, *undone, Undone(STAYS, "empty"), Undone(DIFFERS, "in/a/directory"), Undone(LEFT_OVER, "flat"),
                    Undone(DIFFERS, "dump-name"), Undone(DIFFERS, "migration-result-name")) == undone


def test_dumping_status_that_is_missing_may_be_printed_as_nothing_without_sudo(tmp_path):
    undone, other = Undone(NOT_PRINTED), Undone(DIFFERS, "dumping-status.xml")
    line = "DEBUG k.log: Dumping status was not read: cat: dumping-status.xml: No such file or directory"
    plain = make("get-dumping-status", tmp_path / "plain")
    log(plain, line)
    assert forgiven(plain, undone, other) == {undone}
    assert forgiven(plain, undone, other, stdout=DUMPING_STATUS[:100]) == set()
    sudo = make("get-dumping-status, sudo", tmp_path / "sudo")
    log(sudo, line)
    assert forgiven(sudo, undone, other) == set()


def test_run_in_which_nothing_fails_is_forgiven_nothing(case):
    finish(case)
    write(case.agent / "flat", CONTENT["flat"])
    log(case, f"UnableToRemoveRemoteFile[1]: Unable to remove remote file '{case.agent}/flat' from 'host': no")
    assert kinds(case, status=0) == set()
    assert judging.recovery_findings(case, run_of(case, status=0)) == [("failed recovery", f"flat {STAYS}")]


@pytest.mark.parametrize("status, document", [(0, FAILURE), (1, SUCCESS), (2, SUCCESS), (18, SUCCESS)])
def test_status_and_result_document_that_do_not_agree_are_a_finding(case, status, document):
    finish(case)
    write(case.session.file(case.result), document)
    assert kinds(case, status=status) == {"contradiction"}


def test_result_document_that_could_not_be_flushed_in_its_place_may_contradict_the_status(case):
    finish(case)
    uncaught = b"Uncaught ExTraceableException: tError_SaveFile[1]: Can not save the XML document to file"
    assert kinds(case, status=1, stderr=uncaught) == set()
    assert kinds(case, status=2, stderr=uncaught) == {"contradiction"}
    assert kinds(case, status=1, stderr=b"Can not save the XML document to file") == {"contradiction"}
    (case.session.path / "flat").unlink()
    assert kinds(case, status=1, stderr=uncaught) >= {"false success"}
    write(case.session.path / "flat", CONTENT["flat"])
    write(case.session.file(case.result), FAILURE)
    assert kinds(case, status=0, stderr=uncaught) == {"contradiction"}


def test_result_document_of_an_earlier_run_contradicts_nothing(case):
    finish(case)
    write(case.session.file(case.result), OLD_RESULT)
    assert kinds(case, status=0) == set()


@pytest.mark.parametrize("document", [BUSY, None])
def test_success_without_an_idle_status_is_a_finding(case, document):
    finish(case)
    if document:
        write(case.session.file("migration.status"), document)
    else:
        case.session.file("migration.status").unlink()
    assert kinds(case, status=0) == {"contradiction"}


def test_action_that_keeps_no_status_owes_none(tmp_path):
    removal = make("remove-agent", tmp_path)
    write(removal.session.file(removal.result), SUCCESS)
    assert kinds(removal, status=0) == set()


def test_failure_without_a_word_on_standard_error_is_a_finding(case):
    assert kinds(case, stderr=b"") == {"silence"}
    finish(case)
    assert kinds(case, status=0, stderr=b"") == set()


@pytest.mark.parametrize("place", ["migration.log", "scout-result.xml", "archives/any", "migration.result.3"])
def test_password_in_any_file_is_a_finding(case, place):
    file = case.session.path / place
    write(make_dir(file.parent) / file.name, FAILURE.replace(b"Agent a", case.account.password.encode()))
    assert kinds(case) == {"password"}


def test_password_that_is_printed_is_a_finding(case):
    assert kinds(case, stderr=case.account.password.encode()) == {"password"}
    assert kinds(case, stdout=case.account.password.encode()) == {"password"}


def test_every_case_belongs_to_one_of_the_seven_actions():
    actions = {kind.action for kind in CASES.values()}
    assert actions == {"send-scout", "deploy-agent", "get-dumping-status", "dump-selected", "dump-all", "get-content",
                       "remove-agent", "remove-dumping-status"}


@pytest.mark.parametrize("report", [
    b"==1==ERROR: AddressSanitizer: heap-use-after-free on address 0x1",
    b"AddressSanitizer:DEADLYSIGNAL\n==1==ERROR: AddressSanitizer: SEGV on unknown address",
    b"SUMMARY: AddressSanitizer: heap-buffer-overflow",
    b"AddressSanitizer: CHECK failed: asan_poisoning.cpp",
    b"src/a.cpp:1:2: runtime error: signed integer overflow",
    b"UndefinedBehaviorSanitizer:DEADLYSIGNAL",
])
@pytest.mark.parametrize("status", [0, 1])
def test_report_of_a_sanitizer_is_a_finding_whatever_the_status(case, report, status):
    finish(case)
    write(case.session.file(case.result), FAILURE if status else SUCCESS)
    assert kinds(case, status=status, stderr=report) == {"crash"}
    assert kinds(case, status=status, stderr=LEAKS + report) == {"crash", "leak"}


def test_memory_that_is_never_freed_is_a_finding(case):
    assert kinds(case, stderr=LEAKS) == {"leak"}


def test_library_that_stands_in_for_what_never_failed_is_a_finding():
    stand_ins, imports = {"read", "write", "poll", *torture.IN_LIBRARIES}, {"read", "poll", "strlen"}
    calls = {"poll", "write", *torture.IN_LIBRARIES}
    assert torture.never_failed({*calls, "read"}, stand_ins, imports) == []
    assert torture.never_failed(calls, stand_ins, imports) == ["read has never failed"]
    assert torture.never_failed({*calls, "read"} - {"new"}, stand_ins, imports) == ["new has never failed"]


def test_reason_why_a_call_is_never_made_has_to_be_true():
    name = next(iter(torture.UNREACHED))
    assert torture.never_failed(torture.IN_LIBRARIES, {name}, {name}) == []
    wrong = torture.never_failed({name} | torture.IN_LIBRARIES, {name}, {name})
    assert wrong == [f"{name} has failed, but is named as one that never does"]


def test_place_is_taken_again_only_in_the_first_case_of_an_action_and_for_no_allocation():
    def fault(case, name, stack, ordinal=1, way=0):
        return torture.Fault(case, name, ordinal, way, stack)

    wanted = [
        fault("get-content", "write", "77"), fault("get-content", "write", "77", ordinal=2),
        fault("get-content", "new", "5"),
        fault("dump-all", "write", "77"),
        fault("get-content, again", "write", "78"), fault("get-content, again", "write", "77", way=1),
        fault("get-content, again", "new", "6"),
    ]
    known = [fault("get-content, again", "write", "77"), fault("dump-all", "new", "5", ordinal=9),
             fault("get-content, sudo", "write", "78")]
    assert torture.distinct([*wanted, *known]) == wanted
