# SPDX-License-Identifier: Apache-2.0
"""scripts/check-layers finds what goes against the direction of the layers, and nothing else."""

import subprocess

import pytest

SOUND = {
    "src/commons/CMakeLists.txt": "add_library(korva_errors STATIC\n  exception.cpp)\n"
                                  "add_library(korva_commons STATIC\n  socket.cpp)\n"
                                  "target_link_libraries(korva_commons PUBLIC korva_utils)\n",
    "src/commons/exception.h": "",
    "src/commons/exception.cpp": '#include "commons/exception.h"\n#include <string>\n',
    "src/commons/handle.h": '#include "commons/exception.h"\n',
    "src/commons/socket.h": '#include "commons/handle.h"\n#include "utils/accounts.h"\n',
    "src/commons/socket.cpp": "",
    "src/utils/accounts.h": '#include "commons/exception.h"\n',
    "src/ssh/pump.cpp": '#include "commons/socket.h"\n#include <libssh2.h>\n',
    "src/xml/log.h": "#include <libxml/tree.h>\n",
    "src/agents/agent_spec.h": '#include "commons/socket.h"\n',
    "src/tallowick/main.cpp": '#include "xml/log.h"\n#include "agents/agent_spec.h"\n',
    "src/tallowick/CMakeLists.txt": "add_library(tallowick_core STATIC main.cpp)\n"
                                    "target_link_libraries(tallowick_core\n  PUBLIC korva_ssh korva_xml)\n",
    "src/watch/terminal.cpp": '#include "xml/log.h"\n#include <curses.h>\n',
    "src/watch/CMakeLists.txt": "target_link_libraries(korva_watch PUBLIC korva_xml)\n"
                                "target_link_libraries(tallowick-watch PRIVATE korva_watch PkgConfig::NCURSESW)\n",
    "src/agent_check/main.cpp": '#include "tallowick/agent_commands.h"\n#include "xml/xml_scan.h"\n',
    "src/agent_check/CMakeLists.txt": "target_link_libraries(agent_check_core PUBLIC tallowick_core)\n"
                                      "target_link_libraries(tallowick-agent-check PRIVATE agent_check_core)\n",
}


@pytest.fixture
def check(top, tmp_path):
    """Writes the sound tree with some files replaced, and returns the status and the output of the check."""
    def run(files):
        for name, text in {**SOUND, **files}.items():
            path = tmp_path / name
            path.parent.mkdir(parents=True, exist_ok=True)
            path.write_text(text)
        ended = subprocess.run([top / "scripts/check-layers", tmp_path], capture_output=True, text=True, check=False)
        assert ended.stderr == ""
        return ended.returncode, ended.stdout

    return run


def test_a_sound_tree_passes(check):
    assert check({}) == (0, "")


def test_this_tree_passes(top):
    assert subprocess.run([top / "scripts/check-layers"], check=False).returncode == 0


@pytest.mark.parametrize("user, used", [
    ("utils/a.h", "commons/socket.h"),
    ("utils/a.h", "ssh/pump.h"),
    ("commons/exception.cpp", "utils/accounts.h"),
    ("commons/handle.h", "commons/socket.h"),
    ("commons/socket.cpp", "xml/log.h"),
    ("ssh/pump.cpp", "xml/log.h"),
    ("xml/log.h", "agents/agent_spec.h"),
    ("agents/agent_spec.h", "ssh/pump.h"),
    ("ssh/pump.cpp", "tallowick/driver.h"),
    ("watch/frame.h", "ssh/pump.h"),
    ("watch/frame.h", "tallowick/driver.h"),
    ("tallowick/main.cpp", "watch/frame.h"),
    ("tallowick/main.cpp", "agent_check/report.h"),
    ("agent_check/main.cpp", "ssh/pump.h"),
    ("ssh/pump.cpp", "pump.h"),
    ("ssh/pump.cpp", "nowhere/pump.h"),
])
def test_an_include_that_leads_upwards_or_nowhere_is_named(check, user, used):
    status, output = check({f"src/{user}": f'\n  #  include "{used}"\n'})
    assert status == 1
    assert output.startswith(f"src/{user}:2: ")
    assert used in output


@pytest.mark.parametrize("user, header", [
    ("commons/socket.cpp", "libssh2.h"),
    ("tallowick/main.cpp", "libssh2.h"),
    ("ssh/pump.cpp", "libxml/parser.h"),
    ("watch/frame.h", "libxml/tree.h"),
    ("tallowick/main.cpp", "curses.h"),
])
def test_a_library_belongs_to_one_layer(check, user, header):
    status, output = check({f"src/{user}": f"#include <{header}>\n"})
    assert status == 1
    assert output.startswith(f"src/{user}:1: ")


@pytest.mark.parametrize("target, library", [
    ("korva_ssh", "korva_xml"),
    ("korva_errors", "korva_commons"),
    ("korva_commons", "tallowick_core"),
    ("korva_xml", "PkgConfig::LIBSSH2"),
    ("tallowick_core", "LibXml2::LibXml2"),
    ("tallowick", "PkgConfig::NCURSESW"),
    ("korva_watch", "korva_ssh"),
    ("tallowick-watch", "tallowick_core"),
    ("tallowick_core", "agent_check_core"),
    ("tallowick-agent-check", "korva_ssh"),
    ("a_new_target", "korva_ssh"),
])
def test_a_target_that_links_upwards_is_named(check, target, library):
    status, output = check({"src/ssh/CMakeLists.txt": f"target_link_libraries({target} PRIVATE\n  {library})\n"})
    assert status == 1
    assert output.startswith(("src/ssh/CMakeLists.txt:2: ", "src/ssh/CMakeLists.txt:1: a_new_target"))


def test_a_file_outside_of_the_known_folders_is_named(check):
    assert check({"src/misc/a.cpp": ""}) == (1, "src/misc/a.cpp:1: lies in none of the known folders\n")
