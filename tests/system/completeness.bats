#!/usr/bin/env bats
# SPDX-License-Identifier: Apache-2.0

# The completeness of answers: an answer is whole, or both the answer and the exit status report that it may not be.
# The tests use the kernel's tables in a namespace that this file makes and removes. L2FIBD and L2FIBCTL are the paths
# of the programs.

bats_require_minimum_version 1.5.0

load daemon

readonly incomplete=6

setup_file()
{
    [[ $EUID -eq 0 ]] || skip "needs root, to make a network namespace"
    local -r bin=$BATS_TEST_DIRNAME/../../build/test/bin
    export L2FIBD=${L2FIBD:-$bin/l2fibd} L2FIBCTL=${L2FIBCTL:-$bin/l2fibctl}
    export space=l2fib-worth-$$
    ip netns add "$space"
    in_space ip link set lo up
    in_space ip link add br0 type bridge
    in_space ip link set br0 up
    in_space ip link add vx7 type vxlan id 7 local 127.0.0.1 dstport 4789
    in_space ip link add vxe type vxlan external local 127.0.0.1 dstport 4790
    in_space ip link set vx7 master br0 up
    in_space ip link set vxe master br0 up
    local port
    for port in p0 p1; do
        in_space ip link add "$port" type veth peer name "$port-peer"
        in_space ip link set "$port" master br0 up
        in_space ip link set "$port-peer" up
    done
    entries add 1 3000 p0
}

teardown_file()
{
    [[ -z ${space-} ]] || ip netns del "$space"
}

setup()
{
    export L2FIBD_SOCKET=$BATS_TEST_TMPDIR/worth.sock
}

teardown()
{
    if [[ -n ${DAEMON-} ]]; then
        kill -CONT "$DAEMON"
        kill "$DAEMON"
        wait "$DAEMON"
    fi
}

in_space()
{
    ip netns exec "$space" "$@"
}

serve()
{
    start_daemon "$L2FIBD_SOCKET" --plane kernel --netns "$space" --group lab "$@"
    DAEMON=$!
    "$L2FIBCTL" resync || true # waits for the first full dump
}

ctl()
{
    "$L2FIBCTL" "$@"
}

# entries add|del|move FIRST COUNT PORT: changes the addresses FIRST to FIRST + COUNT - 1 in one batch.
entries()
{
    local -A verbs=([add]="add" [del]="del" [move]="replace") kinds=([add]=static [del]="" [move]=dynamic)
    seq "$2" $(($2 + $3 - 1)) | awk -v verb="${verbs[$1]}" -v kind="${kinds[$1]}" -v port="$4" '{
        printf "fdb %s 02:aa:00:%02x:%02x:%02x dev %s master %s\n", verb, $1 / 65536, $1 / 256 % 256, $1 % 256, port, kind
    }' | in_space bridge -batch -
}

health()
{
    ctl --json show health | jq --raw-output "$1"
}

# Prints how many of the first 3000 addresses standard input contains.
stable()
{
    jq --raw-output '."mac-address"' | awk '/^02:aa:00:00/ && $0 <= "02:aa:00:00:0b:b8"' | sort --unique | wc --lines
}

@test "a table that is too small marks its answers limited, and still finds every address" {
    serve --mac-limit 1000
    run --separate-stderr -"$incomplete" ctl --json-lines show mac
    [ "${#lines[@]}" -eq 1000 ]
    [[ $stderr == *"(limited)"*"limit 1000"* && $(wc --lines <<<"$stderr") == 1 ]]
    run --separate-stderr -"$incomplete" ctl show mac --strict
    [[ -z $output && $stderr == *"(limited)"* ]]
    local where
    for where in "" "--domain lab:br0"; do
        run --separate-stderr -"$incomplete" ctl show mac $where 02:aa:00:00:0b:b0
        [[ $output == *"p0"*"static"* ]]
    done
    run -"$incomplete" ctl show mac 02:aa:00:00:ff:ff
    [ "$(health '.status + " " + .limited[0].port')" = "limited p0" ]
    [ "$(health '.evictions')" = "$(health '.limited | map(.evicted | tonumber) | add')" ]
    entries del 501 2500 p0
    ctl show mac --strict >/dev/null
    [ "$(health .status)" = clean ]
    [ "$(grep --count "marked limited" "$L2FIBD_SOCKET.log")" -eq 1 ]
    entries add 501 2500 p0
    run -"$incomplete" ctl show count
}

