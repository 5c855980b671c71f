// SPDX-License-Identifier: Apache-2.0

// The requester's side of the operational database.
//
// A request names a path (docs/operational-paths.md) and a kind. It travels to the data manager that has registered for
// the path, is answered there by one handler at a time, and comes back as a page: items, each a name and, but for a
// list, an encoded record (parcel_host.h reads it).
//
//   list       the names of the items             datalist   the names and the records
//   get        one item without a name            action     no item
//
// Long answers come in pages. A page whose `more` is set is continued by a request that starts after its last item.
// operational_read and a session do that by themselves; they hold one page at a time.
//
// One address may stand on several ports of a bridge domain, and these items share one name. A handler continues after
// the first item with a name, so a page that ends on a later one is followed by items that were delivered before. If a
// read goes round because of that, it ends with ELOOP: some items came more than once, those behind never. A table that
// changes while it is read does not end a read so (round_watch.h). The list of one port never goes round.
//
// Time-outs. A request that is not answered in time ends with ETIMEDOUT, counted for each page from the moment it was
// asked for; a handler that waits for the forwarding plane may move the deadline. A request may be made before any data
// manager has registered: it waits for one within the same time. Whatever answers after the end is dropped.
//
// Failures. A page with a status other than 0 has a text for the operator, no items, and is the last. The status is the
// handler's own (l2fib_mac_edm.h) or an error number: EINVAL for a path or an argument that is wrong, ENOSYS when the
// data manager lacks the handler, ESHUTDOWN when its thread has ended, ECANCELED, EDEADLK on the thread that would have
// to answer, EPROTO when a handler broke its contract, ELOOP when a read goes round. A continuation whose item has gone
// meanwhile ends with the handler's status: what was delivered before was right.
//
// Threads: any; a session and a page belong to one thread at a time, only operational_cancel is for all. What runs out
// of memory throws std::bad_alloc.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "platform/export.h"

namespace host {

enum class request_kind : uint8_t { list, datalist, get, action };

constexpr uint32_t all_items = UINT32_MAX;

struct operational_request {
    std::string path;
    request_kind kind = request_kind::datalist;

    // The most items wanted, over all pages. 0 is passed on as it is: it is no limit for the MAC table and nothing at
    // all for the aging order and the tunnel end points.
    uint32_t count = all_items;

    // The name of the item after which to begin; for a list or datalist.
    std::optional<std::string> start_key = std::nullopt;

    uint32_t timeout_seconds = 30;
};

struct operational_item {
    std::string_view name;
    std::span<const uint8_t> data;
};

struct operational_page {
    uint32_t status = 0;
    std::string text = {}; // what is wrong
    std::span<const operational_item> items = {};
    bool more = false;
    std::shared_ptr<const void> content = nullptr; // what the items are views of
};

// Makes one request and waits for its page.
L2FIB_EXPORT operational_page operational_query(const operational_request &request);

struct operational_outcome {
    uint32_t status;
    std::string text;
    uint64_t item_count; // of the pages delivered
};

// Takes a page; false when it wants no more of them.
using operational_visitor = std::function<bool(const operational_page &page)>;

// Reads to the end, page by page. Pages that failed are not visited; they are the outcome.
L2FIB_EXPORT operational_outcome operational_read(const operational_request &request, const operational_visitor &visit);

// A request whose pages are taken one by one.
struct operational_session;

struct operational_session_closer {
    L2FIB_EXPORT void operator()(operational_session *session) const;
};

// Closing a session whose request is under way abandons the request.
using operational_session_ptr = std::unique_ptr<operational_session, operational_session_closer>;

// Starts the request for the first page and returns without waiting.
L2FIB_EXPORT operational_session_ptr operational_open(const operational_request &request);

// Waits for the next page. False, and nothing stored, after the last one.
L2FIB_EXPORT bool operational_next(operational_session &session, operational_page &page);

// Ends a session from any thread: its next page, which may be waited for, is an ECANCELED.
L2FIB_EXPORT void operational_cancel(operational_session &session);

// What a status means, for an operator.
L2FIB_EXPORT std::string operational_status_text(uint32_t status);

// How often what has happened, and what is there now. Every list that was created ends in one of three ways.
struct operational_statistics {
    uint64_t lists_created;
    uint64_t lists_answered;  // handed back by a handler
    uint64_t lists_freed;     // by a handler that failed
    uint64_t lists_abandoned; // by a handler that failed without freeing it, or was missing; the database freed it
    uint64_t list_refusals;   // uses of a list that was freed, is somebody else's or of the other kind
    uint64_t answers_dropped; // came too late
    uint64_t live_lists;      // in a handler, on the way, or kept by a page
    uint64_t live_requests;   // under way
};

L2FIB_EXPORT operational_statistics operational_get_statistics();

} // namespace host
