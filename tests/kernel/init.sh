#!/bin/bash
# SPDX-License-Identifier: Apache-2.0

# The guest's first process. It loads the kernel modules, runs one case and powers the guest off. The kernel's command
# line sets FILE and CASE in the environment. All output goes to the second serial line; its last line is the verdict.
export PATH=/bin HOME=/tmp

busybox mount -t proc proc /proc
busybox mount -t sysfs sysfs /sys
busybox mount -t devtmpfs devtmpfs /dev
busybox mount -t tmpfs tmpfs /run
busybox mount -t tmpfs tmpfs /tmp
exec </dev/null >/dev/ttyS1 2>&1
while read -r module; do
    busybox insmod "/modules/$module.ko" || exit 1 # exit makes the kernel panic: no verdict
done </modules/order

# Without IPv6, interfaces send no frames by themselves. Such frames would change the tables between two readings.
echo 1 >/proc/sys/net/ipv6/conf/default/disable_ipv6
ip link set lo up
ip addr add 198.51.100.1/32 dev lo

run_case()
{
    set -eEuo pipefail
    trap 'echo "failed: line $LINENO of ${BASH_SOURCE[0]##*/}: $BASH_COMMAND" >&2' ERR
    # shellcheck source=guest.sh
    source /cases/guest.sh
    # shellcheck disable=SC1090 # the kernel's command line names the file
    source "/cases/$FILE"
    "case_$CASE"
    end_daemon
}

# Not called in a condition, because bash ignores `set -e` there: the case would continue after a failure.
(run_case)
status=$?
if ((status == 0)); then
    echo "verdict: passed"
else
    tail -n 20 /run/l2fibd.log | sed 's/^/l2fibd: /'
    echo "verdict: failed"
fi
sync
busybox poweroff -f
