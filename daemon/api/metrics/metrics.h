// SPDX-License-Identifier: Apache-2.0

// The metrics of the daemon, for /metrics: what they are called, and from which figure each takes its value.
// docs/api.md lists them. Constexpr tables (metrics.cpp) hold the metrics without labels.
//
// Series. No label holds an address, and each label has a bounded number of values, so an answer has at most
// max_metric_series series. Bridge domains are the largest set: those with the most entries have series of their own,
// and the rest share the name other_domains, which no bridge domain has, because full names hold a colon.
//
// Cost. Nothing here takes the table lock, waits for the cache thread or asks the forwarding plane. The metrics show
// the table as it is, without a resync.
//
// Threads: any thread may call every function.
#pragma once

#include <array>
#include <string>
#include <string_view>
#include <vector>

#include "daemon/api/health.h"
#include "daemon/api/metrics/duration_histogram.h"
#include "daemon/api/metrics/exposition.h"
#include "forwarding/forwarding.h"
#include "host/pool/arena.h"
#include "host/pool/chunk_statistics.h"
#include "host/tree/ordtree_memory.h"

namespace l2fibd {

inline constexpr size_t max_domains_in_metrics = 100;
inline constexpr std::string_view other_domains = "other";
inline constexpr size_t max_metric_series = 1'000;

// ---- Durations of requests ----

// How long the requests of each resource took, by the number of the resource in its table. The last one counts requests
// of no resource: those that were refused, and those that named none.
inline constexpr size_t max_resources = 32;
inline constexpr size_t no_resource = max_resources;
using request_durations = std::array<duration_histogram, max_resources + 1>;

struct resource_durations {
    std::string resource; // the pattern of its path
    duration_histogram::reading durations;
};

// ---- The figures that the metrics show ----

struct domain_entries {
    std::string name;
    forwarding::kind_counts counts;
};

struct metric_figures {
    forwarding::health_view health;
    std::vector<domain_entries> domains; // the largest, then the rest as one
    uint64_t domain_count = 0;
    uint64_t port_count = 0;
    std::vector<host::chunk_statistics> pools;
    host::arena_statistics slabs = {};
    host::ordtree_memory_figures trees = {};
    server_health server;
    duration_histogram::reading resyncs;
    int64_t last_resync = 0; // seconds since the epoch; 0: never
    std::vector<resource_durations> requests;
};

// Keeps the bridge domains with the most entries and adds up the others.
std::vector<domain_entries> largest_domains(const forwarding::domain_counts &all);

// Reads all figures except those of the server, the resyncs and the requests, which the caller adds.
metric_figures read_figures();

std::string metrics_text(const metric_figures &figures, exposition_format format);

} // namespace l2fibd
