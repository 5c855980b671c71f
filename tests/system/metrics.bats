#!/usr/bin/env bats
# SPDX-License-Identifier: Apache-2.0

# The metrics of the daemon, as Prometheus and its tools take them. L2FIBD is the path of the daemon.
# scripts/install-deps --metrics-tests installs Prometheus and socat; without them the tests that need them are skipped.

bats_require_minimum_version 1.5.0

load daemon

D=/restconf/data/l2fib-mac:
OPEN_METRICS='Accept: application/openmetrics-text; version=1.0.0'

setup_file()
{
    export L2FIBD=${L2FIBD:-$BATS_TEST_DIRNAME/../../build/test/bin/l2fibd}
    export CONTRIB=$BATS_TEST_DIRNAME/../../contrib
    export SOCKET=$BATS_FILE_TMPDIR/metrics.sock
    start_daemon "$SOCKET" --generate bridges=1000,ports=2,macs=20000,vteps=4,churn=500/s,seed=3 --group lab
    export DAEMON=$!
}

teardown_file()
{
    kill "$DAEMON" 2>/dev/null || true
}

# needs PROGRAM
needs()
{
    type -P "$1" >/dev/null || skip "$1 is missing; scripts/install-deps --metrics-tests installs it"
}

# get PATH [CURL_OPTION...]
get()
{
    curl --silent --show-error --fail --max-time 60 --unix-socket "$SOCKET" "${@:2}" "http://l2fibd$1"
}

# sum_of SERIES [LABELS]: adds up the samples of a metric on standard input, of those that hold the text LABELS.
sum_of()
{
    awk -v name="$1" -v labels="${2-}" \
        '{ split($1, part, "{") } part[1] == name && index($1, labels) { sum += $2; found = 1 }
         END { if (!found) exit 1; printf "%d\n", sum }'
}

# Prints the names of our metrics in an expression or a file.
metrics_in()
{
    grep --only-matching --extended-regexp '\b(l2fib|process)_[a-z_]+\b' | sort --unique
}

@test "both formats answer, and no series has an address" {
    local text
    text=$(get /metrics --include)
    [[ $text == *"Content-Type: text/plain; version=0.0.4"* && $text != *"# EOF"* && $text != *"# UNIT"* ]]
    text=$(get /metrics --include --header "$OPEN_METRICS")
    [[ $text == *"Content-Type: application/openmetrics-text; version=1.0.0"* && $text == *$'\n# EOF' ]]
    [[ $text == *"# UNIT l2fib_request_duration_seconds seconds"* ]]
    run ! grep --extended-regexp '([0-9a-f]{2}:){5}|([0-9]+\.){3}[0-9]|::' <<<"$text"
    run ! get '/metrics?limit=1'
    run ! get /metrics --request POST
}

@test "a thousand bridge domains make a bounded number of series, and none is left out" {
    local text total
    text=$(get /metrics)
    ((1000 == $(sum_of l2fib_domains <<<"$text")))
    ((101 == $(grep --count '^l2fib_entries{.*kind="learned"' <<<"$text")))
    ((1000 >= $(grep --count --invert-match '^#' <<<"$text")))
    # The table changes between the two answers.
    total=$(get "${D}mac-count" | jq '."l2fib-mac:mac-count" | .learned + .static + .local')
    local -r difference=$(($(get /metrics | sum_of l2fib_entries) - total))
    ((difference > -200 && difference < 200)) || { echo "entries: $difference away from $total" && return 1; }
}

@test "counters count what happens" {
    local before after
    before=$(get /metrics)
    get "${D}mac-count" >/dev/null
    get "${D}ports/port=4" >/dev/null
    run ! get /nothing
    sleep 1
    after=$(get /metrics)
    local name labels least grown
    while read -r name labels least; do
        grown=$(($(sum_of "$name" "$labels" <<<"$after") - $(sum_of "$name" "$labels" <<<"$before")))
        ((grown >= least)) || { echo "$name $labels: grew by $grown" && return 1; }
    done <<END_OF_ROWS
l2fib_request_duration_seconds_count /restconf/data/l2fib-mac:mac-count" 1
l2fib_request_duration_seconds_bucket "/restconf/data/l2fib-mac:ports/port=*",le="+Inf" 1
l2fib_request_duration_seconds_count "none" 1
l2fib_request_duration_seconds_count "/metrics" 1
l2fib_resync_duration_seconds_count l2fib 1
l2fib_resyncs_total l2fib 1
l2fib_feeds_total l2fib 100
l2fib_changes_total "learned" 1
l2fib_plane_changes_total l2fib 100
END_OF_ROWS
}

