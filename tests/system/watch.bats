#!/usr/bin/env bats
# SPDX-License-Identifier: Apache-2.0

# What l2fibctl shows while the table changes: monitor, find, moves, flaps, top and --watch, on a generated fabric whose
# addresses come, move and age all the time. The tests of the screen use tmux.

bats_require_minimum_version 1.5.0
load daemon

setup()
{
    local -r bin=$BATS_TEST_DIRNAME/../../build/test/bin
    export L2FIBD=${L2FIBD:-$bin/l2fibd} L2FIBCTL=${L2FIBCTL:-$bin/l2fibctl}
    export L2FIBD_SOCKET=$BATS_TEST_TMPDIR/watch.sock
    started=()
    screen=(tmux -L "l2fib-test-$$" -f /dev/null)
}

teardown()
{
    "${screen[@]}" kill-server 2>/dev/null || true
    ((${#started[@]} == 0)) || kill "${started[@]}" 2>/dev/null || true
}

start()
{
    start_daemon "$L2FIBD_SOCKET" --group lab --generate "bridges=2,ports=4,macs=200,vteps=4,churn=$1/s,seed=3"
    daemon=$!
    started+=("$daemon")
}

ctl()
{
    "$L2FIBCTL" "$@"
}

# in_background FILE ARGUMENT...: runs l2fibctl with its output in FILE and FILE.errors. $! is its process.
in_background()
{
    "$L2FIBCTL" "${@:2}" >"$1" 2>"$1.errors" 3>&- &
    started+=($!)
}

# expect_end STATUS PROCESS: waits for a process of in_background, which must end with STATUS.
expect_end()
{
    local ended=0
    wait "$2" || ended=$?
    ((ended == $1)) || { echo "ended with $ended, expected $1" && return 1; }
}

# eventually COMMAND...: waits at most ten seconds until the command succeeds.
eventually()
{
    local tries
    for tries in {1..100}; do
        "$@" && return
        sleep 0.1
    done
    echo "$tries times not: $*"
    return 1
}

# numbers FILE: prints the numbers in the ids of events.
numbers()
{
    jq --raw-output 'select(.event != "begin") | .id | split("-")[1]' "$1"
}

@test "monitor prints events once, in text and JSON, and continues behind an id" {
    start 200
    local -r at=$BATS_TEST_TMPDIR
    ctl monitor --json-lines --limit 50 >"$at/first"
    ctl monitor --json-lines --limit 50 --since "$(tail -1 "$at/first" | jq --raw-output .id)" >"$at/second"
    diff <(numbers "$at/first" && numbers "$at/second") <(seq "$(numbers "$at/first" | head -1)" 1 "$(numbers "$at/second" | tail -1)")
    [[ $(numbers "$at/first" | wc --lines) == 50 ]]

    ctl monitor --domain br1 --limit 30 | awk 'NR == 1 { exit $1 != "Time" || $NF != "To" } $4 != "lab:br1" { exit 1 }'
    [[ $(timeout 1 "$L2FIBCTL" monitor --type static --no-header) == "" ]]
    run -1 ctl monitor --domain nowhere
    run -2 ctl monitor --json
    [[ $output == *"--json-lines"* ]]
}

@test "monitor ends with 0, and with 6 after the daemon was restarted" {
    start 100
    local -r at=$BATS_TEST_TMPDIR
    in_background "$at/whole" monitor
    local -r whole=$!
    in_background "$at/cut" monitor --json-lines
    local -r cut=$!
    eventually test -s "$at/whole"
    kill -TERM "$whole"
    expect_end 0 "$whole"
    eventually test -s "$at/cut"
    kill "$daemon"
    wait "$daemon"
    start 100
    eventually grep --quiet '"event":"missed","reason":"the daemon was restarted"' "$at/cut"
    kill -TERM "$cut"
    expect_end 6 "$cut"
    grep --quiet "trying again" "$at/cut.errors"
    grep --quiet "connected to l2fibd again" "$at/cut.errors"
}

@test "find shows an address with its history, and moves say how far they go back" {
    start 200
    eventually ctl show flaps
    local -r mac=$(ctl show flaps --json --limit 1 | jq --raw-output '.[0]."mac-address"')
    ctl find "$mac" --json >"$BATS_TEST_TMPDIR/found"
    jq --exit-status --arg mac "$mac" '."mac-address" == $mac and (.move | length) >= 2
        and (.move + ."mac-entry" | all(."mac-address" == $mac)) and (."history-since" | startswith("20"))
        and (.move | map(.id | tonumber) | . == (sort | reverse))' "$BATS_TEST_TMPDIR/found"
    run -0 ctl find "$mac"
    [[ $output == *"Places before:"*"History since:"* ]]
    run -1 ctl find 02:ff:ff:ff:ff:ff
    [[ $output == *"has not moved since 20"* ]]
    run -1 ctl show moves 02:ff:ff:ff:ff:ff
    [[ $output == *"when the history begins" ]]
}

@test "find --near shows the same vendor and the same port, each entry once" {
    start_daemon "$L2FIBD_SOCKET" --recorded "$BATS_TEST_DIRNAME/../../examples/recorded/tunnels"
    started+=($!)
    local -r mac=02:00:00:00:20:02
    local -r port=$(ctl show mac "$mac" --json | jq --raw-output '.[0].xcid')
    local -r key='[.domain, ."mac-address", .xcid, .vtep]'
    diff <(ctl show mac --json | jq --compact-output ".[] | select((.\"mac-address\" | startswith(\"02:00:00\")) or .xcid == $port) | $key" | sort) \
        <(ctl find "$mac" --near --json | jq --compact-output ".[] | $key" | sort)
}

@test "top --once prints counts and rates, the largest first" {
    start 200
    ctl top --once --interval 1 --json >"$BATS_TEST_TMPDIR/ports"
    jq --exit-status 'map(."changes-per-second" | tonumber) | . == (sort | reverse) and .[0] > 0' "$BATS_TEST_TMPDIR/ports"
    ctl top domains --once --interval 1 --by entries --json |
        jq --exit-status 'length == 2 and (map(.entries) | . == (sort | reverse) and .[1] > 0)'
    eventually ctl top addresses --once
    [[ $(ctl top addresses --once | head -1) == "Domain "*" Moves "*" To" ]]
    run -2 ctl top
    [[ $output == *"--once"* ]]
    run -2 ctl top addresses --once --by entries
    run -3 ctl top --once --socket /no/such/socket
}

# has_blocks COUNT FILE: whether --watch has printed this number of tables.
has_blocks()
{
    [[ $(grep --count "^Domain" "$2") == "$1" ]]
}

@test "--watch prints blocks and ends with the status of the last round" {
    start 0
    local -r at=$BATS_TEST_TMPDIR
    in_background "$at/text" show domain --watch 1
    local -r text=$!
    in_background "$at/json" show domain --json --watch 1
    local -r json=$!
    in_background "$at/nothing" show mac --domain nowhere --watch 1
    local -r nothing=$!
    eventually has_blocks 2 "$at/text"
    kill "$text" "$json" "$nothing"
    expect_end 0 "$text"
    expect_end 0 "$json"
    expect_end 1 "$nothing"
    grep --quiet nowhere "$at/nothing.errors"
    [[ $(head -1 "$at/text") == 20*Z ]]
    jq --slurp --exit-status '(.[0].time | endswith("Z")) and (.[1] | length == 2)' "$at/json"
    run -3 ctl show domain --watch 1 --socket /no/such/socket
    [[ $(ctl show domain --watch 1 --json-lines | head -1) == '{"time":'* ]]
}

# on_screen PATTERN: whether the terminal shows the pattern.
on_screen()
{
    "${screen[@]}" capture-pane -p | grep --quiet -- "$1"
}

# type_keys KEY...: presses keys.
type_keys()
{
    "${screen[@]}" send-keys "$@"
}

@test "top and --watch follow the terminal's size and give it back" {
    command -v tmux >/dev/null || skip "tmux is not installed"
    start 200
    "${screen[@]}" new-session -d -x 80 -y 12 "env PS1='ready ' bash --norc"
    type_keys "$L2FIBCTL top" Enter
    eventually on_screen "rows 1-8 of 10"
    "${screen[@]}" resize-window -x 80 -y 20
    eventually on_screen "rows 1-10 of 10"
    type_keys / vx1 Enter
    eventually on_screen "rows 1-1 of 1"
    type_keys s
    eventually on_screen "by entries"
    kill "$daemon"
    wait "$daemon"
    eventually on_screen "no answer from l2fibd"
    start 200
    eventually on_screen "changes a second"
    type_keys q
    eventually on_screen "^ready"

    local how
    for how in "kill -TERM" "kill -SEGV"; do
        type_keys "clear; $L2FIBCTL top & p=\$!; (sleep 1; $how \$p) & fg %1; echo ended" Enter
        eventually on_screen "^top ports"
        eventually on_screen "^ended"
        [[ $("${screen[@]}" display-message -p '#{alternate_on} #{cursor_flag}') == "0 1" ]]
        type_keys "clear; stty --all | tr ' ' '\n' | grep --line-regexp --regexp='-*icanon;*' --regexp='-*echo;*'" Enter
        eventually on_screen "^icanon"
        eventually on_screen "^echo"
    done

    type_keys "clear; $L2FIBCTL show mac --watch 1" Enter
    eventually on_screen "rows are not shown"
    on_screen "every 1 s"
    type_keys C-c
    type_keys "echo status \$?" Enter
    eventually on_screen "^status 0"
}
