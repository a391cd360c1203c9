# SPDX-License-Identifier: Apache-2.0
"""The session directory: how it is made, and what happens when it cannot be used."""

import os
import resource
import stat
import subprocess

import pytest

from harness.accounts import OVNADM
from harness.isolation import without_account
from harness.places import make_dir, write
from harness.program import source
from harness.session import Session


def owner_and_mode(path):
    entry = path.stat()
    return (entry.st_uid, entry.st_gid, stat.S_IMODE(entry.st_mode))


# The group is, on purpose, the number of the panel's *user*.
MADE = (0, OVNADM.uid, 0o750)


def test_new_directory_and_its_archives_belong_to_root_and_the_panel(tallowick):
    session = tallowick.run("--remove-dumping-status", password=None).session
    assert owner_and_mode(session.path) == MADE
    assert owner_and_mode(session.file("archives")) == MADE
    assert session.file("archives").is_dir()


def test_missing_parents_are_made_alike(tallowick, workspace):
    session = Session(workspace / "one" / "two" / "three")
    assert tallowick.run("--remove-dumping-status", password=None, session=session).status == 0
    for path in (workspace / "one", workspace / "one" / "two", session.path, session.file("archives")):
        assert owner_and_mode(path) == MADE
    assert owner_and_mode(workspace)[2] == 0o755


def test_mask_of_the_caller_applies_to_new_directories(tallowick):
    session = tallowick.run("--remove-dumping-status", password=None, preexec_fn=lambda: os.umask(0o077)).session
    assert owner_and_mode(session.path) == (0, OVNADM.uid, 0o700)


def test_existing_directory_keeps_its_owner_and_mode(tallowick, workspace):
    session = Session(make_dir(workspace / "existing", 0o701))
    os.chown(session.path, 12, 13)
    assert tallowick.run("--remove-dumping-status", password=None, session=session).status == 0
    assert owner_and_mode(session.path) == (12, 13, 0o701)
    assert owner_and_mode(session.file("archives")) == MADE


def test_existing_archives_keep_their_owner_and_mode(tallowick, workspace):
    session = Session(make_dir(workspace / "existing"))
    archives = make_dir(session.file("archives"), 0o711)
    write(archives / "kept", "text")
    os.chown(archives, 14, 15)
    assert tallowick.run("--remove-dumping-status", password=None, session=session).status == 0
    assert owner_and_mode(archives) == (14, 15, 0o711)
    assert (archives / "kept").read_text() == "text"


def test_archives_that_are_a_file_do_not_matter(tallowick, workspace):
    session = Session(make_dir(workspace / "existing"))
    write(session.file("archives"), "text")
    assert tallowick.run("--remove-dumping-status", password=None, session=session).status == 0
    assert session.file("archives").read_text() == "text"


def test_other_files_in_the_directory_are_left_alone(tallowick, workspace):
    session = Session(make_dir(workspace / "existing"))
    write(session.file("dump.xml"), "text")
    assert tallowick.run("--remove-dumping-status", password=None, session=session).status == 0
    assert session.file("dump.xml").read_text() == "text"


@pytest.mark.parametrize("kind", ["file", "fifo", "below a file", "dangling link"])
def test_path_that_is_no_directory_is_refused(tallowick, workspace, kind):
    path = workspace / "path"
    if kind == "fifo":
        os.mkfifo(path)
    elif kind == "dangling link":
        path.symlink_to(workspace / "nowhere" / "at all")
    else:
        write(path, "text")
    session = Session(path / "below" if kind == "below a file" else path)
    run = tallowick.run("--remove-dumping-status", password=None, session=session)
    assert run.status == 1
    assert "]: Unable to create session: Unable to create session directory [./session:" in run.err
    assert run.err.startswith("Uncaught ExTraceableException: UnableToCreateSession[")


def test_trailing_slash_doubles_in_derived_names(tallowick, workspace):
    session = Session(workspace / "slash")
    make_dir(make_dir(session.file("migration.status")) / "in the way")
    run = tallowick.run("--remove-dumping-status", f"--session-path={session.path}/", password=None, session=False)
    assert run.status == 2
    assert f" to {session.path}//migration.status: " in run.err


def test_link_to_a_directory_is_followed(tallowick, workspace):
    target = make_dir(workspace / "target")
    session = Session(workspace / "link")
    session.path.symlink_to(target)
    assert tallowick.run("--remove-dumping-status", password=None, session=session).status == 0
    assert "migration.result" in [entry.name for entry in target.iterdir()]


