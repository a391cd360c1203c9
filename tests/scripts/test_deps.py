# SPDX-License-Identifier: Apache-2.0
"""scripts/lib/deps.sh installs what is missing, and leaves a machine that has everything alone."""

import subprocess

import pytest

# In a sandbox, with /usr/sbin empty and stand-ins for the package tools that write down how they were called.
SETTING = """
    set -e
    mkdir /run/tools && cd /run/tools
    mount -t tmpfs none /usr/sbin
    cat >dpkg-query <<'END'
#!/bin/sh
for package; do case $package in --*|*'{'*) ;; g++|cmake) ;; *) echo "installed $package" ;; esac; done
exit 1
END
    cat >apt-get <<'END'
#!/bin/sh
cat /usr/sbin/policy-rc.d >/run/policy 2>&1
case " $* " in *' update '*) echo update >>/run/calls; exit "$UPDATE_STATUS" ;; esac
echo "$DEBIAN_FRONTEND $*" >>/run/calls
echo 'words of apt-get'
exit "$INSTALL_STATUS"
END
    chmod +x *
    export PATH=$PWD:/usr/bin UPDATE_STATUS=0 INSTALL_STATUS=0
"""


@pytest.fixture
def install(top):
    """Runs install_missing with groups of packages after `prepare`, and then `inspect`, as shell texts."""
    def run(groups, prepare="", inspect="", before=SETTING):
        text = f'{before}\n. "$1/scripts/lib/deps.sh"\n{prepare}\nset +e\ninstall_missing {groups}\nended=$?\n{inspect}\nexit $ended'
        return subprocess.run([top / "scripts/sandbox", "bash", "-c", text, "bash", top], capture_output=True, text=True,
                              check=False, stdin=subprocess.DEVNULL)

    return run


def test_nothing_is_asked_of_a_machine_that_has_everything(install):
    ended = install("test", inspect="ls /run/calls /usr/sbin")
    assert (ended.returncode, ended.stdout) == (0, "/usr/sbin:\n")


def test_what_is_missing_and_only_that_is_installed(install):
    ended = install("test build", inspect="cat /run/calls")
    assert ended.returncode == 0
    said, update, call = ended.stdout.splitlines()
    assert said == "installing: g++ cmake"
    assert update == "update"
    assert call.startswith("noninteractive ")
    assert "--no-install-recommends" in call
    assert call.endswith(" install g++ cmake")


def test_no_server_is_started_while_packages_are_installed(install):
    ended = install("build", inspect="cat /run/policy; ls /usr/sbin")
    assert ended.stdout == "installing: g++ cmake\n#!/bin/sh\nexit 101\n"


def test_the_machines_own_policy_stays(install):
    ended = install("build", prepare="echo mine >/usr/sbin/policy-rc.d", inspect="cat /run/policy /usr/sbin/policy-rc.d")
    assert ended.stdout == "installing: g++ cmake\nmine\nmine\n"


def test_a_list_that_cannot_be_updated_does_not_stop_the_installation(install):
    assert install("build", prepare="UPDATE_STATUS=100").returncode == 0


def test_a_failed_installation_is_shown_and_leaves_no_policy(install):
    ended = install("build", prepare="INSTALL_STATUS=100", inspect="ls /usr/sbin")
    assert ended.returncode == 1
    assert ended.stdout == "installing: g++ cmake\n"
    assert "words of apt-get" in ended.stderr
    assert "cannot be installed" in ended.stderr


def test_without_root_it_says_what_is_missing(install):
    ended = install("build", prepare="id() { echo 1000; }", inspect="ls /run/calls")
    assert ended.returncode == 1
    assert "only root can install them: apt-get install g++ cmake" in ended.stderr


def test_elsewhere_than_on_debian_it_says_what_to_install(install):
    ended = install("build", prepare="rm /etc/os-release; echo ID=other >/etc/os-release", inspect="ls /run/calls")
    assert ended.returncode == 1
    assert "please install: g++ cmake" in ended.stderr


def test_without_dpkg_it_says_what_to_install(install):
    ended = install("tools", before="mkdir /run/none; PATH=/run/none")
    assert ended.returncode == 1
    assert "please install what Debian calls: clang clang-tidy clang-format" in ended.stderr


def test_an_unknown_group_is_refused(install):
    assert install("nonsense").returncode == 1
