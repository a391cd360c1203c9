# SPDX-License-Identifier: Apache-2.0
"""What a dump consists of, by the objects and the parts of them that are asked for."""

import re

import pytest

from sample import archive_of, names_of

DOMAINS = ["shop.example", "blog.example", "forum.example", "bakery.example", "photos.example", "club.example",
           "school.example"]


def select(agent, *words):
    dump = agent.dump("--no-content", *words)
    return {kind: names_of(dump, kind) for kind in ("reseller", "client", "domain", "application")
            if names_of(dump, kind)}


def test_everything(agent):
    assert select(agent, "--dump-all") == {
        "reseller": ["webworks", "hostbrothers"], "client": ["anna", "bob", "carla", "dmitri", "erika"],
        "domain": DOMAINS, "application": ["wiki"]}


def test_a_domain_comes_alone(agent):
    assert select(agent, "--dump-domains=blog.example") == {"domain": ["blog.example"]}


def test_a_client_comes_with_its_domains(agent):
    assert select(agent, "--dump-clients=anna") == {"client": ["anna"], "domain": ["shop.example"]}


def test_a_reseller_comes_with_its_clients_and_with_its_domains_and_theirs(agent):
    assert select(agent, "--dump-resellers=hostbrothers") == {
        "reseller": ["hostbrothers"], "client": ["carla", "dmitri"],
        "domain": ["forum.example", "bakery.example", "school.example"]}


def test_what_is_selected_twice_is_dumped_once(agent):
    assert select(agent, "--dump-clients=anna,anna", "--dump-domains=shop.example,blog.example") == {
        "client": ["anna"], "domain": ["shop.example", "blog.example"]}


def test_nothing_selected_is_an_empty_dump(agent):
    assert len(agent.dump("--include-app-distrib")) == 0


def test_an_application_comes_with_the_domains_that_use_it_when_it_is_asked_for(agent):
    assert "application" in select(agent, "--dump-domains=blog.example", "--include-app-distrib")
    assert "application" not in select(agent, "--dump-domains=shop.example", "--include-app-distrib")


@pytest.mark.parametrize("words, expected", [
    (["--dump-domains=shop.example"], []),
    (["--server"], ["server", "license"]),
    (["--server", "--no-license"], ["server"]),
    (["--admin-info"], ["admin"]),
    (["--dump-all"], ["server", "license", "admin"]),
    (["--dump-all", "--no-license"], ["server", "admin"]),
], ids=" ".join)
def test_server_license_and_administrator_come_when_they_are_asked_for(agent, words, expected):
    dump = agent.dump("--no-content", *words)
    assert [element.tag for element in dump.iter() if element.tag in ("server", "license", "admin")] == expected


@pytest.mark.parametrize("words, contents", [
    ([], {"site", "mail", "skeleton"}),
    (["--only-mail"], {"mail"}),
    (["--only-hosting"], {"site", "skeleton"}),
], ids=str)
def test_the_filter_leaves_one_half_of_the_content(agent, words, contents):
    dump = agent.dump("--dump-domains=shop.example", "--dump-resellers=webworks", *words)
    assert {name.split("-")[2].split(".")[0] for name in agent.archives()} == contents
    assert {archive.get("name") for archive in dump.iter("archive")} == set(agent.archives())


def test_a_domain_without_a_site_has_none_in_the_dump(small_agent, place):
    (place / "server/hosting.conf").write_text("[domain mail.example]\nid 3\nmail site\n")
    dump = small_agent.dump("--dump-all")
    assert archive_of(dump, "domain", "mail.example", "mail")
    assert dump.find("domain/site") is None


def test_without_content_objects_are_described_and_no_archive_is_made(agent):
    dump = agent.dump("--dump-all", "--no-content")
    assert agent.archives() == []
    assert dump.find("domain/site") is not None
    assert [file.text for file in agent.content_list()] == ["migration.result", "dump.xml"]


def test_objects_are_described_as_the_server_knows_them(agent):
    dump = agent.dump("--dump-all", "--no-content")
    assert dump.find("client[@name='bob']").attrib == {
        "id": "2", "name": "bob", "reseller": "webworks", "contact": 'Bob "the builder" & sons',
        "email": "bob@source.example"}
    assert dump.find("domain[@name='blog.example']").attrib == {
        "id": "2", "name": "blog.example", "client": "bob", "application": "wiki"}
    assert [alias.get("name") for alias in dump.findall("domain[@name='blog.example']/alias")] == [
        "www.blog.example", "old.blog.example"]


@pytest.mark.parametrize("words, message", [
    (["--dump-domains=shop.example,no.example,none.example"], 'domain "no.example", "none.example"'),
    (["--dump-clients=nobody"], 'client "nobody"'),
    (["--dump-resellers=anna"], 'reseller "anna"'),
], ids=str)
def test_unknown_names_are_an_error_and_leave_an_earlier_dump(agent, words, message):
    agent.dump("--dump-domains=shop.example")
    before = {path.name: path.read_bytes() for path in agent.directory.iterdir() if path.is_file()}
    del before["dumping-status.xml"]
    ended = agent.run("--migration-mode", *words)
    assert (ended.returncode, ended.stdout) == (1, "")
    assert ended.stderr == f"SampleHosting: this server has no {message}\n"
    assert {name: (agent.directory / name).read_bytes() for name in before} == before
    assert re.search("<failed message=.*no", (agent.directory / "dumping-status.xml").read_text())
