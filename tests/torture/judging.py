# SPDX-License-Identifier: Apache-2.0
"""What no run may do, whichever of its calls has failed."""

import os
import re
from xml.etree import ElementTree

from cases import AGENT_STAYS, ANSWER, DIFFERS, ENTRY_POINT, NOT_PRINTED, STATUS_STAYS, STAYS
from harness import schemas
from harness.agents import AgentCatalogue
from harness.product import Product
from harness.program import DOCUMENTED_STATUSES

KINDS = ("hang", "crash", "false success", "contradiction", "silence", "torn document", "lost file", "leak", "password",
         "failed recovery")


# ---- The successes that the program owes its callers although something was not done ----

def _is_empty(file):
    return file.is_file() and file.stat().st_size == 0


def _upload_behind(undone):
    """The file whose upload has gone wrong when this one differs: without its entry point an agent answers nothing."""
    return ENTRY_POINT if undone.path == ANSWER else undone.path


def _was_sent_empty(case, run, undone):
    path = _upload_behind(undone)
    if (case.action, undone.what) != ("deploy-agent", DIFFERS) or not _is_empty(case.agent / path):
        return False
    catalogue = AgentCatalogue(Product())
    return any(f"ERROR k.Ssh: Cannot read {directory / path}: " in run.session.log
               for directory in (catalogue.shared, catalogue.path(case.agent_name)))


def _upload_has_failed(case, run, undone):
    file = case.agent / _upload_behind(undone)
    line = f"ERROR k.Ssh: Writing to the remote file {file} has ended with return code "
    return case.action == "deploy-agent" and undone.what == DIFFERS and line in run.session.log


def _tells_of(run, code, text):
    return bool(re.search(rf"{code}\[[^]]*\]: {re.escape(text)}", run.session.log))


def _was_not_removed(case, run, undone):
    return (case.action == "get-content" and undone.what == STAYS and
            _tells_of(run, "UnableToRemoveRemoteFile", f"Unable to remove remote file '{case.agent / undone.path}'"))


def _differs_from_its_sum(case, run, undone):
    return (case.action == "get-content" and undone.what in (STAYS, DIFFERS) and
            _tells_of(run, "WrongMd5Sum", f"File '{case.agent / undone.path}' is not what the content list says: "))


def _is_not_there_yet(case, run, undone):
    return (case.action == "get-dumping-status" and undone.what == NOT_PRINTED and not case.sudo and
            run.stdout == b"" and "Dumping status was not read: " in run.session.log)


# By the name of the rule, whether it covers that this was left undone by this run. Nothing else is forgiven.
MANDATED_SUCCESSES = {
    "remove-agent never fails on its own account":
        lambda case, run, undone: case.action == "remove-agent" and undone.what == AGENT_STAYS,
    "remove-dumping-status does not look at its outcome":
        lambda case, run, undone: case.action == "remove-dumping-status" and undone.what == STATUS_STAYS,
    "a local file that cannot be opened is sent as an empty one": _was_sent_empty,
    "the status of an upload is logged and nothing else": _upload_has_failed,
    "a remote file that cannot be removed is logged and stays": _was_not_removed,
    "content that differs from its sum is logged and stays on the source host": _differs_from_its_sum,
    "a dumping status that does not exist yet is nothing to print": _is_not_there_yet,
}


def _is_forgiven(case, run, undone):
    return any(covers(case, run, undone) for covers in MANDATED_SUCCESSES.values())


# ---- Documents ----


def torn_documents(case):
    """The names of the documents that are not whole, or not as their schemas have them."""
    wrong = case.torn()
    for name in case.session.names():
        schema = schemas.schema_of(name)
        if schema is not None and schemas.complaint(schema, case.session.file(name).read_bytes()):
            wrong.append(name)
    return wrong


def _is_idle(case):
    try:
        return [child.tag for child in case.session.status] == ["idle"]
    except (OSError, ElementTree.ParseError, schemas.IllegalDocument):
        return False


