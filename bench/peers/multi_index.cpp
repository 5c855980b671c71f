// SPDX-License-Identifier: Apache-2.0

// A peer on boost::multi_index: one container with three indexes, by port and address, by bridge domain and address,
// and in the order of creation.
#include <boost/multi_index/global_fun.hpp>
#include <boost/multi_index/hashed_index.hpp>
#include <boost/multi_index/ordered_index.hpp>
#include <boost/multi_index/sequenced_index.hpp>
#include <boost/multi_index_container.hpp>

#include <mutex>
#include <utility>

#include "bench/table/contestant.h"
#include "bench/table/page.h"
#include "platform/utility.h"

namespace bench {

namespace {

namespace mi = boost::multi_index;

struct record {
    uint64_t address;
    uint32_t xcid;
    uint16_t domain;
    // No index sees these, so a feed may write them in place.
    mutable uint16_t flags = 0;
    mutable bool is_marked = false;
    mutable uint64_t stamp = 0;
};

using position = std::pair<uint32_t, uint64_t>;

position position_of(const record &of)
{
    return {of.xcid, of.address};
}

uint64_t key_of_record(const record &of)
{
    return domain_key(of.domain, of.address);
}

struct by_position {};
struct by_domain {};
struct by_creation {};

using table = mi::multi_index_container<
    record,
    mi::indexed_by<mi::ordered_unique<mi::tag<by_position>, mi::global_fun<const record &, position, position_of>>,
                   mi::hashed_unique<mi::tag<by_domain>, mi::global_fun<const record &, uint64_t, key_of_record>>,
                   mi::sequenced<mi::tag<by_creation>>>>;

class multi_index_table final : public contestant {
public:
    const char *name() const override { return "multi_index"; }

    bool open(layout over) override
    {
        opened_ = over;
        return true;
    }

    void close() override { records_ = table(); }

    uint64_t feed(entries fed) override
    {
        for (const entry &each : fed) {
            const std::scoped_lock guard(lock_);
            feed_one(each);
        }
        return fed.size();
    }

    uint64_t look_up_by_domain(entries asked) override
    {
        return answer(asked, [this](const entry &of) { return find(of); });
    }

    uint64_t look_up_by_port(entries asked) override
    {
        return answer(asked, [this](const entry &of) {
            const record *found = find(of);
            return found != nullptr && found->xcid == of.xcid ? found : nullptr;
        });
    }

    uint64_t successors(entries asked) override
    {
        return answer(asked, [this](const entry &of) { return next_on_port(of.xcid, address_of(of.mac_addr)); });
    }

    uint64_t steps(uint32_t domain, size_t steps) override
    {
        const std::scoped_lock guard(lock_);
        return sum_of_steps(steps, [=, this](uint64_t address) { return smallest_after(domain, address); });
    }

    uint64_t walk() override
    {
        const std::scoped_lock guard(lock_);
        uint64_t sum = 0;
        for (const record &each : records_.get<by_position>()) {
            sum = add_in_order(sum, each.address, each.xcid);
        }
        return sum;
    }

    uint64_t pages() override
    {
        uint64_t sum = 0;
        for (uint32_t domain = 1; domain <= opened_.domains; domain++) {
            const std::string tail = name_tail(domain);
            const auto &index = records_.get<by_position>();
            const auto first = index.lower_bound(position{xcid_of(domain, 0), 0});
            const record *last = first == index.end() ? nullptr : &*first;
            while (last != nullptr && (last = fill_page(domain, *last, tail)) != nullptr) {
                sum = add_page(sum, page_);
            }
        }
        return sum;
    }

    uint64_t mark_all() override
    {
        const std::scoped_lock guard(lock_);
        for (const record &each : records_.get<by_creation>()) {
            each.is_marked = true;
        }
        return 0;
    }

    uint64_t sweep_all() override
    {
        const std::scoped_lock guard(lock_);
        auto &list = records_.get<by_creation>();
        for (auto at = list.begin(); at != list.end();) {
            at = at->is_marked ? list.erase(at) : std::next(at);
        }
        return 0;
    }

    uint64_t remove_domain(uint32_t domain) override
    {
        const std::scoped_lock guard(lock_);
        auto &index = records_.get<by_position>();
        index.erase(index.lower_bound(position{xcid_of(domain, 0), 0}),
                    index.lower_bound(position{xcid_of(domain + 1, 0), 0}));
        return 0;
    }

private:
    template <typename Find>
    uint64_t answer(entries asked, Find find_one)
    {
        const std::scoped_lock guard(lock_);
        return sum_of_answers(asked, find_one);
    }

    const record *find(const entry &of) const
    {
        const auto &index = records_.get<by_domain>();
        const auto found = index.find(domain_key(of.bridge_id, address_of(of.mac_addr)));
        return found == index.end() ? nullptr : &*found;
    }

    void feed_one(const entry &fed)
    {
        auto &index = records_.get<by_domain>();
        const uint64_t address = address_of(fed.mac_addr);
        auto known = index.find(domain_key(fed.bridge_id, address));
        if (known != index.end() && known->xcid != fed.xcid) {
            index.erase(known);
            known = index.end();
        }
        const record &stored = known != index.end()
                                   ? *known
                                   : *records_.get<by_creation>().push_back({address, fed.xcid, fed.bridge_id}).first;
        stored.flags = fed.flags;
        stored.is_marked = false;
        stored.stamp = fts_get_stamp_fast();
    }

    const record *next_on_port(uint32_t xcid, uint64_t address) const
    {
        const auto &index = records_.get<by_position>();
        const auto next = index.upper_bound(position{xcid, address});
        return next == index.end() || next->xcid != xcid ? nullptr : &*next;
    }

    const record *smallest_after(uint32_t domain, uint64_t address) const
    {
        const record *smallest = nullptr;
        for (uint32_t port = 0; port < opened_.ports; port++) {
            const record *next = next_on_port(xcid_of(domain, port), address);
            if (next != nullptr && (smallest == nullptr || next->address < smallest->address)) {
                smallest = next;
            }
        }
        return smallest;
    }

    // Fills `page_` with the names behind an entry. Returns the last entry of the page, or null if nothing follows.
    const record *fill_page(uint32_t domain, const record &behind, const std::string &tail)
    {
        const std::scoped_lock guard(lock_);
        const auto &index = records_.get<by_position>();
        const record *last = nullptr;
        clear_page(page_);
        for (auto at = index.upper_bound(position_of(behind));
             page_.items < page_size && at != index.end() && at->domain == domain; ++at) {
            last = &*at;
            append_item(page_, last->address, tail);
        }
        return last;
    }

    layout opened_ = {};
    std::recursive_mutex lock_;
    table records_;
    name_page page_;
};

} // namespace

std::unique_ptr<contestant> make_multi_index()
{
    return std::make_unique<multi_index_table>();
}

} // namespace bench
