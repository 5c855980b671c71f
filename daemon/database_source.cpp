// Pages of the operational database's lists.
//
// The table changes between two pages. A list is continued after one item, by its name; when that item has gone, most
// lists fail, that of the tunnel end points leaves out the rest of a port without a word, and when it has moved, the
// list goes on at its new place, so that others are left out or told twice. What was told last is the only witness:
//
//     told          ... d  e  f  g            the trail
//     asked for              after f          answers g, h, i ...: all is well, and h is new
//                            after f          answers anything else: f or g has gone or moved
//                         after e             answers f or g, then what follows: so has only g
//
// So a page is asked for from before the trail's end, further back each time, until it begins with something of the
// trail. Nothing of the trail is told again. The list of a port is exact by itself: its order is the address alone.

#include <algorithm>
#include <cstdio>
#include <utility>
#include <vector>

#include "daemon/database.h"
#include "daemon/records.h"
#include "daemon/sources.h"
#include "daemon/text.h"
#include "l2fib_mac_edm.h"

namespace l2fibd {

namespace {

using host::operational_item;
using host::operational_page;

// How many items a continuation names. A shorter one names all since the beginning.
constexpr size_t cursor_items = 4;

// An item that was told, and where it stood: an entry that has moved is another.
struct told_item {
    uint32_t place; // the port; 0 where the name says it, or the order does not depend on it
    std::string name;
    bool operator==(const told_item &) const = default;
};

using trail = std::vector<told_item>;

std::string cursor_of(const trail &told)
{
    std::string cursor;
    for (size_t i = told.size() - std::min(told.size(), cursor_items); i < told.size(); i++) {
        cursor += (cursor.empty() ? "" : "\n") + std::to_string(told[i].place) + " " + told[i].name;
    }
    return cursor;
}

bool is_name(std::string_view name, const database_list &list)
{
    const bool is_vtep = list.order == list_order::by_vtep;
    const auto fields = split(name, ',');
    if (fields.size() != (is_vtep ? 3u : 5u)) {
        return false;
    }
    const bool has_numbers = std::all_of(fields.begin(), fields.begin() + 3, [is_vtep](std::string_view field) {
        return parse_number(field, is_vtep ? UINT32_MAX : UINT16_MAX, 16).has_value();
    });
    if (!has_numbers || is_vtep) {
        return has_numbers;
    }
    const std::string domain = std::string(fields[3]).append(":").append(fields[4]);
    return (list.domain.empty() || list.domain == domain) && (list.mac.empty() || list.mac == mac_of_item(name));
}

trail trail_of(const database_list &list)
{
    trail told;
    if (!list.cursor) {
        return told;
    }
    for (const std::string_view line : split(*list.cursor, '\n')) {
        const size_t space = line.find(' ');
        const auto place = parse_number(line.substr(0, space), UINT32_MAX);
        if (!place || space == std::string_view::npos || !is_name(line.substr(space + 1), list)
            || told.size() == cursor_items) {
            throw unexpected("cursor", base64url_encode(*list.cursor), "a next-cursor of this list");
        }
        told.push_back({static_cast<uint32_t>(*place), std::string(line.substr(space + 1))});
    }
    return told;
}

class database_source : public list_source {
public:
    explicit database_source(database_list of)
        : list_(std::move(of))
        , told_(trail_of(list_))
        , is_since_beginning_(told_.size() < cursor_items)
    {}

    position fetch(uint32_t most, json_writer &json) override
    {
        const operational_page page = next_page(most + 1);
        const auto items = new_items(page);
        const size_t count = std::min<size_t>(items.size(), most);
        names_.begin_page();
        for (size_t i = 0; i < count; i++) {
            write(json, *items[i]);
            told_.push_back(as_told(*items[i]));
        }
        if (told_.size() > page_items) {
            told_.erase(told_.begin(), told_.end() - page_items);
            is_since_beginning_ = false;
        }
        return {cursor_of(told_), static_cast<uint32_t>(count), page.more || items.size() > count};
    }

private:
    // A page with the items that follow the trail. Without items when none follow.
    operational_page next_page(uint32_t count)
    {
        if (told_.empty()) {
            return read(std::nullopt, count);
        }
        if (list_.order == list_order::by_port) {
            return read(told_.back().name, count);
        }
        const size_t farthest = told_.size() - (is_since_beginning_ ? 0 : 1);
        for (size_t back = std::min<size_t>(1, farthest); back != 0;
             back = back < farthest ? std::min(2 * back, farthest) : 0) {
            operational_page page = read(before(back), count + static_cast<uint32_t>(back));
            if (begins_with_told(page, back)) {
                return page;
            }
        }
        throw api_error{410, "data-missing", "cursor: the entries that it names have gone", list_.restart};
    }

    // The item before the last `back` of the trail; nothing when they are all since the beginning.
    std::optional<std::string> before(size_t back) const
    {
        return back < told_.size() ? std::optional(told_[told_.size() - back - 1].name) : std::nullopt;
    }

    bool begins_with_told(const operational_page &page, size_t back) const
    {
        return !page.items.empty()
               && std::find(told_.end() - static_cast<ptrdiff_t>(back), told_.end(), as_told(page.items.front()))
                      != told_.end();
    }

    operational_page read(const std::optional<std::string> &start, uint32_t count) const
    {
        operational_page page = ask({.path = list_.path, .count = count, .start_key = start});
        // The aging order has this one status for an item that has gone and for an empty table.
        const bool has_nothing = list_.order == list_order::by_age && page.status == EDM_ERR_BAD_REQUEST;
        if (page.status != 0 && !has_nothing && !says_nothing_there(page)) {
            throw error_of(page);
        }
        return page;
    }

    told_item as_told(const operational_item &item) const
    {
        return {list_.order == list_order::by_domain ? xcid_of(item.data) : 0, std::string(item.name)};
    }

    bool was_told(const operational_item &item) const
    {
        return std::ranges::find(told_, item.name, &told_item::name) != told_.end()
               && std::ranges::count(told_, as_told(item)) != 0;
    }

    std::vector<const operational_item *> new_items(const operational_page &page) const
    {
        std::vector<const operational_item *> items;
        for (const operational_item &item : page.items) {
            if (!was_told(item)) {
                items.push_back(&item);
            }
        }
        return items;
    }

    void write(json_writer &json, const operational_item &item)
    {
        if (list_.order == list_order::by_vtep) {
            write_vtep_item(json, item, names_);
        } else {
            write_mac_item(json, item, names_);
        }
    }

    database_list list_;
    trail told_; // the newest items, at most a page of them
    bool is_since_beginning_;
    port_names names_;
};

} // namespace

std::unique_ptr<list_source> make_database_source(database_list list)
{
    return std::make_unique<database_source>(std::move(list));
}

} // namespace l2fibd
