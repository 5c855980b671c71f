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
