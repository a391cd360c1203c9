# shellcheck shell=bash disable=SC2154 # what demo-inside sets
# SPDX-License-Identifier: Apache-2.0
#
# Sourced by demo-inside: the two hosts of the demo, which are one machine, and what is done to them by hand.

home=/run/tallowick/home/mover
agent=$home/agent
source=/run/tallowick/hosting
small_disk=/run/tallowick/small-disk

password_of() { # LOGIN
    local login password
    while IFS=: read -r login _ _ password _; do
        [ "$login" != "$1" ] || { printf '%s' "$password"; return; }
    done <tests/sandbox/accounts
}

start_source_host() { # MEBIBYTES
    local kind server=/run/tallowick/demo-sshd
    mkdir -p "$server"
    for kind in ecdsa ed25519; do
        ssh-keygen -q -N '' -t "$kind" -f "$server/host_$kind"
    done
    printf '%s\n' 'ListenAddress 127.0.0.1' "HostKey $server/host_ecdsa" "HostKey $server/host_ed25519" \
        'UsePAM yes' 'PasswordAuthentication yes' 'PidFile none' >"$server/config"
    /usr/sbin/sshd -f "$server/config" -E "$server/log"
    until (: </dev/tcp/127.0.0.1/22) 2>/dev/null; do sleep 0.05; done

    tests/sandbox/make-source "$source" --mib="$1"
    ln -s "$source/hosting.conf" /etc/sample-hosting.conf
}

install_product() {
    mkdir -p /usr/local/ovn/DVX/tmp "$small_disk"
    # What a package has put there is what is to be shown.
    [ -e /usr/local/ovn/DVX/log4cpp.properties ] || cp conf/log4cpp.properties /usr/local/ovn/DVX
    cp -R "$examples/scout.pl" "$examples/agents" /usr/local/ovn/DVX
    echo 'PRODUCT_ROOT_D /usr/local/ovn' >/etc/ovn/ovn.conf
    mount -t tmpfs -o size=64k tallowick "$small_disk"
}

on_source_host() { # COMMAND...
    setpriv --reuid=mover --regid=mover --clear-groups env -i "PATH=$PATH" "$@"
}

# With the status and the words of tallowick-preflight, or 255 when there is no connection.
look_ahead() {
    SSH_ASKPASS=scripts/lib/demo-askpass SSH_ASKPASS_REQUIRE=force ssh -q -o StrictHostKeyChecking=no \
        -o UserKnownHostsFile=/dev/null mover@source.example sh -s "$agent" <"$preflight"
}

# A dump that waits to be fetched, for the run that finds no room for it.
make_waiting_dump() {
    rm -rf "$agent"
    mkdir "$agent"
    cp -R "$examples"/agents/shared/lib "$examples"/agents/SampleHosting/{bin,lib} "$agent"
    chown -R mover: "$agent"
    on_source_host perl "$agent/bin/agent.pl" --migration-mode --dump-domains=shop.example
}
