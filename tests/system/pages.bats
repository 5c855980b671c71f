#!/usr/bin/env bats
# SPDX-License-Identifier: Apache-2.0

# What the pages for operators show is what the programs print. shown_commands.py says how a page names the world in
# which its examples run; each world is a daemon here. L2FIBD and L2FIBCTL are the paths of the programs.

load daemon

setup_file()
{
    local -r bin=$BATS_TEST_DIRNAME/../../build/test/bin
    export L2FIBD=${L2FIBD:-$bin/l2fibd} L2FIBCTL=${L2FIBCTL:-$bin/l2fibctl}
    export REPOSITORY=$BATS_TEST_DIRNAME/../..
    mkdir "$BATS_FILE_TMPDIR/bin"
    ln -s "$(realpath "$L2FIBCTL")" "$BATS_FILE_TMPDIR/bin/l2fibctl"
    export PATH=$BATS_FILE_TMPDIR/bin:$PATH
}

teardown()
{
    kill "${daemon-}" 2>/dev/null || true
}

# start_world NAME: starts the daemon of a world.
start_world()
{
    local -A options=(
        [leaf]="--group leaf1 --recorded $REPOSITORY/examples/recorded/leaf"
        [tunnels]="--group lab --recorded $REPOSITORY/examples/recorded/tunnels"
        [moving]="--group lab --generate bridges=2,ports=4,macs=400,vteps=2,churn=2000/s,seed=7"
        [full]="--group lab --mac-limit 100 --generate bridges=2,ports=4,macs=400,vteps=2,churn=0/s,seed=7"
    )
    [[ -n ${options[$1]-} ]] || { echo "$1: no such world; expected one of ${!options[*]}" && return 1; }
    export L2FIBD_SOCKET=$BATS_TEST_TMPDIR/$1.sock
    # shellcheck disable=SC2086
    start_daemon "$L2FIBD_SOCKET" ${options[$1]}
    daemon=$!
}

# check_page PAGE: runs all commands of a page.
check_page()
{
    local worlds world status=0
    worlds=$(python3 "$BATS_TEST_DIRNAME/shown_commands.py" "$REPOSITORY/$1" --worlds)
    for world in $worlds; do
        start_world "$world"
        python3 "$BATS_TEST_DIRNAME/shown_commands.py" "$REPOSITORY/$1" "$world" || status=1
        kill "$daemon" && wait "$daemon" || true
    done
    return "$status"
}

@test "the README shows what the client prints" { check_page README.md; }
@test "the manual of the client shows what it prints" { check_page docs/client.md; }
@test "the pages of tasks show what the client prints" { check_page docs/tasks.md; }
@test "the page of operations shows what the client prints" { check_page docs/operations.md; }
