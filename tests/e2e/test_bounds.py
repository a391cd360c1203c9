# SPDX-License-Identifier: Apache-2.0
"""However much the source host says, the program's memory stays small, and lists beyond all reason are refused."""

import codecs
import itertools
import resource

import pytest

from harness.agents import content_file, content_list
from harness.content import RESULT, get_content
from harness.long_runs import FLOOD_MIB
from harness.peak import Measured
from harness.program import source

MIB = 1024 * 1024
KIB_PER_MIB = 1024
LARGEST_LIST = 16 * MIB
NO_FILES = b'<contentlist size="0" unpacked="0">%s</contentlist>'
DIGEST = b"d41d8cd98f00b204e9800998ecf8427e"


@pytest.fixture
def fetch(tallowick_release, server, agent, workspace):
    """Fetches a list's content with the release build, and gives the run and its peak of memory in MiB. What would be
    logged beyond 16 MiB is dropped."""
    def run(text, *options):
        agent.answer(list=text)
        measured = Measured(workspace / "account")
        done = get_content(tallowick_release, server, agent, *options, prefix=measured.prefix,
                           preexec_fn=lambda: resource.setrlimit(resource.RLIMIT_FSIZE, (16 * MIB, 16 * MIB)))
        return done, measured.account().peak_kib / KIB_PER_MIB

    return run


