# SPDX-License-Identifier: Apache-2.0

# shellcheck shell=bash
# Helper functions of the system tests. L2FIBD is the path of the daemon.

# start_daemon SOCKET OPTION...: starts the daemon and returns once it serves requests. Then $! is its process, and
# SOCKET.log its log. If L2FIBD_PRELOAD is set, the daemon loads that library first.
start_daemon()
{
    local -r socket=$1
    shift
    LD_PRELOAD=${L2FIBD_PRELOAD-} "$L2FIBD" --socket "$socket" "$@" 2>"$socket.log" 3>&- &
    local -r pid=$!
    until curl --silent --output /dev/null --unix-socket "$socket" http://l2fibd/restconf/data/l2fib-mac:health; do
        kill -0 "$pid" || { cat "$socket.log" && return 1; }
        sleep 0.05
    done
}

# make_directory: makes $directory, which every user may enter, and names $SOCKET in it. Call end_started afterwards.
make_directory()
{
    directory=$(mktemp --directory /tmp/l2fibd.XXXXXX) # not in the directory of bats, which other users may not enter
    chmod 711 "$directory"
    SOCKET=$directory/socket
    started=()
}

# end_started: ends the processes in $started and removes $directory.
end_started()
{
    ((${#started[@]} == 0)) || kill "${started[@]}" 2>/dev/null || true
    rm --recursive "$directory"
}

# health FILTER: requires that the health of the daemon at $SOCKET satisfies the filter of jq.
health()
{
    local -r found=$(curl --silent --max-time 30 --unix-socket "$SOCKET" http://l2fibd/restconf/data/l2fib-mac:health)
    jq --exit-status ".\"l2fib-mac:health\" | $1" <<<"$found" >/dev/null || { echo "not $1: $found" && return 1; }
}

# eventually FILTER: waits at most ten seconds until the daemon's health satisfies the filter.
eventually()
{
    local tries
    for tries in {1..100}; do
        health "$1" >/dev/null && return
        sleep 0.1
    done
    echo "$tries times" && health "$1"
}

# memory_of PROCESS: prints how many kB of its memory are present.
memory_of()
{
    awk '$1 == "VmRSS:" { print $2 }' "/proc/$1/status"
}
