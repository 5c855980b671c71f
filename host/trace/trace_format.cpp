// SPDX-License-Identifier: Apache-2.0

#include <array>
#include <cstdarg>
#include <cstdio>

#include "base/text.h"
#include "host/clock.h"
#include "host/status_text.h"
#include "host/trace/trace_catalogue.h"
#include "host/trace/trace_reader.h"

namespace {

[[gnu::format(printf, 2, 3)]] void append(std::string &text, const char *format, ...)
{
    char piece[256];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(piece, sizeof(piece), format, arguments);
    va_end(arguments);
    text += piece;
}

void append_status(std::string &text, uint64_t status)
{
    constexpr uint64_t max_decimal = 0xffff; // error numbers are small, the module's own statuses are bit patterns
    append(text, status > max_decimal ? "0x%lx" : "%lu", status);
    const char *meaning = host::status_meaning(host::is_send_error(status) ? host::send_error_number(status) : status);
    if (status != 0 && meaning != nullptr) {
        append(text, " %s", meaning);
    }
}

void append_address(std::string &text, const uint64_t *words)
{
    std::array<uint8_t, size_t{2} * host::trace_address_values> address;
    for (size_t i = 0; i < host::trace_address_values; i++) {
        address[2 * i] = static_cast<uint8_t>(words[i]);
        address[2 * i + 1] = static_cast<uint8_t>(words[i] >> 8);
    }
    text += base::mac_text(address);
}

void append_value(std::string &text, host::trace_unit unit, const uint64_t *values)
{
    switch (unit) {
    case host::trace_unit::number: append(text, "%lu", *values); break;
    case host::trace_unit::hex: append(text, "0x%lx", *values); break;
    case host::trace_unit::status: append_status(text, *values); break;
    case host::trace_unit::address: append_address(text, values); break;
    }
}

// The row of a point: the one with its number of values, else the first of its id, else a row without names.
const host::trace_entry &entry_of(const host::trace_point &point)
{
    static constexpr host::trace_entry unknown{0, host::trace_ring::error, "no text for this id", {}};
    const host::trace_entry *first = nullptr;
    for (const host::trace_entry &entry : host::trace_catalogue) {
        if (entry.id == point.id && host::trace_value_count(entry) == point.value_count) {
            return entry;
        }
        if (entry.id == point.id && first == nullptr) {
            first = &entry;
        }
    }
    return first != nullptr ? *first : unknown;
}

void append_values(std::string &text, const host::trace_point &point)
{
    const host::trace_entry &entry = entry_of(point);
    const uint32_t count = std::min(point.value_count, EDM_TRACE_MAX_VALUES);
    const host::trace_value *value = entry.values;
    for (uint32_t i = 0; i < count; value++) {
        const bool explained = i < host::trace_value_count(entry) && value->name != nullptr;
        const bool whole =
            explained && (value->unit != host::trace_unit::address || i + host::trace_address_values <= count);
        append(text, "%s%s ", i == 0 ? ": " : ", ", explained ? value->name : "value");
        append_value(text, whole ? value->unit : host::trace_unit::hex, point.values + i);
        i += whole && value->unit == host::trace_unit::address ? host::trace_address_values : 1;
    }
}

void append_time(std::string &text, uint64_t time_ns)
{
    constexpr uint64_t ns_per_microsecond = 1000;
    std::string date = base::utc_text(static_cast<int64_t>(time_ns / host::ns_per_second));
    date.pop_back(); // the Z
    append(text, "%s.%06luZ", date.c_str(), time_ns % host::ns_per_second / ns_per_microsecond);
}

} // namespace

std::string host::trace_format(const trace_point &point)
{
    std::string text;
    append_time(text, point.time_ns);
    append(text, " [%u] %u %s: %s", point.thread_id, point.id, point.function != nullptr ? point.function : "?",
           entry_of(point).text);
    append_values(text, point);
    return text;
}