def filled(template, piece, size=LARGEST_LIST):
    """`template` with as many of `piece` as fit into `size` bytes, and blanks for the rest."""
    room = size - len(template % b"")
    return template % (piece * (room // len(piece)) + b" " * (room % len(piece)))


@pytest.mark.parametrize("size", [LARGEST_LIST - 1, LARGEST_LIST])
def test_list_of_sixteen_mib_is_read(fetch, size):
    run, peak = fetch(filled(NO_FILES, b" " * 64, size))
    assert run.status == 0
    assert run.session.succeeded(RESULT) == "success"
    assert peak < 256


@pytest.mark.parametrize("size", [LARGEST_LIST + 1, 64 * MIB])
def test_larger_list_is_refused(fetch, server, size):
    run, peak = fetch(filled(NO_FILES, b" " * 64, size))
    assert run.status == 2
    error = run.session.error(RESULT)
    assert (error.code, error.description) == ("CantRetrieveContentList", "Error during content list retrieval: "
                                                                          "the list is larger than 16 MiB")
    assert len(server.commands()) == 1
    assert peak < 256


# What makes the most of each byte.
COSTLY = {"files with all that a list says": b'<file size="1" md5sum="%s">a/b</file>' % DIGEST,
          "files with a name": b"<file>a</file>", "files without anything": b"<file/>",
          "attributes": b'<a b="" c=""/>', "name spaces": b'<a xmlns:b="c"/>', "text and elements": b"a<b/>"}


@pytest.mark.parametrize("piece", COSTLY.values(), ids=COSTLY.keys())
def test_list_that_is_all_markup_takes_bounded_memory(fetch, piece):
    run, peak = fetch(filled(NO_FILES, piece))
    assert run.status in (0, 2)
    assert peak < 256


@pytest.mark.parametrize("start, end", [(b"<file>", b"</file>"), (b"<a>", b"</a>")], ids=["file", "other"])
# A parser needs microseconds to complain about each unknown entity.
@pytest.mark.parametrize("piece, size", [(b"<b/>", LARGEST_LIST), (b"&unknown;", MIB)], ids=["elements", "entities"])
def test_list_with_everything_in_one_element_takes_bounded_memory(fetch, start, end, piece, size):
    template = (b'<!DOCTYPE contentlist SYSTEM "http://localhost/list.dtd">'
                b'<contentlist size="0" unpacked="0">' + start + b"%s" + end + b"</contentlist>")
    run, peak = fetch(filled(template, piece, size))
    assert run.status in (0, 2)
    assert peak < 256


def one_of_each(piece, size):
    """`piece` with the numbers from 0 on in the place of "%x", as many as fit into `size` bytes."""
    pieces = (piece % number for number in itertools.count())
    total = itertools.accumulate(len(piece % number) for number in itertools.count())
    return b"".join(each for each, _ in zip(pieces, itertools.takewhile(lambda end: end <= size, total)))


TAG = b'<contentlist size="0" unpacked="0"%s></contentlist>'
UTF16 = '<?xml version="1.0" encoding="UTF-16"?>'
# Each as long as a list may be.
EXCESSIVE = {
    "attributes": TAG % one_of_each(b' a%x=""', LARGEST_LIST - 64),
    "attributes in UTF-16": (UTF16 + (TAG % one_of_each(b' a%x=""', LARGEST_LIST // 2 - 128)).decode()).encode("utf-16"),
    "attributes with one name": filled(TAG, b' a=""'),
    "attributes with a prefix": TAG % (b' xmlns:a="a"' + one_of_each(b' a:a%x=""', LARGEST_LIST - 128)),
    "attributes of a file": NO_FILES % (b"<file%s/>" % one_of_each(b' a%x=""', LARGEST_LIST - 128)),
    "name spaces": TAG % one_of_each(b' xmlns:a%x="u"', LARGEST_LIST - 64),
    "a long attribute": filled(b'<contentlist size="0" unpacked="0" a="%s"></contentlist>', b"v"),
    "elements with many attributes": filled(NO_FILES, b"<a%s/>" % one_of_each(b' a%x=""', 16384)),
    "names": NO_FILES % one_of_each(b"<a%x/>", LARGEST_LIST - 64),
    "a declaration": filled(b"<!DOCTYPE contentlist [<!ELEMENT a (%sb)>]>" + NO_FILES % b"", b"b,"),
    "declarations": b"<!DOCTYPE contentlist [%s]>" % one_of_each(b"<!ELEMENT a%x ANY>", LARGEST_LIST - 128)
                    + NO_FILES % b""}


@pytest.mark.parametrize("text", EXCESSIVE.values(), ids=EXCESSIVE.keys())
def test_list_with_too_much_in_a_tag_or_of_declarations_is_refused(fetch, server, text):
    assert 0.99 * LARGEST_LIST < len(text) <= LARGEST_LIST
    run, peak = fetch(text)
    # What is not in UTF-8 is never quoted.
    code = "CantRetrieveContentList" if text.startswith(codecs.BOM_UTF16) else "tError_ParseFile"
    error = run.session.error(RESULT)
    assert (run.status, error.code, error.inner) == (2, code, None)
    assert len(server.commands()) == 1
    assert peak < 256


NAMES = {"empty parts": (b"/", b"x"), "directories": (b"a/", b"x"), "names of this run": (b"dump-name/", b"x"),
         "a brace expression that a document needs more room for": (b">", b"{,}")}


@pytest.mark.parametrize("piece, end", NAMES.values(), ids=NAMES.keys())
def test_immense_name_is_refused_before_anything_is_made(fetch, server, workspace, piece, end):
    entry = b'<file size="0">%s' + end + b"</file>"
    run, peak = fetch(filled(NO_FILES % entry, piece), f"--dumps-dir={workspace}/dumps", "--no-check-space")
    error = run.session.error(RESULT).inner
    assert (run.status, error.code) == (2, "CantRetrieveContentFile")
    assert error.description.endswith(" bytes left out]': the path is longer than paths can be")
    assert run.session.file(RESULT).stat().st_size < 100_000
    assert not (workspace / "dumps").exists()
    assert len(server.commands()) == 1
    assert peak < 256


def test_list_of_a_hundred_thousand_files_is_worked_through(fetch, agent):
    first = [agent.add(f"file-{number}", b"%d" % number) for number in range(3)]
    missing = [content_file(f"directory-{number % 1000}/file-{number}", b"") for number in range(100_000)]
    run, peak = fetch(content_list([*first, *missing]).encode())
    assert (run.status, run.session.error(RESULT).inner.code) == (2, "CantRetrieveContentFile")
    assert [run.session.file(f"file-{number}").read_bytes() for number in range(3)] == [b"0", b"1", b"2"]
    assert run.session.status.find("idle") is not None
    assert peak < 128


def scout(tallowick_release, server, workspace, **options):
    measured = Measured(workspace / "account")
    run = tallowick_release.run("--send-scout", *source(server), prefix=measured.prefix, **options)
    return run, measured.account().peak_kib / KIB_PER_MIB


@pytest.mark.parametrize("ends", ["exit 3", "exit 0"])
def test_many_small_pieces_on_standard_error_take_little_memory(tallowick_release, product, server, workspace, ends):
    product.set_scout(f"$| = 1; select STDERR; $| = 1; print qq($_\\n) for 1 .. 100_000; {ends};")
    run, peak = scout(tallowick_release, server, workspace)
    assert run.status == (2 if ends == "exit 3" else 0)
    if run.status == 2:
        text = run.session.error().description
        assert "STDERR is\n1\n2\n3\n" in text
        assert text.endswith("\n99999\n100000\n")
        assert len(text) < 132 * 1024
    assert peak < 64


def test_long_standard_error_keeps_its_ends_and_tells_what_is_missing(tallowick_release, product, server, workspace):
    product.set_scout("print STDERR q(a) x 70_000, q(m) x 3_000_000, q(z) x 70_000; exit 3;")
    run, peak = scout(tallowick_release, server, workspace)
    text = run.session.error().description
    assert run.status == 2
    assert "is\n" + "a" * 65536 in text
    assert text.endswith("z" * 65536)
    assert "mmmm" not in text
    assert peak < 64


@pytest.mark.background
def test_endless_standard_error_takes_little_memory(long_runs):
    run, account = long_runs.flood.result()
    assert run.status == 2
    text = run.session.error().description
    assert len(text) < 132 * 1024
    assert f"{FLOOD_MIB * MIB - 128 * 1024}" in text
    assert account.peak_kib < 64 * KIB_PER_MIB
    # The log is cut by a limit of the run's own, which disturbs nothing.
    assert run.session.file("migration.log").stat().st_size <= 16 * MIB
