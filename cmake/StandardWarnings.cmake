# SPDX-License-Identifier: Apache-2.0
add_library(standard_warnings INTERFACE)
target_compile_options(standard_warnings INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wconversion)
if(TALLOWICK_WERROR)
  target_compile_options(standard_warnings INTERFACE -Werror)
endif()
