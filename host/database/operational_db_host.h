// SPDX-License-Identifier: Apache-2.0

// The requester's side of the operational database, and the main header of this room: the database carries a request
// to the data manager, a handler of the data manager answers it, and the answer travels back as one page.
//
//      const host::operational_request request = {
//          .object = host::operational_object::mac_table,
//          .kind = host::request_kind::list,
//          .keys = {.domain = "campus:br0"},
//          .count = 10,
//      };
//      const host::operational_session_ptr session = host::operational_open(request);
//      const host::operational_page page = host::operational_wait(*session);
//
// A page holds items. An item has a name, an encoded record, or both:
//
//   list       the names of the items             datalist   the names and the records
//   get        one item without a name            action     no item
//
// docs/operational-requests.md lists the objects with their keys, and the encoding of the records.
//
// Pages. A list handler answers with one page. If `more` is set, the next request starts after the last item: its
// `start_key` is the name of that item. Items of one MAC address on several ports of a bridge domain share one name,
// and a handler continues after the first of them. A requester that reads on by names can therefore come back to a
// start key that it has used before; the list of one port never does that.
//
// Time-outs. A request ends with ETIMEDOUT if nobody answers it within `timeout_seconds` of operational_open. A handler
// that waits for the forwarding plane may move this deadline. A request without a data manager waits for one to
// register, within the same time. The database drops an answer that comes after the end.
//
// Failures. A page with a status other than 0 has no items, and a text for the operator. The status is the handler's
// own (l2fib_mac_edm.h) or an error number:
//
//   EINVAL       the request has wrong keys         ECANCELED    the requester cancelled
//   ENOSYS       the data manager has no handler    EDEADLK      the calling thread itself would have to answer
//   ESHUTDOWN    the data manager's thread ended    EPROTO       the handler broke its contract
//   ETIMEDOUT    no answer in time                  ENOMEM       out of memory on the data manager's thread
//
// Threads: any. One thread at a time uses a session; operational_cancel is the exception. Every function throws
// std::bad_alloc if the calling thread runs out of memory.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "platform/export.h"

namespace host {

enum class operational_object : uint8_t { mac_table, mac_aging, mac_count, mac_vtep, mac_action };

enum class request_kind : uint8_t { list, datalist, get, action };

// The keys of a request. Which keys an object takes depends on the kind of the request.
struct operational_keys {
    std::optional<std::string> domain = std::nullopt; // full name of a bridge domain, 1 to 63 characters
    std::optional<uint32_t> port = std::nullopt;      // xcid
    std::optional<std::array<uint8_t, 6>> mac_addr = std::nullopt;
    std::optional<uint32_t> vtep_addr = std::nullopt; // four bytes in network byte order, as they lie in memory
    std::optional<uint32_t> seg_info2 = std::nullopt;
    std::optional<uint32_t> seg_info1 = std::nullopt;
    bool only_flagged = false;
    bool resync_all = false; // resync the whole table first, not only the port
};

inline constexpr uint32_t all_items = UINT32_MAX;

inline constexpr uint32_t default_request_timeout_seconds = 30;

struct operational_request {
    operational_object object = operational_object::mac_table;
    request_kind kind = request_kind::datalist;
    operational_keys keys = {};

    // Maximum number of items. The handler receives a 0 as it is: the MAC table takes it as "no limit", the aging order
    // and the tunnel end points answer with no items.
    uint32_t count = all_items;

    // The page begins after the item of this name. Only for a list or datalist.
    std::optional<std::string> start_key = std::nullopt;

    uint32_t timeout_seconds = default_request_timeout_seconds;
};

struct operational_item {
    std::string_view name;
    std::span<const uint8_t> data; // the encoded record
};

struct operational_page {
    uint32_t status = 0;
    std::string text = {}; // for the operator, if the status is not 0
    std::span<const operational_item> items = {};
    bool more = false;
    std::shared_ptr<const void> content = nullptr; // owns the memory of the items
};

// One request, from operational_open until the session is closed.
struct operational_session;

struct operational_session_closer {
    L2FIB_EXPORT void operator()(operational_session *session) const;
};

// Closing a session that has no page yet cancels its request.
using operational_session_ptr = std::unique_ptr<operational_session, operational_session_closer>;

// Starts the request and returns without waiting. A wrong request shows in the page.
L2FIB_EXPORT operational_session_ptr operational_open(const operational_request &request);

// Waits for the page. Call it once for each session.
L2FIB_EXPORT operational_page operational_wait(operational_session &session);

// Ends the request with ECANCELED unless it has its page already. Any thread.
L2FIB_EXPORT void operational_cancel(operational_session &session);

// Describes a status for an operator.
L2FIB_EXPORT std::string operational_status_text(uint32_t status);

// Lifetime counters, and two gauges at the end. Every created list ends in exactly one of the next three ways.
struct operational_statistics {
    uint64_t lists_created;
    uint64_t lists_answered;  // the handler handed the list back
    uint64_t lists_freed;     // the handler failed and freed the list
    uint64_t lists_abandoned; // the handler failed without freeing the list, or there was none; the database freed it
    uint64_t list_refusals;   // uses of a list that was freed, belongs to another request, or is of the other kind
    uint64_t answers_dropped; // answers that came after the end of their request
    uint64_t live_lists;      // in a handler, under way, or held by a page
    uint64_t live_requests;   // under way
};

L2FIB_EXPORT operational_statistics operational_get_statistics();

} // namespace host
