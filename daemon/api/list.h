// SPDX-License-Identifier: Apache-2.0

// Lists that are read and sent piece by piece: a source gives items as JSON, a stream puts them between brackets and
// stops at a limit. At most one page of items is in memory.
//
//     {"l2fib-mac:NAME": [ items ], "l2fib-mac:next-cursor": TEXT, "l2fib-mac:completeness": "whole"}
//
// A list that fails after its first piece ends with the reason and without its last bracket, so that nobody takes it
// for a whole one:
//
//     {"l2fib-mac:NAME": [ items ], "ietf-restconf:errors": {"error": [...]}
//
// Threads: a source and its stream belong to one request.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "daemon/api/api_error.h"
#include "daemon/api/json_writer.h"
#include "forwarding/forwarding.h"

namespace l2fibd {

inline constexpr uint32_t page_items = 200;

class list_source {
public:
    list_source() = default;
    list_source(const list_source &) = delete;
    list_source &operator=(const list_source &) = delete;
    virtual ~list_source() = default;

    // What a page ended with.
    struct position {
        std::string key;    // to go on after its last item: a continuation before it is made fit for a URI
        uint32_t count = 0; // of its items
        bool more = false;  // whether items follow
    };

    // Writes the next items, at most `most`, which is from 1 to page_items. Throws api_error.
    virtual position fetch(uint32_t most, json_writer &json) = 0;
};

// A continuation as clients see it: numbers of objects mean something to the process that gave them out alone, so it
// names that process.
std::string continuation_of(const std::string &key);

// The key of a continuation. Throws api_error for a text that is none, and 410 for one of another process.
std::string key_of_continuation(const std::string &text);

class list_stream {
public:
    static constexpr uint64_t no_limit = UINT64_MAX;

    // `name` is that of the list, a literal.
    list_stream(std::string_view name, std::unique_ptr<list_source> source, uint64_t limit);

    // Appends the next piece of the whole JSON text. Throws api_error for the first piece; a later one becomes the
    // list's failure.
    void write_next(std::string &text);
    bool finished() const { return is_finished_; }

    // What the list is worth so far. Its making is watched from the stream's creation on, so the table is brought up to
    // date before that, and read after it.
    forwarding::completeness worst() const { return watch_.worst(); }

    // Why a finished list was cut; empty: it is whole.
    const std::string &failure() const { return failure_; }

private:
    void write_page(json_writer &json);
    void write_end(json_writer &json, const list_source::position &at) const;
    void write_failure(json_writer &json, const api_error &error);

    std::string_view list_name_;
    std::unique_ptr<list_source> items_;
    uint64_t left_;
    bool has_begun_ = false;
    bool has_items_ = false;
    bool is_finished_ = false;
    std::string failure_ = {};
    forwarding::completeness_watch watch_ = {};
};

// The members `completeness` and, unless the answer is whole, `completeness-reason`.
void write_completeness(json_writer &json, const forwarding::completeness_watch &watch);

} // namespace l2fibd
