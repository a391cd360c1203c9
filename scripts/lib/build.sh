# shellcheck shell=bash
# SPDX-License-Identifier: Apache-2.0
#
# Sourced, from the top of the tree.

# shellcheck disable=SC2034 # for who builds them, in the preset "release"
bench_programs=(commands counts floor measure read_size relay)

build_preset() { # PRESET [TARGET...]; all targets when none is named
    cmake --preset "$1" && cmake --build "build/$1" ${2:+--target "${@:2}"}
}
