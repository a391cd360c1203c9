# SPDX-License-Identifier: Apache-2.0
# Settings of every target of ours: language level, sanitizers, fuzzing, coverage, ccache, clang-tidy.
set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)
set(CMAKE_RUNTIME_OUTPUT_DIRECTORY "")
set(CMAKE_POSITION_INDEPENDENT_CODE ON)

find_program(CCACHE_PROGRAM ccache)
if(CCACHE_PROGRAM)
  # It takes precompiled headers only when it need not look at their times and their __DATE__, and asks the compiler
  # what a source includes instead of preprocessing each once more.
  set(ccache_settings CCACHE_SLOPPINESS=pch_defines,time_macros CCACHE_DEPEND=1)
  if(NOT TALLOWICK_COVERAGE)
    # Clones in other directories have the same objects.
    list(APPEND ccache_settings "CCACHE_BASEDIR=${CMAKE_SOURCE_DIR}")
  endif()
  set(CMAKE_CXX_COMPILER_LAUNCHER env ${ccache_settings} "${CCACHE_PROGRAM}")
endif()

add_library(standard_settings INTERFACE)
target_include_directories(standard_settings INTERFACE "${CMAKE_SOURCE_DIR}/src")
target_compile_definitions(standard_settings INTERFACE _GNU_SOURCE)
if(NOT TALLOWICK_COVERAGE)
  # What is built tells nothing of where it was built.
  target_compile_options(standard_settings INTERFACE "-ffile-prefix-map=${CMAKE_SOURCE_DIR}=.")
endif()
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  # ccache asks for this too.
  target_compile_options(standard_settings INTERFACE -fpch-preprocess)
endif()
# Checks of what users run; they need an optimising compiler and cost little.
if(CMAKE_BUILD_TYPE MATCHES "^Rel")
  target_compile_options(standard_settings INTERFACE -fstack-protector-strong -fstack-clash-protection)
  target_compile_definitions(standard_settings INTERFACE _FORTIFY_SOURCE=2)
  target_link_options(standard_settings INTERFACE -pie -Wl,-z,relro,-z,now)
endif()
if(TALLOWICK_SANITIZE)
  target_compile_options(standard_settings INTERFACE
    -fsanitize=address,undefined -fno-sanitize-recover=all -fno-omit-frame-pointer)
  # At a fixed address: nearly a million relocations of the sanitizers' tables are a third of a short run.
  target_link_options(standard_settings INTERFACE -fsanitize=address,undefined -no-pie)
endif()
if(TALLOWICK_FUZZ)
  target_compile_options(standard_settings INTERFACE -fsanitize=fuzzer-no-link)
  target_compile_definitions(standard_settings INTERFACE _GLIBCXX_ASSERTIONS)
endif()
if(TALLOWICK_COVERAGE)
  target_compile_options(standard_settings INTERFACE --coverage)
  target_link_options(standard_settings INTERFACE --coverage)
  add_library(coverage_exit OBJECT "${CMAKE_CURRENT_LIST_DIR}/coverage_exit.cpp")
endif()
if(TALLOWICK_TIDY)
  find_program(CLANG_TIDY_PROGRAM NAMES clang-tidy-14 clang-tidy REQUIRED)
  set(CMAKE_CXX_CLANG_TIDY "${CLANG_TIDY_PROGRAM};--warnings-as-errors=*;--quiet")
endif()
