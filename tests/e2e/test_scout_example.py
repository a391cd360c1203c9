# SPDX-License-Identifier: Apache-2.0
"""The example scout: a whole, well-formed report about whatever host and login it meets."""

import io
import os
import pathlib
import subprocess
from xml.etree import ElementTree

import paramiko
import pytest

from harness.accounts import ACCOUNTS, MOVER, NOPASS, OWNER, PLAIN
from harness.places import SOURCE_ROOT, make_dir, remove_tree, write
from harness.program import source

SCOUT = (SOURCE_ROOT / "examples" / "scout.pl").read_bytes()
PARTS = ["system", "memory", "disks", "interpreters", "databases", "web-servers", "accounts", "sites"]

APACHE = """\
ServerRoot "/etc/apache2"
Define ROOT /run/www
Listen 80
# DocumentRoot /nowhere
IncludeOptional sites-enabled/*.conf
"""
APACHE_SITES = """\
<VirtualHost *:80 [::1]:81>
    ServerAlias www.shop.example \\
        old.shop.example
    servername http://shop.example:80
    DocumentRoot "${ROOT}/shop & more"
    <Directory "/nowhere">
    </Directory>
</VirtualHost>
<VirtualHost *:443>
    DocumentRoot /run/www/none
</VirtualHost>
"""
NGINX = """\
events { worker_connections 10; }
http {
    upstream back { server 127.0.0.1:1; }
    include sites/*;
    server { listen 81; server_name "quoted.example"; root '/run/www/a b'; }  # server { }
}
mail { server { listen 25; server_name mail.example; } }
"""
NGINX_SITE = """\
server {
    listen 80 default_server; listen [::]:80;
    server_name blog.example
                www.blog.example;
    location / { root /nowhere; }
    root /run/www/blog;
}
"""


def scout(**options):
    """Runs the scout here, as the interpreter's standard input, and returns the ended process."""
    return subprocess.run(["/usr/bin/perl"], input=SCOUT, capture_output=True, check=False, **options)


def report(**options):
    """The root of the report of a run that must be without fault."""
    ended = scout(**options)
    assert (ended.returncode, ended.stderr) == (0, b"")
    return ElementTree.fromstring(ended.stdout)


@pytest.fixture
def etc():
    """Writes files below /etc, which is private here, and puts everything back."""
    kept = {}

    def put(name, content):
        path = pathlib.Path("/etc") / name
        kept.setdefault(path, path.read_bytes() if path.exists() else None)
        make_dir(path.parent)
        path.unlink(missing_ok=True)
        return write(path, content)

    yield put
    for path, content in kept.items():
        path.unlink(missing_ok=True)
        if content is not None:
            write(path, content)


def test_every_part_is_there():
    root = report()
    assert root.tag == "scout"
    assert [part.tag for part in root] == PARTS
    system = root.find("system")
    assert system.get("hostname") == os.uname().nodename
    assert system.find("kernel").get("release") == os.uname().release
    assert int(system.find("cpus").get("count")) == os.cpu_count()
    assert system.find("os").get("id") == "debian"
    assert int(root.find("memory").get("total-kib")) > 0
    assert {"perl", "python"} <= {each.get("name") for each in root.find("interpreters")}


def test_the_report_does_not_depend_on_the_environment():
    assert [part.tag for part in report(env={})] == PARTS
    hostile = {"PATH": "", "LANGUAGE": "tr", "IFS": "/", "PERL_UNICODE": "SAD"}
    assert [part.tag for part in report(env=hostile)] == PARTS


def test_it_needs_no_kernel_views_and_no_tools():
    script = "mount --bind /dev/null /usr/bin/df && mount -t tmpfs none /proc && exec perl"
    ended = subprocess.run(["unshare", "--mount", "--propagation", "unchanged", "sh", "-c", script], input=SCOUT, capture_output=True, check=False)
    assert (ended.returncode, ended.stderr) == (0, b"")
    root = ElementTree.fromstring(ended.stdout)
    assert "memory" not in [part.tag for part in root]
    assert root.find("system/kernel") is not None


def remote_report(server, account, command, first_line=b""):
    with paramiko.SSHClient() as client:
        client.set_missing_host_key_policy(paramiko.AutoAddPolicy())
        client.connect(server.address, server.port, account.login, account.password, look_for_keys=False,
                       allow_agent=False)
        channel = client.get_transport().open_session()
        channel.exec_command(command)
        channel.sendall(first_line + SCOUT)
        channel.shutdown_write()
        output = channel.makefile("rb").read()
        errors = channel.makefile_stderr("rb").read()
        return channel.recv_exit_status(), output, errors


def test_a_login_runs_it_over_ssh(server):
    status, output, errors = remote_report(server, PLAIN, "sh -c perl")
    assert (status, errors) == (0, b"")
    user = ElementTree.fromstring(output).find("system/user")
    assert (user.get("name"), user.get("root")) == (PLAIN.login, "no")


