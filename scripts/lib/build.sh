# shellcheck shell=bash
# SPDX-License-Identifier: Apache-2.0
#
# Sourced, from the top of the tree.

build_preset() { # PRESET [TARGET...]; all targets when none is named
    cmake --preset "$1" && cmake --build "build/$1" ${2:+--target "${@:2}"}
}
