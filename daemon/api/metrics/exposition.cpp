// SPDX-License-Identifier: Apache-2.0

#include "daemon/api/metrics/exposition.h"

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <iterator>
#include <utility>

#include "base/text.h"
#include "base/visible.h"

namespace l2fibd {

namespace {

// ---- Formats ----

constexpr std::string_view open_metrics_type = "application/openmetrics-text";
constexpr std::string_view open_metrics_version = "1.0.0";
constexpr std::string_view text_type = "text/plain";

std::string_view trim(std::string_view text)
{
    const size_t begin = text.find_first_not_of(" \t");
    return begin == std::string_view::npos ? std::string_view()
                                           : text.substr(begin, text.find_last_not_of(" \t") - begin + 1);
}

// One part of the header `Accept`, such as "text/plain;version=0.0.4;q=0.5".
struct media_range {
    std::string_view type;
    std::string_view version = {};
    double quality = 1;
};

media_range parse_range(std::string_view text)
{
    const auto parts = base::split(text, ';');
    media_range range{trim(parts.front())};
    for (const std::string_view part : parts) {
        const std::string_view parameter = trim(part);
        if (parameter.starts_with("version=")) {
            range.version = parameter.substr(sizeof("version=") - 1);
        } else if (parameter.starts_with("q=")) {
            range.quality = std::strtod(std::string(parameter.substr(sizeof("q=") - 1)).c_str(), nullptr);
        }
    }
    return range;
}

bool is_open_metrics(const media_range &range)
{
    return range.type == open_metrics_type && (range.version.empty() || range.version == open_metrics_version);
}

// ---- Types ----

struct type_texts {
    metric_type type;
    std::string_view name;
    std::string_view suffix;    // of a sample
    std::string_view text_name; // of the type, in the text format
};

constexpr type_texts texts_of_types[] = {
    {metric_type::gauge, "gauge", "", "gauge"},
    {metric_type::counter, "counter", "_total", "counter"},
    {metric_type::histogram, "histogram", "", "histogram"},
    {metric_type::info, "info", "_info", "gauge"},
};

const type_texts &texts_of(metric_type type)
{
    return *std::ranges::find(texts_of_types, type, &type_texts::type);
}

} // namespace

exposition_format format_of(const char *accept)
{
    double text_quality = 0;
    double open_metrics_quality = 0;
    for (const std::string_view part : base::split(accept != nullptr ? accept : "", ',')) {
        const media_range range = parse_range(part);
        double &quality = is_open_metrics(range) ? open_metrics_quality : text_quality;
        if (is_open_metrics(range) || range.type == text_type) {
            quality = std::max(quality, range.quality);
        }
    }
    return open_metrics_quality > 0 && open_metrics_quality >= text_quality ? exposition_format::open_metrics
                                                                            : exposition_format::text;
}

const char *content_type_of(exposition_format format)
{
    return format == exposition_format::open_metrics ? "application/openmetrics-text; version=1.0.0; charset=utf-8"
                                                     : "text/plain; version=0.0.4; charset=utf-8";
}

// The text format counts the suffix of a sample as a part of the family's name, and knows no units.
void exposition::begin(const metric_family &family)
{
    const bool is_open = format_ == exposition_format::open_metrics;
    const type_texts &type = texts_of(family.type);
    family_ = family;
    std::string name(family.name);
    if (!is_open) {
        name += type.suffix;
    }
    text_ += "# TYPE " + name + " ";
    text_ += is_open ? type.name : type.text_name;
    if (is_open && !family.unit.empty()) {
        text_ += "\n# UNIT " + name + " ";
        text_ += family.unit;
    }
    text_ += "\n# HELP " + name + " ";
    text_ += family.help;
    text_ += '\n';
}

// visible() leaves no line end, so only the backslash and the quote need escapes.
void exposition::put_label(const metric_label &label, char before)
{
    text_ += before;
    text_ += label.name;
    text_ += "=\"";
    for (const char each : base::visible(label.value)) {
        if (each == '\\' || each == '"') {
            text_ += '\\';
        }
        text_ += each;
    }
    text_ += '"';
}

// `last` follows the other labels, if it has a name.
void exposition::put_name(std::string_view suffix, metric_labels labels, metric_label last)
{
    text_ += family_.name;
    text_ += suffix;
    char before = '{';
    for (const metric_label &label : labels) {
        put_label(label, std::exchange(before, ','));
    }
    if (!last.name.empty()) {
        put_label(last, std::exchange(before, ','));
    }
    text_ += before == ',' ? "} " : " ";
}

template <typename Value>
void exposition::put_value(Value value)
{
    constexpr size_t max_digits = 32;
    char digits[max_digits];
    text_.append(digits, std::to_chars(digits, digits + max_digits, value).ptr);
    text_ += '\n';
}

void exposition::sample(metric_labels labels, uint64_t value)
{
    put_name(texts_of(family_.type).suffix, labels);
    put_value(value);
}

void exposition::sample(metric_labels labels, double value)
{
    put_name(texts_of(family_.type).suffix, labels);
    put_value(value);
}

// The count of a bound covers all durations up to it.
void exposition::samples(metric_labels labels, const duration_histogram::reading &durations)
{
    uint64_t count = 0;
    for (size_t at = 0; at < durations.counts.size(); at++) {
        const bool is_bound = at < std::size(duration_bounds);
        count += durations.counts[at];
        put_name("_bucket", labels, {"le", is_bound ? duration_bounds[at].text : "+Inf"});
        put_value(count);
    }
    put_name("_sum", labels);
    put_value(std::chrono::duration<double>(durations.sum).count());
    put_name("_count", labels);
    put_value(count);
}

std::string exposition::take()
{
    if (format_ == exposition_format::open_metrics) {
        text_ += "# EOF\n";
    }
    return std::move(text_);
}

} // namespace l2fibd