@pytest.mark.parametrize("account", [MOVER, OWNER], ids=lambda account: account.login)
def test_sudo_runs_it_over_ssh(server, account):
    line = account.sudo_password.encode() + b"\n"
    status, output, _ = remote_report(server, account, "sudo -k; sudo -S -p ' ' perl", line)
    assert status == 0
    assert ElementTree.fromstring(output).find("system/user").get("root") == "yes"


def test_people_are_listed_without_their_secrets():
    ended = scout()
    logins = {each.get("login") for each in ElementTree.fromstring(ended.stdout).find("accounts")}
    assert {MOVER.login, NOPASS.login} <= logins
    assert not {"root", "ovnadm", "daemon", "sshd", "nobody"} & logins
    for account in ACCOUNTS.values():
        assert not account.password or account.password.encode() not in ended.stdout
    assert b"$6$" not in ended.stdout


def test_text_of_any_bytes_becomes_valid_xml(etc):
    etc("os-release", b'NAME="a<b>&\'\\" \xff\xc3\xa4\xed\xa0\x80\x01\xef\xbf\xbf"\nID=debian\n')
    name = report().find("system/os").get("name")
    bad = "\N{REPLACEMENT CHARACTER}"
    assert name == f"a<b>&'\\\" {bad}ä{bad * 3}{bad}{bad * 3}"


def test_sites_of_apache_are_found(etc):
    etc("apache2/apache2.conf", APACHE)
    etc("apache2/sites-enabled/shop.conf", APACHE_SITES)
    sites = [each for each in report().find("sites") if each.get("server") == "apache"]
    shop, unnamed = sites
    assert shop.get("name") == "shop.example"
    assert [each.get("name") for each in shop.iter("alias")] == ["www.shop.example", "old.shop.example"]
    assert [each.get("address") for each in shop.iter("listen")] == ["*:80", "[::1]:81"]
    assert shop.find("document-root").attrib == {"path": "/run/www/shop & more", "exists": "no"}
    assert unnamed.get("name") is None
    assert unnamed.find("document-root").get("path") == "/run/www/none"


def test_sites_of_nginx_are_found(etc):
    etc("nginx/nginx.conf", NGINX)
    etc("nginx/sites/blog", NGINX_SITE)
    found = [(each.get("name"), [alias.get("name") for alias in each.iter("alias")],
              [listen.get("address") for listen in each.iter("listen")], each.find("document-root").get("path"))
             for each in report().find("sites") if each.get("server") == "nginx"]
    assert found == [
        ("blog.example", ["www.blog.example"], ["80", "[::]:80"], "/run/www/blog"),
        ("quoted.example", [], ["81"], "/run/www/a b"),
    ]


def test_a_configuration_that_includes_itself_or_a_fifo_ends(etc):
    etc("apache2/apache2.conf", "DocumentRoot /run/www\nInclude apache2.conf\nInclude fifo\n")
    os.mkfifo("/etc/apache2/fifo")
    try:
        assert report().find("sites/site/document-root").get("path") == "/run/www"
    finally:
        os.unlink("/etc/apache2/fifo")


@pytest.fixture
def program():
    """Puts programs where the scout looks for them, below the private product root."""
    directory = pathlib.Path("/usr/local/ovn/bin")

    def put(name, text):
        return write(make_dir(directory) / name, text, 0o755)

    yield put
    remove_tree(directory)


def test_programs_are_told_with_their_version(program):
    program("httpd", "#!/bin/sh\necho 'Server version: Apache/2.2.15 (Unix)' >&2\n")
    program("mysqld", "#!/bin/sh\ncat; echo \"mysqld  Ver 5.1.73 for unknown\"\n")
    root = report()
    path = "/usr/local/ovn/bin"
    assert root.find(f"web-servers/*[@path='{path}/httpd']").attrib == {
        "name": "apache", "path": f"{path}/httpd", "version": "2.2.15", "running": "no"}
    assert root.find(f"databases/*[@path='{path}/mysqld']").get("version") == "5.1.73"


def test_a_program_that_hangs_or_breaks_is_left_out(program):
    program("nginx", "#!/bin/sh\necho 1.2.3; exec sleep 1000\n")
    program("php", "#!/nowhere\n")
    root = report()
    assert [each for each in root.iter() if "/ovn/bin/" in each.get("path", "")] == []


def test_a_report_that_cannot_be_printed_is_a_failure():
    with open("/dev/full", "wb") as full:
        ended = subprocess.run(["/usr/bin/perl"], input=SCOUT, stdout=full, stderr=subprocess.PIPE, check=False)
    assert ended.returncode != 0
    assert b"cannot print the report" in ended.stderr


def test_the_program_stores_the_report(tallowick, server, product):
    product.set_scout(SCOUT.decode())
    run = tallowick.run("--send-scout", *source(server))
    assert run.status == 0
    assert [part.tag for part in ElementTree.parse(io.BytesIO(run.session.scout_result)).getroot()] == PARTS
