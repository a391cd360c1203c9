# SPDX-License-Identifier: Apache-2.0
"""What no run may do, whichever of its calls has failed."""

import re
from xml.etree import ElementTree

from harness.program import DOCUMENTED_STATUSES

# The successes that the program owes its callers although something was not done: by the name of the rule, whether
# it covers that this was left undone by this run. Nothing else is forgiven.
MANDATED_SUCCESSES = {
    "remove-agent never fails on its own account":
        lambda case, run, undone: case.action == "remove-agent",
    "remove-dumping-status does not look at its outcome":
        lambda case, run, undone: case.action == "remove-dumping-status",
    "a local file that cannot be opened is sent as an empty one":
        lambda case, run, undone: case.action == "deploy-agent" and "is not as it must be" in undone and
        "ERROR k.Ssh: Cannot read " in run.session.log,
    "the status of an upload is logged and nothing else":
        lambda case, run, undone: case.action == "deploy-agent" and "is not as it must be" in undone and
        "has ended with return code" in run.session.log,
    "a remote file that cannot be removed is logged and stays":
        lambda case, run, undone: undone.endswith("is still on the source host") and
        "UnableToRemoveRemoteFile[" in run.session.log,
    "content that differs from its sum is logged and stays on the source host":
        lambda case, run, undone: case.action == "get-content" and "WrongMd5Sum[" in run.session.log,
    "a dumping status that does not exist yet is nothing to print":
        lambda case, run, undone: case.action == "get-dumping-status" and not case.sudo and run.stdout == b"" and
        "Dumping status was not read" in run.session.log,
}

_ROOTS = {"migration.status": "migration-status", "migration.result": "execution-result",
          "transfer.result": "execution-result"}
# What follows the name of a document is a number; six characters of any kind make the name of a temporary file.
_DOCUMENT = re.compile(r"(migration\.status|migration\.result|transfer\.result)(\.\d+)?")

KINDS = ("hang", "crash", "false success", "torn document", "lost file", "leak", "password", "failed recovery")


def torn_documents(case):
    """The names of the documents that are not whole."""
    wrong = case.torn()
    for name in case.session.names():
        known = _DOCUMENT.fullmatch(name)
        if known is None:
            continue
        try:
            if ElementTree.parse(case.session.file(name)).getroot().tag != _ROOTS[known[1]]:
                wrong.append(name)
        except ElementTree.ParseError:
            wrong.append(name)
    return wrong


def _tells_of_success(case, run):
    if run.status == 0:
        return True
    try:
        return case.session.succeeded(case.result) == "success"
    except (OSError, ElementTree.ParseError):
        return False


def undone(case, run):
    """What a run that tells of success owes its caller and has not done."""
    missing = [each for each in case.undone(run)
               if not any(covers(case, run, each) for covers in MANDATED_SUCCESSES.values())]
    if run.status == 0 and not case.session.file(case.result).exists():
        missing.append(f"there is no {case.result}")
    return missing


def findings(case, run):
    """What is wrong with a run in which one call has failed, as (kind, text)."""
    found = []
    if run.hung:
        found.append(("hang", f"still running after {run.seconds:.0f} s"))
    elif run.status not in DOCUMENTED_STATUSES:
        found.append(("crash", f"status {run.status}"))
    if b"LeakSanitizer" in run.stderr:
        found.append(("leak", "memory that is never freed"))
    found += [("torn document", name) for name in torn_documents(case)]
    found += [("lost file", path) for path in case.lost()]
    if _tells_of_success(case, run):
        found += [("false success", text) for text in undone(case, run)]
    for password in case.passwords.values():
        if password.encode() in run.stderr or password in case.session.log:
            found.append(("password", "in the log or on standard error"))
    return found


def recovery_findings(case, run):
    """What is wrong with the run after it, in which no call fails."""
    found = []
    if run.hung or run.status != 0:
        found.append(("failed recovery", f"status {run.status}: {run.stderr.decode('utf-8', 'replace')[-500:]}"))
    else:
        found += [("failed recovery", text) for text in undone(case, run)]
    found += [("torn document", name) for name in torn_documents(case)]
    found += [("lost file", path) for path in case.lost()]
    return found
