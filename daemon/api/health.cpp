// SPDX-License-Identifier: Apache-2.0

#include "daemon/api/health.h"

#include <span>

#include "base/text.h"
#include "base/visible.h"
#include "forwarding/forwarding.h"
#include "host/database/operational_db_host.h"
#include "host/pool/arena.h"
#include "host/tree/ordtree_memory.h"
#include "host/utility_host.h"

namespace l2fibd {

namespace {

struct counter {
    std::string_view name;
    uint64_t value;
};

void write_counters(json_writer &json, std::span<const counter> counters)
{
    for (const counter &each : counters) {
        json.member64(each.name, each.value);
    }
}

void write_reasons(json_writer &json, std::string_view name, const std::vector<forwarding::counted_reason> &reasons)
{
    json.begin_array(name);
    for (const forwarding::counted_reason &each : reasons) {
        json.begin_object();
        json.member("reason", each.reason);
        json.member64("count", each.count);
        json.end_object();
    }
    json.end_array();
}

void write_time(json_writer &json, std::string_view name, int64_t seconds)
{
    if (seconds != 0) {
        json.member(name, base::utc_text(seconds));
    }
}

const char *status_of(const forwarding::health_view &view)
{
    return view.state == forwarding::completeness::whole ? "clean" : forwarding::text_of(view.state);
}

void write_texts(json_writer &json, std::string_view name, const std::vector<std::string> &texts)
{
    json.begin_array(name);
    for (const std::string &text : texts) {
        json.text(text);
    }
    json.end_array();
}

void write_limited(json_writer &json, const std::vector<forwarding::limited_view> &ports)
{
    json.begin_array("limited");
    for (const forwarding::limited_view &each : ports) {
        const counter counters[] = {{"evicted", each.evicted}, {"refused", each.refused}};
        json.begin_object();
        json.member("domain", each.domain);
        if (!each.port.empty()) {
            json.member("port", each.port);
        }
        write_counters(json, counters);
        json.end_object();
    }
    json.end_array();
}

void write_proof(json_writer &json, const forwarding::proof_view &proof)
{
    const counter counters[] = {{"asked", proof.asked},
                                {"disagreed", proof.disagreed},
                                {"listed-stale", proof.listed_stale},
                                {"listed-missing", proof.listed_missing}};
    json.begin_object("proof");
    write_counters(json, counters);
    write_time(json, "last", proof.last);
    json.end_object();
}

void write_history(json_writer &json, const forwarding::history_view &history)
{
    const counter counters[] = {{"events", history.events},
                                {"events-kept", history.events_kept},
                                {"moves-kept", history.moves_kept},
                                {"bytes", history.bytes}};
    json.begin_object("history");
    write_counters(json, counters);
    json.end_object();
}

void write_plane(json_writer &json, const forwarding::health_view &view)
{
    const counter counters[] = {
        {"generation", view.of_plane.full_dumps},
        {"overruns", view.of_plane.overruns},
        {"events", view.of_plane.events},
        {"events-merged", view.events_merged},
        {"messages-refused", view.of_plane.refused},
        {"links", view.links},
        {"entries", view.entries},
        {"ipv6-destinations", view.ipv6_destinations},
        {"next-hop-destinations", view.next_hop_destinations},
        {"resyncs", view.resyncs},
        {"resyncs-degraded", view.resyncs_degraded},
        {"doubtful-asked", view.doubtful_asked},
        {"doubtful-kept", view.doubtful_kept},
        {"notifications-lost", view.of_plane.lost},
        {"feeds", view.feeds},
        {"feeds-full", view.feeds_full},
        {"limit", view.limit},
        {"entries-missing", view.missing},
        {"evictions", view.evictions},
        {"entries-refused", view.entries_refused},
        {"domain-limit", view.domain_ids.limit},
        {"domains-without-id", view.domain_ids.waiting},
        {"port-limit", view.port_ids.limit},
        {"ports-without-id", view.port_ids.waiting},
    };
    json.member("plane", view.plane);
    json.member("group", view.group);
    json.member("status", status_of(view));
    write_time(json, "last-overrun", view.of_plane.last_overrun_time);
    write_counters(json, counters);
    write_limited(json, view.limited);
    write_proof(json, view.proof);
    write_history(json, view.history);
    write_reasons(json, "unmapped", view.unmapped);
    write_reasons(json, "refused", view.refused);
    write_texts(json, "kernel-lacks", view.lacks);
    write_texts(json, "notes", view.notes);
}

void write_pool(json_writer &json, const host::chunk_statistics &pool)
{
    const counter counters[] = {{"in-use", pool.in_use},
                                {"peak", pool.peak},
                                {"bytes", pool.bytes},
                                {"failures", pool.failures},
                                {"refused-frees", pool.refused_frees}};
    json.begin_object();
    json.member("name", pool.name);
    json.member("element-size", pool.element_size);
    write_counters(json, counters);
    json.end_object();
}

void write_trees(json_writer &json)
{
    const host::ordtree_memory_figures figures = host::ordtree_memory();
    const counter counters[] = {
        {"nodes", figures.nodes}, {"bytes", figures.node_bytes}, {"mapped-bytes", figures.mapped_bytes}};
    json.begin_object("trees");
    write_counters(json, counters);
    json.end_object();
}

void write_slabs(json_writer &json)
{
    host::arena_statistics statistics{};
    host::arena_read_statistics(&statistics);
    const counter counters[] = {{"taken", statistics.taken},
                                {"peak", statistics.peak},
                                {"limit", statistics.reserved},
                                {"refused", statistics.refused}};
    json.begin_object("slabs");
    write_counters(json, counters);
    json.end_object();
}

void write_lock_waits(json_writer &json)
{
    constexpr uint64_t ns_per_ms = 1'000'000;
    json.begin_array("lock-waits");
    for (const host::lock_wait &wait : host::lock_waits()) {
        json.begin_object();
        json.member("thread", wait.thread_name);
        json.member("thread-id", wait.thread_id);
        json.member("function", wait.function);
        json.member("line", wait.line);
        json.member64("waited-ms", wait.waited_ns / ns_per_ms);
        json.end_object();
    }
    json.end_array();
}

void write_memory(json_writer &json)
{
    uint64_t bytes = 0;
    json.begin_object("memory");
    json.begin_array("pool");
    for (const host::chunk_statistics &pool : pool_statistics()) {
        bytes += pool.bytes;
        write_pool(json, pool);
    }
    json.end_array();
    json.member64("bytes", bytes);
    write_trees(json);
    write_slabs(json);
    json.end_object();
}

void write_lists(json_writer &json)
{
    const host::operational_statistics statistics = host::operational_get_statistics();
    const counter counters[] = {
        {"lists-created", statistics.lists_created}, {"lists-answered", statistics.lists_answered},
        {"lists-freed", statistics.lists_freed},     {"lists-abandoned", statistics.lists_abandoned},
        {"list-refusals", statistics.list_refusals}, {"answers-dropped", statistics.answers_dropped},
        {"lists-live", statistics.live_lists},
    };
    write_counters(json, counters);
}

void write_requests(json_writer &json, const server_health &server)
{
    json.begin_object("requests");
    json.member("active", server.active_requests);
    json.member64("refused", server.refused_requests);
    json.member("connections", server.open_connections);
    json.member64("connections-refused", server.refused_connections);
    json.member("watchers", server.watchers);
    json.member64("watchers-refused", server.refused_watchers);
    write_lists(json);
    json.end_object();
}

std::string lines_of(const char *label, const std::vector<forwarding::counted_reason> &reasons)
{
    std::string lines;
    for (const forwarding::counted_reason &each : reasons) {
        lines += std::string("\n") + label + ": " + std::to_string(each.count) + " (" + each.reason + ")";
    }
    return lines;
}

} // namespace

std::vector<host::chunk_statistics> pool_statistics()
{
    std::vector<host::chunk_statistics> found;
    for (chunk_pool_t *pool = host::chunk_next(nullptr); pool != nullptr; pool = host::chunk_next(pool)) {
        host::chunk_statistics statistics;
        if (host::chunk_read_statistics(pool, &statistics)) {
            found.push_back(statistics);
        }
    }
    return found;
}

void write_health(json_writer &json, const server_health &server)
{
    json.begin_object();
    write_plane(json, forwarding::health());
    write_memory(json);
    write_requests(json, server);
    write_lock_waits(json);
    json.member64("log-lines-dropped", server.dropped_log_lines);
    json.end_object();
}

std::string health_text()
{
    const forwarding::health_view view = forwarding::health();
    std::string text = "plane " + view.plane + ", " + status_of(view) + ", full dump "
                       + std::to_string(view.of_plane.full_dumps) + ", " + std::to_string(view.links) + " links, "
                       + std::to_string(view.entries) + " entries";
    text += lines_of("not fed", view.unmapped) + lines_of("refused", view.refused);
    for (const std::string &note : view.notes) {
        text += "\nnote: " + base::visible(note);
    }
    return text;
}

} // namespace l2fibd
