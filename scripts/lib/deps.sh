# shellcheck shell=bash
# SPDX-License-Identifier: Apache-2.0
#
# Sourced. install_missing GROUP... installs the packages of the groups that a Debian 12 machine does not have
# yet, and asks nothing of the machine when it has them all.

packages_of() { # GROUP
    case $1 in
        build)
            echo g++ cmake ninja-build ccache pkg-config libssh2-1-dev libssl-dev zlib1g-dev libxml2-dev libidn-dev \
                liblog4cpp5-dev libncurses-dev libboost-dev libgtest-dev libgmock-dev ;;
        test)
            echo python3 python3-pytest python3-paramiko openssh-server openssh-client dropbear-bin sudo \
                perl iproute2 util-linux dash bash libxml2-utils procps \
                mandoc man-db groff-base shellcheck parallel busybox python3-lxml python3-pyte ;;
        package)
            echo build-essential debhelper dpkg-dev lintian ;;
        doc)
            echo doxygen ;;
        tools)
            echo clang clang-tidy clang-format ;;
        fuzz)
            echo clang libclang-rt-dev ;;
        coverage)
            echo gcovr ;;
        valgrind)
            echo valgrind ;;
        bench)
            echo openssh-client openssh-sftp-server sshpass rsync curl valgrind ;;
        *)
            echo "no such group of packages: $1" >&2
            return 1 ;;
    esac
}

install_missing() { # GROUP...
    local group package installed wanted=() missing=()
    for group; do
        # shellcheck disable=SC2207 # names of packages hold no blanks
        wanted+=($(packages_of "$group")) || return 1
    done
    if ! command -v dpkg-query >/dev/null; then
        echo "This machine has no dpkg: please install what Debian calls: ${wanted[*]}" >&2
        return 1
    fi
    installed=" $(installed_among "${wanted[@]}") "
    for package in "${wanted[@]}"; do
        [[ $installed == *" $package "* ]] || missing+=("$package")
    done
    [ ${#missing[@]} -gt 0 ] || return 0

    if ! grep -qsx 'ID=debian' /etc/os-release; then
        echo "Only on Debian can packages be installed from here; please install: ${missing[*]}" >&2
        return 1
    fi
    if [ "$(id -u)" -ne 0 ]; then
        echo "Packages are missing and only root can install them: apt-get install ${missing[*]}" >&2
        return 1
    fi
    echo "installing: ${missing[*]}"
    install_packages "${missing[@]}"
}

installed_among() { # PACKAGE...
    # A name that dpkg has never heard of is an error to it, and simply not installed to us.
    dpkg-query --show --showformat '${db:Status-Status} ${Package}\n' "$@" 2>/dev/null |
        sed -n 's/^installed //p' | tr '\n' ' '
}

# A server must not be started, now or at the next start of the machine, because its program is needed here.
install_packages() ( # PACKAGE...; runs in a subshell for the sake of its trap
    log=$(mktemp) || exit 1
    policy=/usr/sbin/policy-rc.d
    trap 'rm -f "$log"' EXIT
    if [ ! -e "$policy" ] && [ ! -L "$policy" ]; then
        trap 'rm -f "$log" "$policy"' EXIT
        trap 'exit 1' HUP INT TERM
        printf '#!/bin/sh\nexit 101\n' >"$policy" && chmod 755 "$policy" || exit 1
    fi

    export DEBIAN_FRONTEND=noninteractive NEEDRESTART_SUSPEND=1
    # An unreachable list of some other vendor need not matter, so a failed update alone is no reason to give up.
    apt-get -q -o Acquire::Retries=3 update >"$log" 2>&1 </dev/null
    if ! apt-get -q -y --no-install-recommends -o Acquire::Retries=3 -o DPkg::Lock::Timeout=600 \
        -o Dpkg::Options::=--force-confold install "$@" >>"$log" 2>&1 </dev/null; then
        cat "$log" >&2
        echo "The packages cannot be installed." >&2
        exit 1
    fi
    case " $* " in
        *' openssh-server '*) ! command -v systemctl >/dev/null || systemctl --quiet disable ssh.service ssh.socket ;;
    esac
)