def _may_not_last(case, run, told):
    return (run.status, told) == (1, "success") and run.stderr.startswith(b"Uncaught ")


# By the name of the rule, whether it covers that status and result document do not agree. Nothing else is forgiven.
MANDATED_CONTRADICTIONS = {
    # Its error ends the run in main, and says so: the action has succeeded, but a power failure could take that back.
    "a result document that is in place and could not be flushed there ends with 1": _may_not_last,
}


def contradictions(case, run):
    """Where the ways in which a run tells its outcome do not agree."""
    found = []
    told = case.outcome()
    agree = told is None or (told == "success") == (run.status == 0)
    if not agree and not any(covers(case, run, told) for covers in MANDATED_CONTRADICTIONS.values()):
        found.append(f'status {run.status}, but {case.result} says "{told}"')
    if run.status == 0 and (case.keeps_status or case.session.file("migration.status").exists()) and not _is_idle(case):
        found.append("the run is over, but migration.status is not idle")
    return found


# ---- Judging a run ----

# A report of leaks ends with a summary of all of AddressSanitizer.
_COMPLAINT = re.compile(rb"^.*(?:Sanitizer|runtime error: ).*$", re.MULTILINE)
_LEAKS = re.compile(rb"LeakSanitizer|SUMMARY: AddressSanitizer: \d+ byte\(s\) leaked in \d+ allocation\(s\)")


def complaints(stderr):
    """What the sanitizers have to say, as (kind, text). The status of a run does not tell it: that of leaks must not
    hide the run's own, and the sanitizers share it."""
    lines = _COMPLAINT.findall(stderr)
    reports = [line for line in lines if not _LEAKS.search(line)]
    found = [("crash", reports[0].decode("utf-8", "replace"))] if reports else []
    if len(reports) < len(lines):
        found.append(("leak", "memory that is never freed"))
    return found


def passwords_shown(case, run):
    """Where a password can be read."""
    places = {"standard output": run.stdout, "standard error": run.stderr}
    for directory in case.local_directories():
        places |= {str(file): file.read_bytes() for file in directory.rglob("*")
                   if file.is_file() and not file.is_symlink()}
    return [f"a password is in {name}" for name, content in places.items()
            if any(os.fsencode(password) in content for password in case.passwords.values())]


def _missing_result(case, run):
    is_missing = run.status == 0 and not case.session.file(case.result).exists()
    return [f"there is no {case.result}"] if is_missing else []


def false_successes(case, run):
    """What a run that tells of success owes its caller and has not done."""
    if run.status != 0 and case.outcome() != "success":
        return []
    return [*(str(each) for each in case.undone(run) if not _is_forgiven(case, run, each)), *_missing_result(case, run)]


def _left_behind(case):
    return [("torn document", name) for name in torn_documents(case)] + [("lost file", path) for path in case.lost()]


def findings(case, run):
    """What is wrong with a run in which one call has failed, as (kind, text)."""
    found = complaints(run.stderr)
    if run.hung:
        found.append(("hang", f"still running after {run.seconds:.0f} s"))
    elif run.status not in DOCUMENTED_STATUSES:
        found.append(("crash", f"status {run.status}"))
    found += [("false success", text) for text in false_successes(case, run)]
    found += [("contradiction", text) for text in contradictions(case, run)]
    if run.status != 0 and not run.stderr and not run.hung:
        found.append(("silence", f"status {run.status} without a word on standard error"))
    found += [("password", text) for text in passwords_shown(case, run)]
    return found + _left_behind(case)


def recovery_findings(case, run):
    """What is wrong with a run in which no call fails: it has to do everything, and nothing is forgiven."""
    if run.hung or run.status != 0:
        wrong = [f"status {run.status}: {run.stderr.decode('utf-8', 'replace')[-500:]}"]
    else:
        wrong = [*map(str, case.undone(run)), *_missing_result(case, run), *contradictions(case, run)]
    return [("failed recovery", text) for text in wrong] + _left_behind(case)
