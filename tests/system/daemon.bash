# SPDX-License-Identifier: Apache-2.0

# shellcheck shell=bash
# Loaded by the system tests. L2FIBD names the program.

# start_daemon SOCKET OPTION...: returns when it serves; $! is the process, SOCKET.log its log. L2FIBD_PRELOAD names a
# library that is loaded before it.
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
