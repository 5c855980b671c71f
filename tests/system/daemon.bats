#!/usr/bin/env bats
# SPDX-License-Identifier: Apache-2.0

# l2fibd with clients that hold connections and requests, and with a log that nobody reads. L2FIBD is its path.

D=http://l2fibd/restconf/data/l2fib-mac:

bats_require_minimum_version 1.5.0
load daemon

setup()
{
    export L2FIBD=${L2FIBD:-$BATS_TEST_DIRNAME/../../build/test/bin/l2fibd}
    make_directory
}

teardown()
{
    end_started
}

start()
{
    start_daemon "$SOCKET" --generate macs=20000 "$@"
    daemon=$!
    started+=("$daemon")
}

# get RESOURCE [CURL_OPTION...]: prints the body of the answer.
get()
{
    curl --silent --max-time 30 --unix-socket "$SOCKET" "$D$1" "${@:2}"
}

# hold COUNT: opens COUNT connections, sends nothing on them, and keeps them open.
hold()
{
    perl -MIO::Socket::UNIX -e '@c = map { IO::Socket::UNIX->new(Peer => $ARGV[0]) } 1 .. $ARGV[1]; sleep 60' \
        "$SOCKET" "$1" 3>&- &
    started+=($!)
}

# expect_shared TEXT FILTER: requires that the daemon refuses root's next request with TEXT, answers requests for health
# and metrics, and serves another user.
expect_shared()
{
    local -r refusal=$(get mac-count)
    [[ $refusal == *"user 0 has $1, other users have 0"* ]] || { echo "$refusal" && return 1; }
    health "$2"
    curl --silent --fail --max-time 30 --unix-socket "$SOCKET" http://l2fibd/metrics | grep '_refused_total [1-9]'
    setpriv --reuid nobody --regid nogroup --clear-groups \
        curl --silent --fail --max-time 30 --unix-socket "$SOCKET" "${D}mac-count"
}

# Sends SIGTERM. Fails if the daemon takes longer than 3 seconds (13 with a sanitizer) or does not release everything.
end_daemon()
{
    kill -TERM "$daemon"
    timeout ${L2FIB_SANITIZED:+1}3 tail --pid "$daemon" --follow /dev/null 3>&-
    wait "$daemon"
}

@test "silent connections of one user leave room for other users" {
    start --socket-group nogroup
    hold 200
    eventually '.requests.connections >= 36 + 8'
    expect_shared "36 of 64 connections open" '.requests.connections > 36'
    sleep 2.5
    health '.requests.connections == 37' # the refused connections are closed, the others have some seconds left
    end_daemon
}

@test "slow readers of one user leave room for other users" {
    start --socket-group nogroup
    local i
    for i in {1..30}; do
        get mac-table/mac-entry --limit-rate 1k --output "$directory/$i" 3>&- &
        started+=($!)
    done
    eventually '.requests.refused == "12"'
    expect_shared "18 of 32 requests under way" '.requests.active == 19'
}

@test "a log that nobody reads blocks nothing, and counts the dropped lines" {
    local -r printed=$directory/lines long=$(printf 'x%.0s' {1..4000})
    mkfifo "$SOCKET.log"
    exec 8<>"$SOCKET.log"
    start --log-level debug
    for _ in 1 2; do # more than the pipe and the queue can hold
        get "nothing-[1-100]$long" --output /dev/null
    done
    health '."log-lines-dropped" | tonumber > 50'
    timeout 3 cat <&8 >"$printed" || true
    [[ $(tail --lines=1 "$printed") =~ ^"l2fibd: warning: log lines dropped: "[1-9] ]]
    get "nothing-[1-200]$long" --output /dev/null
    end_daemon
    exec 8>&-
}

@test "the log counts repeated lines, and its end is complete" {
    start --log-level debug
    get 'nothing?[1-50]' --output /dev/null
    for _ in {1..50}; do echo "url = ${D}nothing"; done | curl --silent --unix-socket "$SOCKET" --config - >/dev/null
    end_daemon
    local -r line='debug: GET /restconf/data/l2fib-mac:nothing: "restconf/data/l2fib-mac:nothing"'
    [[ $(grep --count --fixed-strings "l2fibd: $line" "$SOCKET.log") == 1 ]]
    grep --fixed-strings "debug: repeated 49 times: ${line#debug: }" "$SOCKET.log"
    [[ $(tail --lines=1 "$SOCKET.log") == "l2fibd: ended; released "* ]]
}

@test "lines for the journal begin with their priority" {
    : >"$SOCKET.log"
    JOURNAL_STREAM=$(stat --format %d:%i "$SOCKET.log") start --log-level debug
    get nothing --output /dev/null
    end_daemon
    local line
    for line in '<6>serves ' '<7>GET ' '<6>ended; '; do
        grep "^$line" "$SOCKET.log"
    done
    run ! grep --invert-match '^<[3-7]>[a-zG]' "$SOCKET.log"
}

@test "the daemon refuses to start with too few file descriptors" {
    local limit
    for limit in 12 20 40; do
        run bash -c "ulimit -n $limit && exec timeout 5 '$L2FIBD' --socket '$SOCKET'"
        [[ $status == 1 && $output == *"the limit of open files is $limit, expected at least "* && ! -e $SOCKET ]]
    done
}
