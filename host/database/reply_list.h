// SPDX-License-Identifier: Apache-2.0

// A reply list: the items of one answer, as a handler adds them.
//
// The database offers a list to the handler of a request, on the thread that serves the request. Only this thread can
// use the list, and only until the handler frees it or returns. The optree_edm_ functions refuse other lists with
// EINVAL. They also refuse a datalist where a list belongs, and the reverse.
//
//   offered --- handler fills the list, hands it back ---> answer
//      '------- handler fails, frees the list -----------> offer ended; the database destroys the list later
//
// A list keeps its items, names and data in memory blocks of its own, which its destruction releases.
//
// Threads: the database offers and withdraws a list on the thread that serves the request. Any thread may destroy it.
#pragma once

#include <atomic>
#include <memory_resource>
#include <span>
#include <string_view>
#include <vector>

#include "host/database/operational_db_host.h"
#include "platform/operational_db.h"

struct optree_list {
    static constexpr size_t first_bytes = size_t{24} * 1024; // of the first piece of memory

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

// The counters behind operational_get_statistics.
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

// Lets the handler that runs on this thread use the list, in place of any list before.
void reply_list_offer(optree_list &list);

// Ends the offer. False if the handler freed the list.
bool reply_list_withdraw();

} // namespace host
