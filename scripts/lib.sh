# SPDX-License-Identifier: Apache-2.0

# shellcheck shell=bash
# Shared by the scripts of this directory and by .ci/run: sourced, never run. It moves to the root of the repository,
# so that the scripts work from anywhere.

cd "$(dirname "${BASH_SOURCE[0]}")/.." || exit 1

readonly jobs=2

say()
{
    printf '== %s\n' "$*"
}

die()
{
    printf '%s: %s\n' "${0##*/}" "$*" >&2
    exit 1
}

# configure PRESET [CMAKE_ARGUMENT...]: quiet unless it fails.
configure()
{
    local output
    if ! output=$(cmake --preset "$@" 2>&1); then
        printf '%s\n' "$output" >&2
        return 1
    fi
}

# build PRESET [TARGET...]: configures build/PRESET and builds the targets there, by default all. No local variables:
# bash refuses one whose name the caller has made readonly.
build()
{
    say "building $*"
    configure "$1" || return 1
    cmake --build --preset "$1" --parallel "$jobs" ${2+--target "${@:2}"}
}

# Where the results of the last test run of PRESET lie.
results_of()
{
    printf '%s/build/%s/test-results.xml' "$PWD" "$1"
}

# count_results FILE...: prints "PASSED FAILED" over the JUnit files that exist. A skipped test counts as neither.
count_results()
{
    local file existing=()
    for file in "$@"; do
        if [[ -f $file ]]; then
            existing+=("$file")
        fi
    done
    if ((${#existing[@]} == 0)); then
        echo "0 0"
        return
    fi
    awk '
        function value(name) { return match($0, "[ \t]" name "=\"[0-9]+\"") ? substr($0, RSTART + length(name) + 3) + 0 : 0 }
        FNR == 1 { in_head = 0 }
        /<testsuite / { in_head = 1 }
        in_head {
            total += value("tests"); failed += value("failures")
            idle += value("skipped") + value("disabled")
            if (/>/) in_head = 0
        }
        END { printf "%d %d\n", total - failed - idle, failed }' "${existing[@]}"
}
