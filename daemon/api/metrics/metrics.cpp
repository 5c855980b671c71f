// SPDX-License-Identifier: Apache-2.0

#include "daemon/api/metrics/metrics.h"

#include <algorithm>
#include <ctime>
#include <fstream>
#include <iterator>
#include <numeric>
#include <span>
#include <unistd.h>
#include <utility>

#include "forwarding/feeder/answers/history.h"

namespace l2fibd {

namespace {

constexpr auto gauge = metric_type::gauge;
constexpr auto counter = metric_type::counter;

// ---- Metrics with one series ----

struct single_metric {
    metric_family family;
    uint64_t (*value)(const metric_figures &of);
};

constexpr single_metric metrics_of_table[] = {
    {{"l2fib_entries_limit", gauge, "Entries that the table may hold."},
     [](auto &of) -> uint64_t { return of.health.limit; }},
    {{"l2fib_entries_missing", gauge,
      "Entries that the plane holds and the table lacks, because it is full or refused them."},
     [](auto &of) { return of.health.missing; }},
    {{"l2fib_evictions", counter, "Entries that the table evicted at its limit."},
     [](auto &of) { return of.health.evictions; }},
    {{"l2fib_refusals", counter, "Entries that the table refused."},
     [](auto &of) { return of.health.entries_refused; }},
    {{"l2fib_feeds", counter, "Entries fed to the table."}, [](auto &of) { return of.health.feeds; }},
    {{"l2fib_full_feeds", counter, "Times that a whole scope was marked, fed again and swept."},
     [](auto &of) { return of.health.feeds_full; }},
    {{"l2fib_domains", gauge, "Bridge domains with an id."}, [](auto &of) { return of.domain_count; }},
    {{"l2fib_domains_without_id", gauge, "Bridge domains that wait for an id."},
     [](auto &of) { return of.health.domain_ids.waiting; }},
    {{"l2fib_ports", gauge, "Bridge ports with an id."}, [](auto &of) { return of.port_count; }},
    {{"l2fib_ports_without_id", gauge, "Bridge ports that wait for an id."},
     [](auto &of) { return of.health.port_ids.waiting; }},
};

constexpr single_metric metrics_of_plane[] = {
    {{"l2fib_plane_links", gauge, "Links that the forwarding plane holds."}, [](auto &of) { return of.health.links; }},
    {{"l2fib_plane_entries", gauge, "Entries that the forwarding plane holds; a joined VXLAN entry counts as two."},
     [](auto &of) { return of.health.entries; }},
    {{"l2fib_plane_changes", counter, "Changes that the forwarding plane reported, and records of full dumps."},
     [](auto &of) { return of.health.of_plane.events; }},
    {{"l2fib_plane_changes_merged", counter, "Changes that another change overtook before the table saw them."},
     [](auto &of) { return of.health.events_merged; }},
    {{"l2fib_plane_messages_refused", counter, "Messages that were malformed or not the kernel's."},
     [](auto &of) { return of.health.of_plane.refused; }},
    {{"l2fib_overruns", counter, "Receive buffer overruns."}, [](auto &of) { return of.health.of_plane.overruns; }},
    {{"l2fib_notifications_lost", counter, "Changes lost, as far as their number is known."},
     [](auto &of) { return of.health.of_plane.lost; }},
    {{"l2fib_full_dumps", counter, "Full dumps begun."}, [](auto &of) { return of.health.of_plane.full_dumps; }},
    {{"l2fib_resyncs", counter, "Resyncs served."}, [](auto &of) { return of.health.resyncs; }},
    {{"l2fib_resyncs_degraded", counter, "Resyncs that ended while the table was not proven."},
     [](auto &of) { return of.health.resyncs_degraded; }},
    {{"l2fib_doubtful_asked", counter, "Entries in doubt that the plane was asked about."},
     [](auto &of) { return of.health.doubtful_asked; }},
    {{"l2fib_doubtful_kept", counter, "Entries in doubt that stayed."},
     [](auto &of) { return of.health.doubtful_kept; }},
    {{"l2fib_proof_asked", counter, "Entries compared with the plane in samples."},
     [](auto &of) { return of.health.proof.asked; }},
    {{"l2fib_proof_disagreed", counter, "Entries that differed from the plane, although it reported no change."},
     [](auto &of) { return of.health.proof.disagreed; }},
};

constexpr single_metric metrics_of_process[] = {
    {{"l2fib_history_events", gauge, "Events that are kept."}, [](auto &of) { return of.health.history.events_kept; }},
    {{"l2fib_history_bytes", gauge, "Memory of the kept events and moves.", "bytes"},
     [](auto &of) { return of.health.history.bytes; }},
    {{"l2fib_slabs", gauge, "Slabs of 2 MiB that the pools took."},
     [](auto &of) -> uint64_t { return of.slabs.taken; }},
    {{"l2fib_slabs_limit", gauge, "Slabs of 2 MiB that the pools can take."},
     [](auto &of) -> uint64_t { return of.slabs.reserved; }},
    {{"l2fib_slab_failures", counter, "Slabs of 2 MiB that the pools did not get."},
     [](auto &of) -> uint64_t { return of.slabs.refused; }},
    {{"l2fib_tree_nodes", gauge, "Nodes of the table's trees."}, [](auto &of) -> uint64_t { return of.trees.nodes; }},
    {{"l2fib_tree_bytes", gauge, "Memory of the table's trees.", "bytes"},
     [](auto &of) -> uint64_t { return of.trees.mapped_bytes; }},
    {{"l2fib_requests_active", gauge, "Requests under way, this one included."},
     [](auto &of) -> uint64_t { return of.server.active_requests; }},
    {{"l2fib_requests_refused", counter, "Requests refused, because too many were under way."},
     [](auto &of) { return of.server.refused_requests; }},
    {{"l2fib_connections", gauge, "Connections open, event streams excluded."},
     [](auto &of) -> uint64_t { return of.server.open_connections; }},
    {{"l2fib_connections_refused", counter, "Connections refused, because too many were open."},
     [](auto &of) { return of.server.refused_connections; }},
    {{"l2fib_event_streams", gauge, "Event streams open."}, [](auto &of) -> uint64_t { return of.server.watchers; }},
    {{"l2fib_event_streams_refused", counter, "Event streams refused, because too many were open."},
     [](auto &of) { return of.server.refused_watchers; }},
    {{"l2fib_log_lines_dropped", counter, "Log lines dropped, because too many came at once."},
     [](auto &of) { return of.server.dropped_log_lines; }},
};

// Times in seconds since the epoch. A time of 0 has no sample: it has not happened.
constexpr single_metric times[] = {
    {{"l2fib_proof_timestamp_seconds", gauge, "When a full dump last proved the table.", "seconds"},
     [](auto &of) { return static_cast<uint64_t>(of.health.proof.last); }},
    {{"l2fib_overrun_timestamp_seconds", gauge, "When the receive buffer last overran.", "seconds"},
     [](auto &of) { return static_cast<uint64_t>(of.health.of_plane.last_overrun_time); }},
    {{"l2fib_resync_timestamp_seconds", gauge, "When a resync for a request last succeeded.", "seconds"},
     [](auto &of) { return static_cast<uint64_t>(of.last_resync); }},
    {{"process_start_time_seconds", gauge, "When the daemon began to serve.", "seconds"},
     [](auto &of) { return static_cast<uint64_t>(of.server.start_time); }},
};

void write_singles(exposition &text, std::span<const single_metric> metrics, const metric_figures &of)
{
    for (const single_metric &each : metrics) {
        text.begin(each.family);
        text.sample({}, each.value(of));
    }
}

void write_times(exposition &text, const metric_figures &of)
{
    for (const single_metric &each : times) {
        text.begin(each.family);
        if (const uint64_t seconds = each.value(of); seconds != 0) {
            text.sample({}, seconds);
        }
    }
}

// ---- Metrics with labels ----

void write_versions(exposition &text, const metric_figures &of)
{
    text.begin({"l2fib_build", metric_type::info, "Version of the daemon, and the compiler that built it."});
    text.sample({{"version", L2FIBD_VERSION}, {"compiler", L2FIBD_COMPILER}}, uint64_t{1});
    text.begin({"l2fib_plane", metric_type::info, "The forwarding plane, and the first part of the domains' names."});
    text.sample({{"plane", of.health.plane}, {"group", of.health.group}}, uint64_t{1});
}

void write_completeness(exposition &text, const metric_figures &of)
{
    using forwarding::completeness;
    text.begin({"l2fib_completeness", gauge, "What answers are worth: 1 for the state that holds, otherwise 0."});
    for (const auto state : {completeness::whole, completeness::limited, completeness::degraded}) {
        text.sample({{"state", forwarding::text_of(state)}}, uint64_t{of.health.state == state ? 1u : 0u});
    }
}

void write_entries(exposition &text, const metric_figures &of)
{
    text.begin({"l2fib_entries", gauge, "Entries in the table, by bridge domain and kind."});
    for (const domain_entries &each : of.domains) {
        text.sample({{"domain", each.name}, {"kind", "learned"}}, uint64_t{each.counts.learned});
        text.sample({{"domain", each.name}, {"kind", "static"}}, uint64_t{each.counts.fixed});
        text.sample({{"domain", each.name}, {"kind", "local"}}, uint64_t{each.counts.local});
    }
}

void write_changes(exposition &text, const metric_figures &of)
{
    text.begin(
        {"l2fib_changes", counter, "Changes of the table's entries, by kind; lost: times that changes were lost."});
    for (size_t kind = 0; kind < forwarding::change_kinds; kind++) {
        text.sample({{"kind", forwarding::text_of(static_cast<forwarding::change_kind>(kind))}},
                    of.health.history.events_by_kind[kind]);
    }
}

void write_dumps(exposition &text, const metric_figures &of)
{
    text.begin({"l2fib_dumps", counter, "Dumps of one bridge or device, each repetition counted, by result."});
    text.sample({{"result", "clean"}}, of.health.of_plane.dumps_clean);
    text.sample({{"result", "unclean"}}, of.health.of_plane.dumps_unclean);
}

void write_reasons(exposition &text, const metric_figures &of)
{
    text.begin({"l2fib_entries_unmapped", gauge, "Entries of the plane that are not fed, by reason."});
    for (const forwarding::counted_reason &each : of.health.unmapped) {
        text.sample({{"reason", each.reason}}, each.count);
    }
    text.begin({"l2fib_failures", counter, "Failures, by reason."});
    for (const forwarding::counted_reason &each : of.health.refused) {
        text.sample({{"reason", each.reason}}, each.count);
    }
}

struct pool_metric {
    metric_family family;
    uint64_t host::chunk_statistics::*value;
};

constexpr pool_metric pool_metrics[] = {
    {{"l2fib_pool_elements", gauge, "Elements in use."}, &host::chunk_statistics::in_use},
    {{"l2fib_pool_elements_peak", gauge, "Most elements in use so far."}, &host::chunk_statistics::peak},
    {{"l2fib_pool_bytes", gauge, "Memory of the pool.", "bytes"}, &host::chunk_statistics::bytes},
    {{"l2fib_pool_failures", counter, "Elements that the pool had no memory for."}, &host::chunk_statistics::failures},
};

void write_pools(exposition &text, const metric_figures &of)
{
    for (const pool_metric &metric : pool_metrics) {
        text.begin(metric.family);
        for (const host::chunk_statistics &pool : of.pools) {
            text.sample({{"pool", pool.name}}, pool.*metric.value);
        }
    }
}

void write_durations(exposition &text, const metric_figures &of)
{
    text.begin({"l2fib_resync_duration_seconds", metric_type::histogram,
                "How long requests waited for their resyncs, failed ones included.", "seconds"});
    text.samples({}, of.resyncs);
    text.begin({"l2fib_request_duration_seconds", metric_type::histogram,
                "From the arrival of a request to the end of its answer, event streams excluded.", "seconds"});
    for (const resource_durations &each : of.requests) {
        text.samples({{"resource", each.resource}}, each.durations);
    }
}

// ---- The process ----

// Resident memory in bytes. 0 if the system does not say.
uint64_t resident_bytes()
{
    std::ifstream file("/proc/self/statm");
    uint64_t total_pages = 0;
    uint64_t resident_pages = 0;
    file >> total_pages >> resident_pages;
    return resident_pages * static_cast<uint64_t>(sysconf(_SC_PAGESIZE));
}

double cpu_seconds()
{
    constexpr double nanosecond = 1e-9;
    timespec used = {};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &used);
    return static_cast<double>(used.tv_sec) + nanosecond * static_cast<double>(used.tv_nsec);
}

void write_process(exposition &text)
{
    text.begin({"process_cpu_seconds", counter, "Processor time that the daemon used.", "seconds"});
    text.sample({}, cpu_seconds());
    text.begin({"process_resident_memory_bytes", gauge, "Resident memory of the daemon.", "bytes"});
    text.sample({}, resident_bytes());
}

// ---- Bridge domains ----

uint64_t sum_of(const forwarding::kind_counts &counts)
{
    return uint64_t{counts.learned} + counts.fixed + counts.local;
}

} // namespace

