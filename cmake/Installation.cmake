# SPDX-License-Identifier: Apache-2.0
# What "cmake --install" puts where. A further program, man page or document only has to be added to its list.
include(GNUInstallDirs)

# Targets: for root alone, and for everybody.
set(system_programs tallowick)
set(user_programs tallowick-agent-check tallowick-watch)
set(scripts tools/tallowick-preflight)
set(man_pages
  tallowick-agent-check.1
  tallowick-agent.7
  tallowick-preflight.1
  tallowick-session.5
  tallowick-watch.1
  tallowick.8)
# They keep their places beside each other, since one leads to the other. (What is called CHANGELOG debhelper would take
# for its own, which debian/changelog is.)
set(documents
  ARCHITECTURE.md
  CONTRIBUTING.md
  README.md
  SECURITY.md
  doc/fleet.md
  doc/watch.svg)
set(example_scripts
  examples/fleet
  examples/migrate
  examples/read-results.py)
set(example_files
  examples/scout.pl
  examples/selected-objects.xml)
# What programs read.
set(data
  conf/log4cpp.properties
  doc/contract.json)
set(schemas
  schemas/contentlist-accepted.rng
  schemas/contentlist.rng
  schemas/execution-result.rng
  schemas/migration-status.rng
  schemas/selected-objects.rng)

# All that is to be built before anything can be installed.
add_custom_target(programs DEPENDS ${system_programs} ${user_programs})

set(data_directory "${CMAKE_INSTALL_DATADIR}/tallowick")
set(example_directory "${CMAKE_INSTALL_DOCDIR}/examples")

install(TARGETS ${system_programs} DESTINATION "${CMAKE_INSTALL_SBINDIR}")
install(TARGETS ${user_programs} DESTINATION "${CMAKE_INSTALL_BINDIR}")
install(PROGRAMS ${scripts} DESTINATION "${CMAKE_INSTALL_BINDIR}")
foreach(page IN LISTS man_pages)
  string(REGEX MATCH "[1-9]$" section "${page}")
  install(FILES "doc/man/${page}" DESTINATION "${CMAKE_INSTALL_MANDIR}/man${section}")
endforeach()
install(FILES completion/tallowick DESTINATION "${CMAKE_INSTALL_DATADIR}/bash-completion/completions")
install(FILES ${data} DESTINATION "${data_directory}")
install(FILES ${schemas} DESTINATION "${data_directory}/schemas")
foreach(document IN LISTS documents)
  cmake_path(GET document PARENT_PATH place)
  install(FILES ${document} DESTINATION "${CMAKE_INSTALL_DOCDIR}/${place}")
endforeach()
install(PROGRAMS ${example_scripts} DESTINATION "${example_directory}")
install(FILES ${example_files} DESTINATION "${example_directory}")
install(DIRECTORY examples/agents DESTINATION "${example_directory}")
install(PROGRAMS examples/agents/SampleHosting/bin/agent.pl
  DESTINATION "${example_directory}/agents/SampleHosting/bin")
# Documents of every legal shape, and some that are refused, for who writes a reader.
install(DIRECTORY schemas/corpus DESTINATION "${example_directory}")
