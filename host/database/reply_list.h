// SPDX-License-Identifier: Apache-2.0

// A reply list: the items of one answer, as a handler adds them.
//
// The database offers a list to the handler of a request on the thread that serves it. Only this thread can use it, and
// only until the handler has freed it or returned; any other list, and a list of the other kind, is refused with
// EINVAL. All memory of a list lies in one growing piece that is released at once.
//
//   offered --- handler fills it, hands it back ---> answer
//      '------- handler fails, frees it -----------> gone
#pragma once

#include <atomic>
#include <memory_resource>
#include <span>
#include <string_view>
#include <vector>

#include "host/database/operational_db_host.h"
#include "platform/operational_db.h"

struct optree_list {
    static constexpr size_t first_bytes = size_t{24} * 1024;

    std::pmr::monotonic_buffer_resource memory{first_bytes};
    std::pmr::vector<host::operational_item> items{&memory};
    const bool has_data;
    bool more = false;

    explicit optree_list(bool with_data);
    ~optree_list();
    optree_list(const optree_list &) = delete;
    optree_list &operator=(const optree_list &) = delete;
};

namespace host {

// What operational_get_statistics tells of the same names, counted where it happens.
struct operational_counters {
    std::atomic<uint64_t> lists_created;
    std::atomic<uint64_t> lists_answered;
    std::atomic<uint64_t> lists_freed;
    std::atomic<uint64_t> lists_abandoned;
    std::atomic<uint64_t> list_refusals;
    std::atomic<uint64_t> answers_dropped;
    std::atomic<uint64_t> live_lists;
    std::atomic<uint64_t> live_requests;
};

inline constinit operational_counters counters{};

// Copies an item into a list. On std::bad_alloc the list is unchanged.
void reply_list_append(optree_list &list, std::string_view name, std::span<const uint8_t> data);

// Lets the handler that runs on this thread use the list, instead of any before.
void reply_list_offer(optree_list &list);

// Ends the offer. False when the handler freed the list.
bool reply_list_withdraw();

} // namespace host
