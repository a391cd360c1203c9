# SPDX-License-Identifier: Apache-2.0
# Headers that cost most of the compile time and hardly ever change.
set(KORVA_PRECOMPILED_HEADERS
  <algorithm> <functional> <map> <memory> <sstream> <string> <string_view> <vector>
  <boost/format.hpp>)

# Gives a target of ours its settings, warnings and precompiled headers.
function(korva_configure target)
  target_link_libraries(${target} PRIVATE standard_settings standard_warnings)
  get_target_property(type ${target} TYPE)
  if(TALLOWICK_COVERAGE AND type STREQUAL "EXECUTABLE")
    target_link_libraries(${target} PRIVATE coverage_exit)
  endif()
  if(TALLOWICK_PCH)
    target_precompile_headers(${target} PRIVATE ${KORVA_PRECOMPILED_HEADERS})
  endif()
endfunction()
