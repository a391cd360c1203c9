# shellcheck shell=bash
# SPDX-License-Identifier: Apache-2.0
#
# Sourced, from the top of the tree.

# Runs the end-to-end tests with the programs of two builds; two sandboxes share the tests. Prints what the first
# said, then what the second said, which are also kept in LOGS; their last lines stand last.
e2e_tests() { # BUILD RELEASE_BUILD LOGS
    local status=0 logs=$3
    export TALLOWICK_BIN=$PWD/$1/tallowick TALLOWICK_PROBE_BIN=$PWD/$1/tests/ssh_probe
    export TALLOWICK_WATCH_BIN=$PWD/$1/tallowick-watch
    export TALLOWICK_RELEASE_BIN=$PWD/$2/tallowick TALLOWICK_RELEASE_PROBE_BIN=$PWD/$2/tests/ssh_probe
    e2e_part 1/2 >"$logs/e2e-part-1.log" 2>&1 &
    e2e_part 2/2 >"$logs/e2e-part-2.log" 2>&1 || status=$?
    wait $! || status=$?
    cat "$logs/e2e-part-1.log" "$logs/e2e-part-2.log"
    tail -qn 1 "$logs/e2e-part-1.log" "$logs/e2e-part-2.log"
    return "$status"
}

e2e_part() { # NUMBER/COUNT
    scripts/sandbox /usr/bin/python3 -m pytest -q -p no:cacheprovider tests/e2e --part "$1"
}