@test "after an overrun, answers are marked degraded until a full dump, and no stable entry is missing" {
    serve --receive-buffer 4096
    kill -STOP "$DAEMON"
    entries add 10001 2000 p1
    entries del 10001 1000 p1
    kill -CONT "$DAEMON"
    run --separate-stderr -"$incomplete" ctl --json-lines show mac
    [ "$(stable <<<"$output")" -eq 3000 ]
    [[ $stderr == *"(degraded)"* ]]
    [[ $(curl --silent --head --unix-socket "$L2FIBD_SOCKET" \
        http://l2fibd/restconf/data/l2fib-mac:mac-count) == *"L2fib-Completeness: degraded"* ]]
    ctl resync
    [ "$(ctl --json-lines show mac --strict | wc --lines)" -eq "$(in_space bridge fdb show br br0 | grep --count master)" ]
    [ "$(health '.overruns != "0" and (."notifications-lost" | tonumber) > 0 and has("last-overrun")')" = true ]
    grep --quiet 'warning: lost [1-9][0-9]* changes' "$L2FIBD_SOCKET.log"
    # While changes are lost all the time, no full dump can prove the table. So a resync with a time-out fails.
    (while :; do entries move 20001 2000 p1 && entries move 20001 2000 p0; done) 3>&- &
    local -r churn=$!
    local rounds=0 seen
    while ((rounds++ < 5)); do
        seen=$(ctl --json-lines show mac 2>/dev/null | stable)
        [ "$seen" -eq 3000 ]
    done
    run -4 ctl resync --timeout 2
    kill "$churn"
    wait "$churn" || true
    ctl resync
    entries del 11001 1000 p1
    in_space ip link set br0 type bridge fdb_flush
}

@test "an entry's own VNI, and entries whose next hop is deleted" {
    in_space bridge fdb append 00:00:00:00:00:00 dev vx7 dst 127.0.0.8 vni 8
    in_space bridge fdb add 02:cc:00:00:00:01 dev vx7 dst 127.0.0.9 vni 9
    in_space bridge fdb add 02:cc:00:00:00:01 dev vx7 master static
    in_space bridge fdb add 02:cc:00:00:00:02 dev vxe dst 127.0.0.9 src_vni 10
    in_space bridge fdb add 02:cc:00:00:00:02 dev vxe master static
    in_space ip nexthop add id 12 via 127.0.0.12 fdb
    in_space ip nexthop add id 20 group 12 fdb
    in_space bridge fdb add 02:cc:00:00:00:03 dev vx7 nhid 20
    serve
    [ "$(ctl --json-lines show vtep | jq --compact-output '[.address, .vni]' | sort | tr '\n' ' ')" = \
        '["127.0.0.8",8] ["127.0.0.9",10] ["127.0.0.9",9] ' ]
    local mac vni
    while read -r mac vni; do
        [ "$(ctl --json-lines show mac "$mac" | jq .vni)" = "$vni" ]
    done <<<$'00:00:00:00:00:00 8\n02:cc:00:00:00:01 9\n02:cc:00:00:00:02 10'
    [ "$(ctl --json-lines show tunnel | grep --count '"next-hop-id":20')" -eq 1 ]
    in_space ip nexthop del id 20
    local tries
    for ((tries = 0; tries < 20; tries++)); do
        ctl --json-lines show tunnel | grep --quiet '"next-hop-id"' || break
        sleep 0.1
    done
    ((tries < 20))
    diff <(in_space bridge -j fdb show | jq --compact-output '.[] | select(.dst) | [.mac, .dst, .vni, .src_vni]' | sort) \
        <(ctl --bridge-json show mac | jq --compact-output '.[] | select(.dst) | [.mac, .dst, .vni, .src_vni]' | sort)
}

@test "the proof finds a deletion that the kernel did not report" {
    [[ -z ${L2FIB_SANITIZED-} ]] || skip "a sanitizer has to be the first library that is loaded"
    in_space bridge fdb add 02:de:af:00:00:01 dev p0 master static
    local -r deaf=${L2FIB_DEAF:-$BATS_TEST_DIRNAME/../../build/test/lib/libdeaf.so}
    L2FIBD_PRELOAD=$deaf serve --proof-rate 4000
    in_space bridge fdb del 02:de:af:00:00:01 dev p0 master
    local tries
    for ((tries = 0; tries < 50; tries++)); do
        [ "$(health .proof.disagreed)" = 0 ] || break
        sleep 0.2
    done
    [ "$(health .proof.disagreed)" = 1 ]
    grep --quiet 'disagrees about 1 sampled entry' "$L2FIBD_SOCKET.log"
    ctl resync
    run -1 ctl show mac 02:de:af:00:00:01 # status 1: a whole answer proves that the address does not exist
    grep --quiet 'a full dump has proven the table' "$L2FIBD_SOCKET.log"
}

@test "no answer is cut or lacks a stable entry while a bridge is renamed and addresses move" {
    serve
    awk 'BEGIN { for (i = 0; i < 60000; i++) printf "fdb replace 02:bb:00:00:%02x:%02x dev p%d master dynamic\n",
        i % 500 / 256, i % 256, i % 2 }' >"$BATS_TEST_TMPDIR/moves"
    (for _ in 1 2 3 4; do
        in_space bridge -batch "$BATS_TEST_TMPDIR/moves" &
        for name in br1 br0 br1 br0; do in_space ip link set "$(in_space ip -br link show type bridge | cut -d' ' -f1)" name "$name" && sleep 0.2; done
        wait $!
    done) 3>&- &
    local -r changes=$!
    local rounds=0 list
    while kill -0 "$changes" 2>/dev/null; do
        for list in "" --aging "--sort created"; do
            [ "$(ctl --json-lines show mac $list | stable)" -eq 3000 ]
        done
        (($(ctl --json show count | jq '.[0].static') >= 3000))
        rounds=$((rounds + 1))
    done
    wait "$changes"
    ((rounds > 2))
}

@test "--aging lists the addresses that age out next, with the time left" {
    local number
    for number in 3 1 2; do
        entries move "4000$number" 1 p0
        sleep 1.1
    done
    serve
    ctl --json-lines show mac --aging | grep '"02:aa:00:00:9c' >"$BATS_TEST_TMPDIR/moved"
    [ "$(jq --raw-output '."mac-address"[15:]' "$BATS_TEST_TMPDIR/moved" | tr '\n' ' ')" = "43 41 42 " ]
    [ "$(jq --slurp 'map(."time-left") | . == sort and .[0] > 290' "$BATS_TEST_TMPDIR/moved")" = true ]
    [ "$(jq --slurp 'all(.[]; ."time-left" + .age == 300)' "$BATS_TEST_TMPDIR/moved")" = true ]
    [ "$(ctl --json-lines show mac --aging | tail --lines 1 | jq 'has("time-left")')" = false ]
    [ "$(ctl --json-lines show mac --aging | stable)" -eq 3000 ]
    in_space ip link set br0 type bridge fdb_flush
}

@test "queries feed nothing to the module, and a stopped pager does not cut an answer" {
    serve
    entries add 50001 30000 p1
    ctl resync
    local -r fed=$(health .feeds)
    local question
    for question in "show mac" "show mac --aging" "show mac 02:aa:00:00:00:01" "show mac --domain lab:br0" "show count" \
        "show count --port p0" "show count --domain lab:br0" "show vtep" "show port" "resync"; do
        ctl $question >/dev/null
    done
    [ "$(health '.feeds + " " + ."feeds-full"')" = "$fed 0" ]
    [ "$(ctl --json-lines show mac | (sleep 12 && stable))" -eq 3000 ]
    ctl show mac --strict | { sleep 12 && wc --lines; } >"$BATS_TEST_TMPDIR/rows"
    [ "$(cat "$BATS_TEST_TMPDIR/rows")" -gt 33000 ]
    entries del 50001 30000 p1
}