// Of domains with the same size, the one with the smallest bridge id comes first. So the choice is steady.
std::vector<domain_entries> largest_domains(const forwarding::domain_counts &all)
{
    std::vector<size_t> by_size(all.counts.size());
    std::iota(by_size.begin(), by_size.end(), size_t{0});
    const auto middle = by_size.begin() + static_cast<std::ptrdiff_t>(std::min(by_size.size(), max_domains_in_metrics));
    std::ranges::partial_sort(by_size, middle, {}, [&](size_t at) { return std::pair(~sum_of(all.counts[at]), at); });
    std::vector<domain_entries> largest;
    std::for_each(by_size.begin(), middle, [&](size_t at) {
        largest.push_back({all.objects->domains[at].name, all.counts[at]});
    });
    if (middle != by_size.end()) {
        domain_entries rest{std::string(other_domains), {}};
        std::for_each(middle, by_size.end(), [&](size_t at) {
            rest.counts.learned += all.counts[at].learned;
            rest.counts.fixed += all.counts[at].fixed;
            rest.counts.local += all.counts[at].local;
        });
        largest.push_back(std::move(rest));
    }
    return largest;
}

metric_figures read_figures()
{
    const forwarding::domain_counts domains = forwarding::count_domains();
    metric_figures figures;
    figures.health = forwarding::health();
    figures.domains = largest_domains(domains);
    if (domains.objects != nullptr) {
        figures.domain_count = domains.objects->domains.size();
        figures.port_count = domains.objects->ports.size();
    }
    figures.pools = pool_statistics();
    host::arena_read_statistics(&figures.slabs);
    figures.trees = host::ordtree_memory();
    return figures;
}

std::string metrics_text(const metric_figures &figures, exposition_format format)
{
    exposition text(format);
    write_versions(text, figures);
    write_completeness(text, figures);
    write_entries(text, figures);
    write_changes(text, figures);
    write_singles(text, metrics_of_table, figures);
    write_singles(text, metrics_of_plane, figures);
    write_dumps(text, figures);
    write_reasons(text, figures);
    write_durations(text, figures);
    write_pools(text, figures);
    write_singles(text, metrics_of_process, figures);
    write_times(text, figures);
    write_process(text);
    return text.take();
}

} // namespace l2fibd
