# SPDX-License-Identifier: Apache-2.0
# Settings of every target of ours: language level, sanitizers, coverage, ccache, clang-tidy.
set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)
set(CMAKE_RUNTIME_OUTPUT_DIRECTORY "")
set(CMAKE_POSITION_INDEPENDENT_CODE ON)

find_program(CCACHE_PROGRAM ccache)
if(CCACHE_PROGRAM AND NOT TALLOWICK_TIDY)
  set(CMAKE_CXX_COMPILER_LAUNCHER "${CCACHE_PROGRAM}")
endif()

add_library(standard_settings INTERFACE)
target_include_directories(standard_settings INTERFACE "${CMAKE_SOURCE_DIR}/src")
target_compile_definitions(standard_settings INTERFACE _GNU_SOURCE)
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  # ccache can only use precompiled headers whose times it may ignore.
  target_compile_options(standard_settings INTERFACE -fpch-preprocess)
endif()
if(TALLOWICK_SANITIZE)
  target_compile_options(standard_settings INTERFACE
    -fsanitize=address,undefined -fno-sanitize-recover=all -fno-omit-frame-pointer)
  target_link_options(standard_settings INTERFACE -fsanitize=address,undefined)
endif()
if(TALLOWICK_COVERAGE)
  target_compile_options(standard_settings INTERFACE --coverage)
  target_link_options(standard_settings INTERFACE --coverage)
endif()
if(TALLOWICK_TIDY)
  find_program(CLANG_TIDY_PROGRAM NAMES clang-tidy-14 clang-tidy REQUIRED)
  set(CMAKE_CXX_CLANG_TIDY "${CLANG_TIDY_PROGRAM};--warnings-as-errors=*;--quiet")
endif()
