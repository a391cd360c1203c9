# SPDX-License-Identifier: Apache-2.0
# Headers that cost most of the compile time and hardly ever change.
set(KORVA_PRECOMPILED_HEADERS
  <algorithm> <chrono> <filesystem> <functional> <map> <memory> <optional> <sstream> <string> <string_view> <vector>
  <boost/format.hpp>)

# One set of precompiled headers for many targets: NAME is a target that others take them from. PIC is -fPIC or
# -fPIE, as those have it: the compiler asks for the same.
function(korva_precompile name pic)
  add_library(${name} OBJECT EXCLUDE_FROM_ALL "${CMAKE_SOURCE_DIR}/cmake/precompiled.cpp")
  set_target_properties(${name} PROPERTIES POSITION_INDEPENDENT_CODE OFF)
  target_compile_options(${name} PRIVATE ${pic})
  target_link_libraries(${name} PRIVATE standard_settings standard_warnings Boost::headers)
  target_precompile_headers(${name} PRIVATE ${KORVA_PRECOMPILED_HEADERS} ${ARGN})
endfunction()

# Gives a target of ours its settings and warnings, and a library the precompiled headers of all libraries. A program
# of one or two sources is built sooner without.
function(korva_configure target)
  target_link_libraries(${target} PRIVATE standard_settings standard_warnings)
  get_target_property(type ${target} TYPE)
  if(TALLOWICK_COVERAGE AND type STREQUAL "EXECUTABLE")
    target_link_libraries(${target} PRIVATE coverage_exit)
  endif()
  if(TALLOWICK_PCH AND type STREQUAL "STATIC_LIBRARY")
    if(NOT TARGET korva_precompiled)
      korva_precompile(korva_precompiled -fPIC)
    endif()
    target_precompile_headers(${target} REUSE_FROM korva_precompiled)
  endif()
endfunction()
