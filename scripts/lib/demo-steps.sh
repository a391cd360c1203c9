# shellcheck shell=bash disable=SC2034,SC2154 # what demo-inside reads and sets
# SPDX-License-Identifier: Apache-2.0
#
# Sourced by demo-inside: the steps of the demo, what each must end with, and what is found out about it afterwards.
# $place is where session directories lie, $session is that of the step, $output what the program has printed.

migration=(scout scout-as-root deploy dump-file dump-lists dump-input dump-all status fetch-cut fetch remove-agent
    remove-status)
failures=(no-space wrong-password unknown-agent refused unknown-host)

# A step is a set of variables: what it is about, the words after the program's name, what stands before it on the
# command line, what it runs in, the passwords that it gets, the status, the text and the errors that it must end
# with, the document that tells these, the files that it must or may add to the session directory.
describe() { # STEP
    local connect=(--host=source.example --login=mover)
    local with_agent=("--agent-dir=$agent" --agent-name=SampleHosting)
    local content=$place/content list=$place/content-list.xml
    session=$place/migration
    title='' words=() input='' runs_in=() password=$(password_of mover) sudo_password='' status=0 says='' errors=''
    result=migration.result adds='migration.status' may_add=''
    case $1 in
        scout)
            title='Send the scout as the login user and collect its report'
            words=(--send-scout "${connect[@]}")
            adds+=' scout-result.xml' ;;
        scout-as-root)
            title='The same as root, through sudo'
            words=(--send-scout "${connect[@]}")
            through_sudo ;;
        deploy)
            title='Send the agent to the source host, through sudo'
            words=(--deploy-agent "${connect[@]}" "${with_agent[@]}")
            adds+=' agent-deployment.status'
            through_sudo ;;
        dump-file)
            title='Dump what a file selects, through sudo'
            words=(--dump-selected "${connect[@]}" "${with_agent[@]}"
                "--selected-objects-file=$examples/selected-objects.xml")
            through_sudo ;;
        dump-lists)
            title='Dump what lists on the command line select: a client, and one more domain'
            words=(--dump-selected "${connect[@]}" "${with_agent[@]}" --clients=erika --domains=shop.example) ;;
        dump-input)
            title='Dump the domains of a list on standard input, only their mail'
            words=(--dump-selected "${connect[@]}" "${with_agent[@]}" --domains=- --only-mail)
            input=forum.example,bakery.example ;;
        dump-all)
            title='Dump everything, while a copy of the dumping status comes every five seconds'
            words=(--dump-all "${connect[@]}" "${with_agent[@]}")
            runs_in=(scripts/lib/demo-hold "$agent" "$session" "$place/states" "${held_at[@]}" --)
            adds+=' dumping-status.xml' ;;
        status)
            title='Ask for the dumping status'
            words=(--get-dumping-status "${connect[@]}" "${with_agent[@]}")
            says='<finished total="28" files="[0-9]*" bytes="[0-9]*"/>' ;;
        fetch-cut)
            title='Fetch the content; the connection is cut half-way'
            words=(--get-content "${connect[@]}" --port=2200 "${with_agent[@]}" "--dumps-dir=$content")
            runs_in=(scripts/lib/demo-cut 2200 $(($(listed_size "$list") / 2)))
            status=2 says='Error during dump retrieval' errors='CantRetrieveDump SshConnectionFault'
            result=transfer.result ;;
        fetch)
            title='Fetch the rest, through sudo'
            words=(--get-content "${connect[@]}" "${with_agent[@]}" "--dumps-dir=$content")
            result=transfer.result adds+=' migration-result-name'
            through_sudo ;;
        remove-agent)
            title='Remove the agent from the source host, through sudo'
            words=(--remove-agent "${connect[@]}" "${with_agent[@]}")
            adds=''
            through_sudo ;;
        remove-status)
            title='Remove the dumping status of this host'
            words=(--remove-dumping-status)
            password='' ;;

        no-space)
            title='A dump that has no room here: a disk of 64 KiB'
            words=(--get-content "${connect[@]}" "${with_agent[@]}" "--dumps-dir=$small_disk")
            says='Selected filesystem has only 65536 free space, but [0-9]* is needed for operation'
            status=2 errors=NotEnoughSpace result=transfer.result ;;
        wrong-password)
            title='A wrong password'
            words=(--send-scout "${connect[@]}")
            says='Unable to connect to host source.example: you have specified incorrect username or password'
            password=wrong status=17 errors=SshInvalidCredentials ;;
        unknown-agent)
            title='An agent that this host does not have'
            words=(--dump-all "${connect[@]}" "--agent-dir=$agent" --agent-name=OtherHosting)
            says='Error during dump retrieval'
            status=2 errors='CantRetrieveDump AgentNotFound' ;;
        refused)
            title='A port where nobody listens'
            words=(--send-scout "${connect[@]}" --port=2222)
            says='No one listening on the remote address at host source.example'
            status=11 errors=ConnectionRefused ;;
        unknown-host)
            title='A host that nobody knows'
            words=(--send-scout --host=nowhere.invalid --login=mover)
            says='Unable to resolve hostname nowhere.invalid: .*'
            status=16 errors=HostNotFound ;;
    esac
    case $1 in
        dump-*) adds+=' dump.xml dump-name' may_add=dumping-status.xml ;;
    esac
    case " ${failures[*]} " in
        *" $1 "*)
            session=$place/$1 adds='migration.status'
            [ "${words[0]}" != --send-scout ] || adds+=' scout-result.xml' ;;
    esac
}

