// SPDX-License-Identifier: Apache-2.0

// Lists that are read and sent page by page. A source writes items as JSON. A stream writes the brackets around them
// and stops at a limit. At most one page of items is in memory.
//
//      {"l2fib-mac:NAME": [ items ], "l2fib-mac:next-cursor": TEXT, "l2fib-mac:completeness": "whole"}
//
// If a list fails after its first page, it ends with the reason and without its last brace. So no client takes it for a
// whole list:
//
//      {"l2fib-mac:NAME": [ items ], "ietf-restconf:errors": {"error": [...]}
//
// Threads: a source and its stream belong to one request.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "daemon/api/answer_stream.h"
#include "daemon/api/database.h"
#include "daemon/api/json/api_error.h"
#include "daemon/api/json/json_writer.h"
#include "forwarding/forwarding.h"

namespace l2fibd {

// Items of a page. The table's lock is released between two pages.
inline constexpr uint32_t max_page_items = 200;

class list_source {
public:
    list_source() = default;
    list_source(const list_source &) = delete;
    list_source &operator=(const list_source &) = delete;
    virtual ~list_source() = default;

    // Where a page ended.
    struct position {
        std::string key;    // names the last item's place to this source: cursor_of() makes a cursor from it
        uint32_t count = 0; // of the page's items
        bool more = false;  // items follow
    };

    // Writes the next items, at most `max_items`, which is from 1 to max_page_items. Throws api_error.
    virtual position fetch(uint32_t max_items, json_writer &json) = 0;

    // Writes members of the answer that follow the list and are of this list only.
    virtual void write_members(json_writer & /*json*/) const {}
};

// A cursor for clients: the key, marked with this process and encoded for a URI. The mark is needed because the key
// holds numbers of objects, which another process gives to other objects.
std::string cursor_of(const std::string &key);

// The key of a cursor. Throws api_error: 400 if the text is no cursor, 410 if another process made it.
std::string key_of_cursor(const std::string &text);

// The error for a cursor that is none, or that another list made.
api_error wrong_cursor(const std::string &text);

class list_stream final : public answer_stream {
public:
    static constexpr uint64_t no_limit = UINT64_MAX;

    // `name` is a literal. When `resyncs` is given up, the list fails before its next page.
    list_stream(std::string_view name, std::unique_ptr<list_source> source, uint64_t limit,
                const resync_requester &resyncs);

    // Replaces `text` by the next page of the JSON text. On the first page, throws api_error. On a later one, an error
    // becomes the list's failure.
    void write_next(std::string &text) override;
    bool finished() const override { return is_finished_; }

    // The worst completeness since the stream was created. Bring the table up to date before you create the stream.
    forwarding::completeness worst() const { return watch_.worst(); }

    const std::string &failure() const override { return failure_; }

private:
    void write_page(json_writer &json);
    void write_page_or_failure(json_writer &json);
    void write_end(json_writer &json, const list_source::position &at) const;
    void write_failure(json_writer &json, const api_error &error);

    std::string_view list_name_;
    std::unique_ptr<list_source> source_;
    const resync_requester &resyncs_;
    uint64_t left_; // items until the limit
    bool has_begun_ = false;
    bool has_items_ = false;
    bool is_finished_ = false;
    std::string failure_ = {};
    forwarding::completeness_watch watch_ = {};
};

// Writes the member `completeness` and, unless the answer is whole, `completeness-reason`.
void write_completeness(json_writer &json, const forwarding::completeness_watch &watch);

} // namespace l2fibd
