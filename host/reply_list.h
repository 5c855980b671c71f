// A reply list: the items of one answer, as a handler adds them.
//
// The database offers a list to the handler of a request on the thread that serves it. Only this thread can use it, and
// only until the handler has freed it or returned; any other list, and a list of the other kind, is refused with
// EINVAL. All memory of a list lies in one growing piece that is released at once.
//
//   offered --- handler fills it, hands it back ---> answer
//      '------- handler fails, frees it -----------> gone
#pragma once

#include <memory_resource>
#include <span>
#include <string_view>
#include <vector>

#include "host/operational_db_host.h"
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

// Copies an item into a list. On std::bad_alloc the list is unchanged.
void reply_list_append(optree_list &list, std::string_view name, std::span<const uint8_t> data);

// Lets the handler that runs on this thread use the list, instead of any before.
void reply_list_offer(optree_list &list);

// Ends the offer. False when the handler freed the list.
bool reply_list_withdraw();

// Fills in what concerns lists; `lists_answered` and `lists_abandoned` are the database's.
void reply_list_statistics(operational_statistics &statistics);

} // namespace host