through_sudo() {
    words+=(--sudo-password)
    sudo_password=$(password_of root)
}

# What has to be there before a step, apart from what the steps before it have left.
prepare() { # STEP
    case $1 in
        fetch-cut)
            mkdir "$place/content"
            on_source_host perl "$agent/bin/agent.pl" --get-content-list >"$place/content-list.xml" ;;
        no-space) make_waiting_dump ;;
    esac
}

listed_size() { # CONTENT-LIST
    xmllint --xpath 'string(/contentlist/@size)' "$1"
}

# ---- What is found out afterwards: each line is true, or there is a reason and status 1 ----

inspect() { # STEP
    case $1 in
        scout) inspect_scout mover ;;
        scout-as-root) inspect_scout root ;;
        deploy) inspect_agent ;;
        dump-file)
            inspect_dump webworks anna bob carla shop.example blog.example forum.example bakery.example \
                garden.example travel.example clinic.example theatre.example market.example radio.example \
                harbour.example mail-only.example wiki ;;
        dump-lists) inspect_dump erika shop.example photos.example museum.example cinema.example wiki ;;
        dump-input)
            inspect_dump forum.example bakery.example &&
                inspect_only_mail ;;
        dump-all)
            inspect_dump &&
                inspect_states ;;
        fetch-cut) scripts/lib/demo-verify sides "$place/content-list.xml" "$place/content" "$agent" ;;
        fetch) inspect_nothing_left ;;
        remove-agent) inspect_removed ;;
        no-space) inspect_still_there ;;
    esac
}

inspect_scout() { # ACCOUNT
    local user
    user=$(xmllint --xpath 'string(/scout/system/user/@name)' "$session/scout-result.xml") || return 1
    [ "$user" = "$1" ] || { echo "the scout ran as \"$user\""; return 1; }
    echo "scout-result.xml is a whole document, and the scout ran as $user"
}

inspect_agent() {
    local tree file files=0
    for tree in "$examples/agents/shared" "$examples/agents/SampleHosting"; do
        while IFS= read -r file; do
            cmp -s "$tree/$file" "$agent/$file" || { echo "$agent/$file is not what was sent"; return 1; }
            files=$((files + 1))
        done <<<"$(cd "$tree" && find . -type f ! -path './control/*')"
    done
    [ "$(find "$agent" -type f -user mover | wc -l)" -eq "$files" ] || { echo "not $files files in $agent"; return 1; }
    xmllint --noout "$session/agent-deployment.status" || return 1
    echo "the $files files of the agent are on the source host and belong to the login user"
}

inspect_dump() { # NAME...; all of these objects are to be in it, and no others; all of the server when none is given
    local names objects
    cmp -s "$agent/dump.xml" "$session/dump.xml" || { echo 'dump.xml is not that of the source host'; return 1; }
    [ "$(cat "$session/dump-name")" = "$session/dump.xml" ] || { echo 'the wrong dump-name'; return 1; }
    names=$(xmllint --xpath '/migration-dump/*/@name' "$session/dump.xml" | sed 's/^ *name="\(.*\)"$/\1/')
    names=${names//$'\n'/ }
    if [ $# -gt 0 ]; then
        [ "$names" = "$*" ] || { echo "the dump has \"$names\" instead of \"$*\""; return 1; }
        echo "dump.xml, the same here and there, describes $names"
    else
        objects=$(wc -w <<<"$names")
        [ "$objects" -eq "$(grep -c '^\[.* ' "$source/hosting.conf")" ] || { echo "$objects objects"; return 1; }
        echo "dump.xml, the same here and there, describes all $objects objects"
    fi
}

inspect_only_mail() {
    local archives
    archives=$(cd "$agent" && echo ./*.tar.gz)
    [ "$archives" = './domain-3-mail.tar.gz ./domain-4-mail.tar.gz' ] || { echo "there are $archives"; return 1; }
    echo 'two archives wait on the source host, with the mail of these'
}

inspect_states() {
    local states
    states=$(sort -u "$place/states" | wc -l)
    [ "$states" -eq ${#held_at[@]} ] || { echo "$states refreshes instead of ${#held_at[@]}"; return 1; }
    echo "dumping-status.xml changed in the session directory, the dump being held until each copy came:"
    sed 's/^/    /' "$place/states"
}

inspect_nothing_left() {
    local list
    list=$(on_source_host perl "$agent/bin/agent.pl" --get-content-list) || return 1
    [ "$(xmllint --xpath 'count(//file)' - <<<"$list")" -eq 0 ] || { echo "left to fetch: $list"; return 1; }
    [ "$(cat "$session/dump-name" "$session/migration-result-name")" = \
        "$place/content/dump.xml$place/content/migration.result" ] || { echo 'wrong names of the results'; return 1; }
    echo "nothing waits to be fetched any more; dump-name and migration-result-name lead to $place/content"
}

inspect_removed() {
    [ ! -e "$agent" ] || { echo "$agent is still there"; return 1; }
    echo "$agent is gone"
}

inspect_still_there() {
    local archives=("$agent"/*.tar.gz)
    [ -e "${archives[0]}" ] || { echo 'the archives are gone'; return 1; }
    [ -z "$(ls -A "$small_disk")" ] || { echo "something is on $small_disk"; return 1; }
    echo 'nothing was fetched, and the dump is still on the source host'
}