@test "promtool accepts the metrics, the alerts and the dashboard's expressions" {
    needs promtool
    get /metrics | promtool check metrics
    cd "$CONTRIB/prometheus"
    promtool check config prometheus.yml
    promtool test rules l2fib.rules.test.yml
    # Each metric of the rules and of the dashboard exists.
    get /metrics | metrics_in >"$BATS_TEST_TMPDIR/there"
    { sed 's/#.*//' l2fib.rules.yml && jq --raw-output '.. | .expr? // empty' ../grafana/l2fib.json; } | metrics_in \
        >"$BATS_TEST_TMPDIR/used"
    (($(wc --lines <"$BATS_TEST_TMPDIR/used") > 25))
    run comm -13 "$BATS_TEST_TMPDIR/there" "$BATS_TEST_TMPDIR/used"
    [[ -z $output ]]
}

# Runs in a network namespace of its own: a relay from TCP to the socket, and Prometheus. Prints what Prometheus has
# scraped, and the status of each expression of the dashboard.
scrape_with_prometheus()
{
    local -r at=$BATS_TEST_TMPDIR api=http://127.0.0.1:9090/api/v1
    ip link set lo up
    socat TCP-LISTEN:9917,bind=127.0.0.1,fork,reuseaddr "UNIX-CONNECT:$SOCKET" 3>&- &
    relay=$! # not local: the trap runs after the function
    sed 's/scrape_interval: 15s/scrape_interval: 1s\n  evaluation_interval: 1s/' "$CONTRIB/prometheus/prometheus.yml" >"$at/prometheus.yml"
    cp "$CONTRIB/prometheus/l2fib.rules.yml" "$at"
    prometheus --config.file "$at/prometheus.yml" --web.listen-address 127.0.0.1:9090 \
        --storage.tsdb.path "$at/data" >"$at/prometheus.log" 2>&1 3>&- &
    server=$!
    trap 'kill "$server" "$relay"; wait' EXIT
    query() { curl --silent --max-time 10 --get --data-urlencode "query=$1" "$api/query"; }
    local -r end=$((SECONDS + 30))
    until query 'count_over_time(up{job="l2fib"}[1m]) >= 4' | grep --quiet '"value"'; do
        ((SECONDS < end)) || { cat "$at/prometheus.log" && return 1; }
        sleep 0.2
    done
    curl --silent "$api/targets" | jq --compact-output '.data.activeTargets[] | [.health, .lastError]'
    query 'sum(l2fib_entries)' | jq --raw-output '.data.result[0].value[1]'
    query 'sum(rate(l2fib_feeds_total[1m])) > 0' | jq '.data.result | length'
    query 'count({job="l2fib"})' | jq --raw-output '.data.result[0].value[1]'
    curl --silent "$api/metadata?metric=l2fib_resync_duration_seconds" |
        jq --compact-output '.data[][0] | [.type, .unit]'
    local expression
    while read -r expression; do
        expression=${expression//\$instance/.*}
        query "${expression//\$__rate_interval/1m}" | jq --raw-output --arg expression "$expression" \
            'select(.status != "success") | "\($expression): \(.error)"'
    done < <(jq --raw-output '.. | .expr? // empty' "$CONTRIB/grafana/l2fib.json")
    curl --silent "$api/rules" | jq --raw-output '.data.groups[].rules[] | select(.health != "ok") | "\(.name): \(.lastError)"'
}

@test "Prometheus scrapes the daemon, and evaluates the dashboard and the alerts" {
    needs prometheus
    needs socat
    [[ $EUID -eq 0 ]] || skip "needs root, to make a network namespace"
    export -f scrape_with_prometheus
    run timeout 120 unshare --net --pid --fork --kill-child bash -c scrape_with_prometheus
    echo "$output"
    [[ ${lines[0]} == '["up",""]' ]]
    ((lines[1] > 22000 && lines[1] < 30000))
    ((lines[2] == 1))
    ((lines[3] > 300 && lines[3] <= 1000 + 10)) # up and the other series of a scrape come on top
    [[ ${lines[4]} == '["histogram","seconds"]' ]]
    ((${#lines[@]} == 5))
}