def test_relative_session_path_is_relative_to_the_working_directory(tallowick, workspace):
    run = tallowick.run("--remove-dumping-status", "--session-path=some/session", password=None, session=False,
                        cwd=workspace)
    assert run.status == 0
    assert Session(workspace / "some" / "session").succeeded() == "success"


def test_session_path_with_odd_letters_is_used_as_it_is(tallowick, workspace):
    session = Session(workspace / "a b'c %1% ü")
    assert tallowick.run("--remove-dumping-status", password=None, session=session).status == 0
    assert session.succeeded() == "success"


def test_missing_panel_account_means_group_root(tallowick, workspace):
    run = tallowick.run("--remove-dumping-status", password=None, prefix=without_account("ovnadm", workspace))
    assert owner_and_mode(run.session.path) == (0, 0, 0o750)
    assert owner_and_mode(run.session.file("archives")) == (0, 0, 0o750)


def test_missing_panel_account_fails_the_first_document(tallowick, server, workspace):
    run = tallowick.run("--send-scout", *source(server), prefix=without_account("ovnadm", workspace))
    assert run.status == 2
    assert run.err.startswith("Cannot take ownership of ")
    assert "CantTakeFileOwnership[" in run.session.log
    # The second failure, that of the result document, is told as well and changes no status.
    assert run.err.count("Cannot take ownership of ") == 2
    assert f"{run.session.path}/migration.status" in run.err
    assert f"{run.session.path}/migration.result" in run.err
    assert "migration.result" not in run.session.names()
    assert server.commands() == []


def test_result_that_cannot_be_saved_after_a_success_is_status_1(tallowick, server, outbox, workspace):
    run = tallowick.run("--remove-agent", *source(server), f"--agent-dir={outbox}", "--agent-name=a",
                        prefix=without_account("ovnadm", workspace))
    assert run.status == 1
    assert run.err.startswith("Uncaught ExTraceableException: CantTakeFileOwnership[")
    assert f"Cannot take ownership of {run.session.path}/migration.result" in run.err
    assert server.commands()


def test_temporary_document_stays_when_its_owner_cannot_be_changed(tallowick, workspace):
    run = tallowick.run("--remove-dumping-status", password=None, prefix=without_account("ovnadm", workspace))
    left = [name for name in run.session.names() if name.startswith("migration.status")]
    assert len(left) == 1
    assert len(left[0]) == len("migration.status") + 6


def mount_tiny_disk(path, size):
    """A file system of `size` bytes at `path`."""
    make_dir(path)
    subprocess.run(["mount", "-t", "tmpfs", "-o", f"size={size},mode=755", "tmpfs", str(path)], check=True)


@pytest.fixture
def tiny_disk(workspace):
    """A session directory on a disk of 64 KiB."""
    path = workspace / "tiny"
    mount_tiny_disk(path, 65536)
    yield Session(path)
    subprocess.run(["umount", str(path)], check=True)


def test_disk_that_is_full_from_the_start_is_no_success(tallowick, server, tiny_disk):
    try:
        tiny_disk.file("filler").write_bytes(b"x" * 65536)
    except OSError:
        pass  # as intended
    run = tallowick.run("--send-scout", *source(server), session=tiny_disk)
    assert run.status in (1, 2)
    assert run.err


@pytest.mark.parametrize("size", [100_000, 3_000_000])
def test_disk_that_fills_up_with_the_report_is_told(tallowick, product, server, tiny_disk, size):
    product.set_scout(f"print q(x) x {size};")
    run = tallowick.run("--send-scout", *source(server), session=tiny_disk)
    assert run.status == 2
    # No document can be saved either; each failure is told, and the status is that of the first.
    assert "Cannot write data to the stream" in run.err


def test_file_size_limit_is_an_error_not_a_signal(tallowick, product, server):
    product.set_scout("print q(x) x 3_000_000;")
    run = tallowick.run("--send-scout", *source(server), session=tallowick.new_session(),
                        preexec_fn=lambda: resource.setrlimit(resource.RLIMIT_FSIZE, (1_000_000, 1_000_000)))
    assert run.status == 2
    assert run.session.error().code == "StreamWrite"


def test_status_that_cannot_be_renamed_into_place_fails_the_run(tallowick, server, workspace):
    session = Session(make_dir(workspace / "existing"))
    make_dir(make_dir(session.file("migration.status")) / "in the way")
    run = tallowick.run("--send-scout", *source(server), session=session)
    assert run.status == 2
    assert run.session.error().code == "CantRenameFile"
    assert run.err.startswith("Cannot rename ")
    assert server.commands() == []
