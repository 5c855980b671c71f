// SPDX-License-Identifier: Apache-2.0

#include "host/database/reply_list.h"

#include <algorithm>
#include <cerrno>
#include <utility>

#include "host/out_of_memory.h"

namespace {

// The list that the handler on this thread may use.
thread_local optree_list *offered = nullptr;

uint32_t refuse()
{
    host::counters.list_refusals++;
    return EINVAL;
}

bool is_usable(const optree_list *list, bool has_data)
{
    return list != nullptr && list == offered && list->has_data == has_data;
}

bool is_item(const char *name, uint32_t data_type, uint32_t reserved)
{
    return name != nullptr && *name != '\0' && data_type == EDM_DATA_TYPE_PARCEL && reserved == 0;
}

uint32_t add(optree_list *list, const char *name, std::span<const uint8_t> data)
{
    return host::or_out_of_memory([&]() -> uint32_t {
        host::reply_list_append(*list, name, data);
        return 0;
    });
}

uint32_t set_more(optree_list *list, bool has_data)
{
    if (!is_usable(list, has_data)) {
        return refuse();
    }
    list->more = true;
    return 0;
}

// Only ends the offer. The database still owns the list, and destroys it with the request.
uint32_t free_list(const optree_list *list, bool has_data)
{
    if (!is_usable(list, has_data)) {
        return refuse();
    }
    offered = nullptr;
    host::counters.lists_freed++;
    return 0;
}

} // namespace

optree_list::optree_list(bool with_data)
    : has_data(with_data)
{
    host::counters.lists_created++;
    host::counters.live_lists++;
}

optree_list::~optree_list()
{
    host::counters.live_lists--;
}

void host::reply_list_append(optree_list &list, std::string_view name, std::span<const uint8_t> data)
{
    auto *place = static_cast<uint8_t *>(list.memory.allocate(name.size() + data.size(), 1));
    std::copy(data.begin(), data.end(), place);
    std::copy(name.begin(), name.end(), place + data.size());
    const char *copied_name = reinterpret_cast<const char *>(place + data.size());
    list.items.push_back({{copied_name, name.size()}, {place, data.size()}});
}

void host::reply_list_offer(optree_list &list)
{
    offered = &list;
}

bool host::reply_list_withdraw()
{
    return std::exchange(offered, nullptr) != nullptr;
}

uint32_t optree_edm_list_add(optree_list_t *list, const char *name, uint32_t data_type, uint32_t reserved)
{
    if (!is_usable(list, false)) {
        return refuse();
    }
    return is_item(name, data_type, reserved) ? add(list, name, {}) : EINVAL;
}

uint32_t optree_edm_datalist_add(optree_list_t *list, const char *name, uint32_t data_type, uint32_t reserved,
                                 const void *data, uint32_t length)
{
    if (!is_usable(list, true)) {
        return refuse();
    }
    if (!is_item(name, data_type, reserved) || data == nullptr || length == 0) {
        return EINVAL;
    }
    return add(list, name, {static_cast<const uint8_t *>(data), length});
}

uint32_t optree_edm_list_set_more_flag(optree_list_t *list)
{
    return set_more(list, false);
}

uint32_t optree_edm_datalist_set_more_flag(optree_list_t *list)
{
    return set_more(list, true);
}

uint32_t optree_edm_list_free(optree_list_t *list)
{
    return free_list(list, false);
}

uint32_t optree_edm_datalist_free(optree_list_t *list)
{
    return free_list(list, true);
}
