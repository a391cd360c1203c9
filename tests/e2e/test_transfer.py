# SPDX-License-Identifier: Apache-2.0
"""Remote files: downloads and uploads over "cat"."""

import hashlib
import os
import re

import pytest

from harness.disks import full_disk_at
from harness.places import write
from harness.probe import execute, get, get_stream, put

CHUNK = 65536
MIB = 1024 * 1024
SIZES = [0, 1, CHUNK - 1, CHUNK, CHUNK + 1, 5 * MIB + 3]


def content_of(size):
    """Bytes of every value, not repeating with a chunk's length."""
    return (bytes(range(251)) * (size // 251 + 1))[:size]


@pytest.mark.parametrize("size", SIZES)
def test_downloaded_file_equals_the_remote_one(probe, server, workspace, size):
    remote = write(workspace / "remote", content_of(size))
    counts = workspace / "counts"
    run = probe.run(server, get(workspace / "local", remote, counts=counts))
    assert run.statuses == [0]
    assert (workspace / "local").read_bytes() == remote.read_bytes()
    sizes = [int(line) for line in counts.read_text().split()]
    assert sum(sizes) == size
    assert all(0 < each <= CHUNK for each in sizes)


def test_download_of_more_than_128_kib_does_not_hang(probe, server, workspace):
    remote = write(workspace / "remote", content_of(MIB))
    assert probe.run(server, get(workspace / "local", remote), timeout=30).statuses == [0]


@pytest.mark.parametrize("size", SIZES)
def test_download_into_a_stream_equals_the_remote_file(probe, server, workspace, size):
    remote = write(workspace / "remote", content_of(size))
    run = probe.run(server, get_stream(remote, out=workspace / "out"))
    assert run.statuses == [0]
    assert (workspace / "out").read_bytes() == remote.read_bytes()


@pytest.mark.parametrize("size", SIZES)
def test_uploaded_file_equals_the_local_one(probe, server, workspace, outbox, size):
    local = write(workspace / "local", content_of(size))
    run = probe.run(server, put(local, outbox / "remote"), execute("exit 3"))
    assert run.statuses == [0, 3]
    assert (outbox / "remote").read_bytes() == local.read_bytes()


def test_transfers_are_remote_cats(probe, server, workspace, outbox):
    remote = write(workspace / "remote", b"text")
    probe.run(server, get(workspace / "local", remote), put(remote, outbox / "copy"))
    assert server.commands() == [f"cat {remote}".encode(), f"cat > {outbox}/copy".encode()]


@pytest.mark.parametrize("name", ["two  blanks", "quote'd \"name\"", "tab\tand\nnewline", "$HOME `id` #1 \\ * ? [x] ~",
                                  "a;b|c&d<e>f(g)", "prozent %1% ümläut", "\udcff\udcfe raw"])
def test_odd_remote_names_reach_cat_quoted(probe, server, workspace, outbox, name):
    remote = write(outbox / name, b"content of an odd name")
    run = probe.run(server, get(workspace / "local", remote), put(remote, f"{remote}.copy"))
    assert run.statuses == [0, 0]
    assert (workspace / "local").read_bytes() == b"content of an odd name"
    assert (outbox / f"{name}.copy").read_bytes() == b"content of an odd name"


def test_missing_remote_file_deletes_the_local_one_and_tells_the_remote_error(probe, server, workspace):
    local = write(workspace / "local", b"from before")
    run = probe.run(server, get(local, workspace / "missing", err=workspace / "err"), execute("exit 3"))
    assert run.statuses == [1, 3]
    assert not local.exists()
    assert "No such file or directory" in (workspace / "err").read_text()


def test_unreadable_remote_file_deletes_the_local_one(probe, server, workspace):
    remote = write(workspace / "remote", b"secret", 0o600)
    run = probe.run(server, get(workspace / "local", remote, err=workspace / "err"))
    assert run.statuses == [1]
    assert not (workspace / "local").exists()
    assert "Permission denied" in (workspace / "err").read_text()


@pytest.mark.parametrize("mask, mode", [("000", 0o644), ("022", 0o644), ("077", 0o644)])
def test_downloaded_file_is_readable_for_all_whatever_the_mask(probe, server, workspace, mask, mode):
    remote = write(workspace / "remote", b"text")
    run = probe.run(server, get(workspace / "local", remote), options=["--umask", mask])
    assert run.statuses == [0]
    assert (workspace / "local").stat().st_mode & 0o777 == mode


def test_mask_is_restored_after_a_download(probe, server, workspace):
    remote = write(workspace / "remote", b"text")
    run = probe.run(server, get(workspace / "local", remote), get(workspace / "gone", workspace / "missing"),
                    execute("echo x", out=workspace / "out"), options=["--umask", "077"])
    assert run.statuses == [0, 1, 0]
    assert (workspace / "out").stat().st_mode & 0o777 == 0o600


def test_download_truncates_what_was_there(probe, server, workspace):
    local = write(workspace / "local", b"x" * 100000)
    remote = write(workspace / "remote", b"short")
    assert probe.run(server, get(local, remote)).statuses == [0]
    assert local.read_bytes() == b"short"


def test_local_file_that_cannot_be_opened_fails_with_the_first_chunk(probe, server, workspace):
    remote = write(workspace / "remote", b"text")
    run = probe.run(server, get(workspace / "no" / "directory", remote), execute("exit 3"))
    assert run.statuses[0] == "StreamWrite"
    assert run.results[0].text.strip() == "Cannot write data to the stream"


@pytest.mark.parametrize("size", [1, 100, 8 * MIB])
def test_full_disk_is_an_error_also_for_the_last_bytes(probe, server, workspace, size):
    remote = write(workspace / "remote", content_of(size))
    with full_disk_at(workspace / "local", workspace / "disk") as local:
        assert probe.run(server, get(local, remote)).statuses == ["StreamWrite"]


def test_link_in_place_of_the_local_file_is_refused_and_its_target_untouched(probe, server, workspace):
    remote = write(workspace / "remote", b"text")
    target = write(workspace / "target", b"untouched")
    local = workspace / "local"
    local.symlink_to(target)
    assert probe.run(server, get(local, remote)).statuses == ["StreamWrite"]
    # A failing "cat" deletes the local file that it was to fill, but not a link that is not its own.
    assert probe.run(server, get(local, workspace / "missing")).statuses == [1]
    assert local.is_symlink()
    assert target.read_bytes() == b"untouched"


def test_dangling_link_in_place_of_the_local_file_is_refused(probe, server, workspace):
    remote = write(workspace / "remote", b"text")
    (workspace / "local").symlink_to(workspace / "missing")
    assert probe.run(server, get(workspace / "local", remote)).statuses == ["StreamWrite"]
    assert not (workspace / "missing").exists()


@pytest.mark.parametrize("size", [1, 100, 8 * MIB])
def test_full_output_is_an_error_also_for_the_last_bytes(probe, server, workspace, size):
    remote = write(workspace / "remote", content_of(size))
    assert probe.run(server, get_stream(remote, out="/dev/full")).statuses == ["StreamWrite"]


def test_upload_of_a_missing_local_file_makes_an_empty_remote_one(probe, server, workspace, outbox):
    run = probe.run(server, put(workspace / "missing", outbox / "remote"))
    assert [result.tag for result in run.results] == [None]
    assert (outbox / "remote").read_bytes() == b""


def test_upload_that_fails_remotely_is_only_logged(probe, server, workspace):
    local = write(workspace / "local", b"text")
    run = probe.run(server, put(local, workspace / "no" / "directory"), execute("exit 3"))
    assert [result.tag for result in run.results] == [None, None]
    assert re.search(rb"ERROR[^\n]*k\.Ssh", run.log)


def test_transferred_bytes_are_never_logged(probe, server, workspace, outbox):
    local = write(workspace / "local", b"Content-That-Is-Private")
    run = probe.run(server, put(local, outbox / "remote"), get(workspace / "back", outbox / "remote"))
    assert run.statuses == [0, 0]
    assert b"Content-That-Is-Private" not in run.log
    assert b"remote std" not in run.log


def test_transfers_are_announced_in_the_log(probe, server, workspace, outbox):
    local = write(workspace / "local", b"text")
    run = probe.run(server, put(local, outbox / "remote"), get(workspace / "back", outbox / "remote"))
    log = run.log.decode()
    announcements = re.findall(r"(?:Reading|Writing) .*", log)
    assert announcements == [f"Writing file {local} to the remote host",
                             f"Writing data to the remote file {outbox}/remote",
                             f"Reading data to the file {workspace}/back",
                             f"Reading data from the remote file {outbox}/remote"]


def test_memory_does_not_grow_with_the_file(probe_release, server, workspace):
    remote = workspace / "remote"
    with open(remote, "wb") as file:
        file.truncate(300 * MIB)
    os.chmod(remote, 0o644)
    run = probe_release.run(server, get_stream(remote, out="/dev/null"))
    assert run.statuses == [0]
    assert 0 < run.peak_kib < 32 * 1024


def test_memory_does_not_grow_with_the_input(probe_release, server, workspace):
    local = workspace / "local"
    with open(local, "wb") as file:
        file.truncate(300 * MIB)
    run = probe_release.run(server, put(local, "/dev/null"))
    assert run.statuses == [0]
    assert 0 < run.peak_kib < 32 * 1024


def test_large_download_has_the_right_sum(probe_release, server, workspace):
    block = os.urandom(MIB)
    remote = workspace / "remote"
    digest = hashlib.md5()
    with open(remote, "wb") as file:
        for _ in range(64):
            file.write(block)
            digest.update(block)
    os.chmod(remote, 0o644)
    assert probe_release.run(server, get(workspace / "local", remote)).statuses == [0]
    with open(workspace / "local", "rb") as file:
        assert hashlib.file_digest(file, "md5").hexdigest() == digest.hexdigest()
