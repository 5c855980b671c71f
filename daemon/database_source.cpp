// Pages of the operational database's lists.
//
// The table changes between two pages, and the entry that a page ended with may go. A stream that has begun then goes
// on after the newest entry of that page that is still there. Nothing is told twice: what stood between that entry and
// the end of the page has gone.

#include <algorithm>
#include <cstdio>
#include <utility>
#include <vector>

#include "daemon/database.h"
#include "daemon/records.h"
#include "daemon/sources.h"
#include "daemon/text.h"
#include "l2fib_mac_edm.h"
#include "platform/l2fib.h"

namespace l2fibd {

namespace {

using host::operational_page;

// What came of asking for the items after a key.
enum class outcome : uint8_t { page, nothing_follows, key_has_gone };

using parts = std::vector<std::string_view>;

std::string mac_path(const parts &key)
{
    unsigned words[3] = {};
    for (size_t i = 0; i < 3; i++) {
        words[i] = static_cast<unsigned>(parse_number(key[i], UINT16_MAX, 16).value_or(0));
    }
    char address[sizeof "aabb.ccdd.eeff"];
    std::snprintf(address, sizeof address, "%04hx.%04hx.%04hx", static_cast<unsigned short>(words[0]),
                  static_cast<unsigned short>(words[1]), static_cast<unsigned short>(words[2]));
    return domain_path(std::string(key[3]).append(":").append(key[4])) + "/mac/" + address;
}

std::string vtep_path(const parts &key)
{
    const auto number = static_cast<uint32_t>(parse_number(key[2], UINT32_MAX, 16).value_or(0));
    const uint8_t address[] = {static_cast<uint8_t>(number >> 24), static_cast<uint8_t>(number >> 16),
                               static_cast<uint8_t>(number >> 8), static_cast<uint8_t>(number)};
    return "mac-vtep/port/0x" + std::string(key[0]) + "/seg-info2/0x" + std::string(key[1]) + "/vtep/"
           + ip_text(address);
}

class database_source : public list_source {
public:
    explicit database_source(database_list of)
        : list(std::move(of))
    {}

    position fetch(uint32_t most, json_writer &json) override
    {
        operational_page page = next_page(most + 1);
        const auto items = new_items(page);
        const size_t count = std::min<size_t>(items.size(), most);
        names.begin_page();
        last_page.clear();
        for (size_t i = 0; i < count; i++) {
            write(json, *items[i]);
            last_page.emplace_back(items[i]->name);
        }
        if (count != 0) {
            list.start_key = last_page.back();
        }
        return {list.start_key.value_or(""), static_cast<uint32_t>(count), page.more || items.size() > count};
    }

private:
    // The page after the start key, or after the newest item before it that is still there. Empty at the end.
    operational_page next_page(uint32_t count)
    {
        operational_page page;
        outcome result = read(list.start_key, count, page);
        for (size_t i = last_page.size(); result == outcome::key_has_gone && i-- > 1;) {
            result = read(last_page[i - 1], count, page);
        }
        if (result == outcome::key_has_gone) {
            throw api_error{410, "data-missing", "cursor: the entry that it names has gone", list.restart};
        }
        return result == outcome::page ? std::move(page) : operational_page();
    }

    outcome read(const std::optional<std::string> &key, uint32_t count, operational_page &page) const
    {
        page = ask({.path = list.path, .count = count, .start_key = key});
        const uint32_t nothing_there = list.order == list_order::by_age ? EDM_ERR_BAD_REQUEST : EDM_ERR_NO_ITEM;
        if (page.status != 0 && page.status != nothing_there) {
            throw error_of(page);
        }
        if (!key) {
            return page.status == 0 ? outcome::page : outcome::nothing_follows;
        }
        return judge(*key, page.status != 0);
    }

    // Tells the answers apart that a list gives after a key.
    outcome judge(const std::string &key, bool has_failed) const
    {
        switch (list.order) {
        case list_order::by_age: return has_failed ? outcome::key_has_gone : outcome::page;
        case list_order::by_port: return has_failed ? outcome::nothing_follows : outcome::page;
        case list_order::by_vtep: return is_there(vtep_path(split(key, ','))) ? outcome::page : outcome::key_has_gone;
        default: break;
        }
        if (!has_failed) {
            return outcome::page;
        }
        return is_there(mac_path(split(key, ','))) ? outcome::nothing_follows : outcome::key_has_gone;
    }

    static bool is_there(const std::string &path)
    {
        const operational_page page = ask({.path = path, .kind = host::request_kind::get});
        if (page.status != 0 && !says_nothing_there(page)) {
            throw error_of(page);
        }
        return page.status == 0;
    }

    // The items that the last page has not had: all of them, but when an entry has gone and come back meanwhile.
    std::vector<const host::operational_item *> new_items(const operational_page &page) const
    {
        std::vector<const host::operational_item *> items;
        for (const host::operational_item &item : page.items) {
            if (std::ranges::find(last_page, item.name) == last_page.end()) {
                items.push_back(&item);
            }
        }
        return items;
    }

    void write(json_writer &json, const host::operational_item &item)
    {
        if (list.order == list_order::by_vtep) {
            write_vtep_item(json, item, names);
        } else {
            write_mac_item(json, item, names);
        }
    }

    database_list list;
    std::vector<std::string> last_page; // names of its items
    port_names names;
};

} // namespace

std::unique_ptr<list_source> make_database_source(database_list list)
{
    return std::make_unique<database_source>(std::move(list));
}

bool is_item_key(const std::string &key, list_order order)
{
    const auto fields = split(key, ',');
    const bool is_vtep = order == list_order::by_vtep;
    if (fields.size() != (is_vtep ? 3u : 5u)) {
        return false;
    }
    const bool has_numbers = std::all_of(fields.begin(), fields.begin() + 3, [is_vtep](std::string_view field) {
        return parse_number(field, is_vtep ? UINT32_MAX : UINT16_MAX, 16).has_value();
    });
    return has_numbers && (is_vtep || (!fields[3].empty() && !fields[4].empty()));
}

} // namespace l2fibd
