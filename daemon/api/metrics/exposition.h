// SPDX-License-Identifier: Apache-2.0

// Writes metrics as the text that Prometheus and its relatives scrape: OpenMetrics 1.0, or the older text format 0.0.4.
//
//      exposition text(exposition_format::open_metrics);
//      text.begin({"l2fib_entries", metric_type::gauge, "Entries in the table."});
//      text.sample({{"domain", "lab:br0"}, {"kind", "learned"}}, 7);
//      return text.take();
//
//      # TYPE l2fib_entries gauge
//      # HELP l2fib_entries Entries in the table.
//      l2fib_entries{domain="lab:br0",kind="learned"} 7
//      # EOF
//
// Names of metrics and labels, and help texts, come from our own tables and need no escapes. Label values may hold any
// bytes.
//
// Threads: an exposition belongs to one thread. The other functions are pure.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <string>
#include <string_view>

#include "daemon/api/metrics/duration_histogram.h"

namespace l2fibd {

enum class exposition_format : uint8_t { text, open_metrics };

// The format that a client prefers by its header `Accept`. Text, if the header is null or names neither format.
exposition_format format_of(const char *accept);

const char *content_type_of(exposition_format format);

enum class metric_type : uint8_t { gauge, counter, histogram, info };

struct metric_family {
    std::string_view name; // without the suffix that samples of its type have: _total, _bucket, _info
    metric_type type;
    std::string_view help;
    std::string_view unit = {}; // "seconds" or "bytes": the name ends with it
};

struct metric_label {
    std::string_view name;
    std::string_view value;
};

using metric_labels = std::initializer_list<metric_label>;

class exposition {
public:
    explicit exposition(exposition_format format)
        : format_(format)
    {}

    // Begins a family. Its samples follow, before the next family begins.
    void begin(const metric_family &family);

    void sample(metric_labels labels, uint64_t value);
    void sample(metric_labels labels, double value);
    void samples(metric_labels labels, const duration_histogram::reading &durations);

    // Ends the text and returns it.
    std::string take();

private:
    void put_name(std::string_view suffix, metric_labels labels, metric_label last = {});
    void put_label(const metric_label &label, char before);
    template <typename Value>
    void put_value(Value value);

    exposition_format format_;
    metric_family family_ = {};
    std::string text_;
};

} // namespace l2fibd
