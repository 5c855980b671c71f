// SPDX-License-Identifier: Apache-2.0

// Peers that keep an ordered tree for each port. All of them are one table with different containers:
//
//                      entries of a port, by address    entries by bridge domain and address
//      full            absl::btree_map                  boost::unordered_flat_map
//      map of maps     std::map                         none: a lookup searches each port
//      intrusive AVL   boost::intrusive::avl_set        boost::intrusive::unordered_set
//
// Like ours, the table keeps a list of all entries in the order of their creation, takes a recursive lock for each fed
// entry, stamps it, and checks whether its address was on another port of the bridge domain.
#include <absl/container/btree_map.h>
#include <boost/intrusive/avl_set.hpp>
#include <boost/intrusive/list.hpp>
#include <boost/intrusive/unordered_set.hpp>
#include <boost/unordered/unordered_flat_map.hpp>

#include <map>
#include <mutex>

#include "bench/table/contestant.h"
#include "bench/table/page.h"
#include "platform/utility.h"

namespace bench {

namespace {

namespace intrusive = boost::intrusive;

using plain_link = intrusive::link_mode<intrusive::normal_link>;
using list_hook = intrusive::list_base_hook<plain_link>;
using tree_hook = intrusive::avl_set_base_hook<plain_link>;
using index_hook = intrusive::unordered_set_base_hook<plain_link>;

// What a feed stores and a lookup returns.
struct stored : list_hook {
    uint64_t address;
    uint64_t stamp;
    uint32_t xcid;
    uint16_t domain;
    uint16_t flags;
    bool is_marked;
};

// ---- The entries of a port by address

struct mapped_record : stored {};

template <typename Map>
struct mapped_port {
    using record = mapped_record;
    Map entries;

    void insert(record &added) { entries.emplace(added.address, &added); }
    void erase(record &removed) { entries.erase(removed.address); }
    void clear() { entries.clear(); }
    auto begin() { return entries.begin(); }
    auto end() { return entries.end(); }
    auto after(uint64_t address) { return entries.upper_bound(address); }
    auto find(uint64_t address) { return entries.find(address); }
    static record &at(auto where) { return *where->second; }
};

using btree_port = mapped_port<absl::btree_map<uint64_t, mapped_record *>>;
using map_port = mapped_port<std::map<uint64_t, mapped_record *>>;

struct avl_port {
    struct record : stored, tree_hook, index_hook {};
    struct key_of_record {
        using type = uint64_t;
        uint64_t operator()(const record &of) const { return of.address; }
    };
    intrusive::avl_set<record, intrusive::key_of_value<key_of_record>> entries;

    avl_port() = default;
    avl_port(avl_port &&) = default;
    avl_port(const avl_port &) = delete;
    avl_port &operator=(const avl_port &) = delete;
    ~avl_port() { clear(); }
    void insert(record &added) { entries.insert(added); }
    void erase(record &removed) { entries.erase(entries.iterator_to(removed)); }
    void clear() { entries.clear(); }
    auto begin() { return entries.begin(); }
    auto end() { return entries.end(); }
    auto after(uint64_t address) { return entries.upper_bound(address); }
    auto find(uint64_t address) { return entries.find(address); }
    static record &at(auto where) { return *where; }
};

// ---- All entries by bridge domain and address

template <typename Record>
struct flat_index {
    boost::unordered_flat_map<uint64_t, Record *> entries;

    Record *find(uint64_t key) const
    {
        const auto found = entries.find(key);
        return found == entries.end() ? nullptr : found->second;
    }
    void insert(Record &added) { entries.emplace(domain_key(added.domain, added.address), &added); }
    void erase(Record &removed) { entries.erase(domain_key(removed.domain, removed.address)); }
    void clear() { entries = {}; }
};

// A chained hash whose array doubles when it holds as many entries as buckets.
template <typename Record>
struct intrusive_index {
    struct hash_of_key {
        size_t operator()(uint64_t key) const
        {
            constexpr uint64_t odd = 0x9e3779b97f4a7c15;
            constexpr uint32_t half = 32;
            return (key * odd) >> half;
        }
    };
    struct key_of_record {
        using type = uint64_t;
        uint64_t operator()(const Record &of) const { return domain_key(of.domain, of.address); }
    };
    using set_type = intrusive::unordered_set<Record, intrusive::key_of_value<key_of_record>,
                                              intrusive::hash<hash_of_key>, intrusive::power_2_buckets<true>>;
    static constexpr size_t first_buckets = 1024;
    std::vector<typename set_type::bucket_type> buckets{first_buckets};
    set_type entries{typename set_type::bucket_traits(buckets.data(), buckets.size())};

    ~intrusive_index() { entries.clear(); }
    intrusive_index() = default;
    intrusive_index(const intrusive_index &) = delete;
    intrusive_index &operator=(const intrusive_index &) = delete;

    Record *find(uint64_t key)
    {
        const auto found = entries.find(key);
        return found == entries.end() ? nullptr : &*found;
    }
    void insert(Record &added)
    {
        if (entries.size() == buckets.size()) {
            resize(2 * buckets.size());
        }
        entries.insert(added);
    }
    void erase(Record &removed) { entries.erase(entries.iterator_to(removed)); }
    void clear()
    {
        entries.clear();
        resize(first_buckets);
    }

private:
    void resize(size_t count)
    {
        std::vector<typename set_type::bucket_type> other(count);
        entries.rehash(typename set_type::bucket_traits(other.data(), other.size()));
        buckets.swap(other);
    }
};

template <typename Record>
struct no_index {};

// Without an index, a feed of a million entries searches the ports for a quarter of a minute.
constexpr size_t largest_without_index = 100'000;

template <typename Port, template <typename> typename Index>
class ported_table final : public contestant {
    using record = typename Port::record;
    static constexpr bool is_indexed = requires(Index<record> of, record each) { of.insert(each); };

public:
    explicit ported_table(const char *name)
        : called_(name)
    {}
    ~ported_table() override { remove_entries(); }

    const char *name() const override { return called_; }
    size_t capacity() const override { return is_indexed ? SIZE_MAX : largest_without_index; }

    bool open(layout over) override
    {
        for (uint32_t domain = 1; domain <= over.domains; domain++) {
            for (uint32_t port = 0; port < over.ports; port++) {
                const uint32_t xcid = xcid_of(domain, port);
                const auto added = ports_.emplace(xcid, std::make_unique<Port>()).first;
                domains_[domain].emplace(xcid, added->second.get());
            }
        }
        return true;
    }

    void close() override
    {
        remove_entries();
        domains_.clear();
        ports_.clear();
    }

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
        return answer(asked, [this](const entry &of) { return find(of.bridge_id, address_of(of.mac_addr)); });
    }

    uint64_t look_up_by_port(entries asked) override
    {
        return answer(asked, [this](const entry &of) { return find_on_port(of.xcid, address_of(of.mac_addr)); });
    }

    uint64_t successors(entries asked) override
    {
        return answer(asked, [this](const entry &of) -> const record * {
            Port &port = *ports_.find(of.xcid)->second;
            const auto next = port.after(address_of(of.mac_addr));
            return next == port.end() ? nullptr : &Port::at(next);
        });
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
        for (auto &[domain, of_domain] : domains_) {
            for (auto &[xcid, port] : of_domain) {
                for (auto at = port->begin(); at != port->end(); ++at) {
                    visit(Port::at(at), &sum);
                }
            }
        }
        return sum;
    }

    uint64_t pages() override
    {
        uint64_t sum = 0;
        for (auto &[domain, of_domain] : domains_) {
            const std::string tail = name_tail(domain);
            const record *last = smallest_on_first_port(of_domain);
            while (last != nullptr && (last = fill_page(of_domain, last->domain, last->address, tail)) != nullptr) {
                sum = add_page(sum, page_);
            }
        }
        return sum;
    }

    uint64_t mark_all() override
    {
        const std::scoped_lock guard(lock_);
        for (stored &each : list_) {
            each.is_marked = true;
        }
        return 0;
    }

    uint64_t sweep_all() override
    {
        const std::scoped_lock guard(lock_);
        for (auto at = list_.begin(); at != list_.end();) {
            record &each = static_cast<record &>(*at++);
            if (each.is_marked) {
                ports_.find(each.xcid)->second->erase(each);
                remove(each);
            }
        }
        return 0;
    }

    uint64_t remove_domain(uint32_t domain) override
    {
        const std::scoped_lock guard(lock_);
        for (auto &[xcid, port] : domains_[domain]) {
            for (auto at = port->begin(); at != port->end();) {
                record &each = Port::at(at++);
                unlink(each);
                graves_.push_back(&each);
            }
            port->clear();
            for (record *each : graves_) {
                delete each;
            }
            graves_.clear();
        }
        return 0;
    }

private:
    using ports_of_domain = std::map<uint32_t, Port *>;

    // Not inlined, as the callback of a walk of ours is not.
    [[gnu::noinline]] static void visit(const record &each, uint64_t *sum)
    {
        *sum = add_in_order(*sum, each.address, each.xcid);
    }

    template <typename Find>
    uint64_t answer(entries asked, Find find_one)
    {
        const std::scoped_lock guard(lock_);
        return sum_of_answers(asked, find_one);
    }

    record *find_on_port(uint32_t xcid, uint64_t address)
    {
        Port &port = *ports_.find(xcid)->second;
        if constexpr (is_indexed) {
            record *found = index_.find(domain_key(xcid / xcids_of_domain, address));
            return found != nullptr && found->xcid == xcid ? found : nullptr;
        } else {
            const auto found = port.find(address);
            return found == port.end() ? nullptr : &Port::at(found);
        }
    }

    record *find(uint32_t domain, uint64_t address)
    {
        if constexpr (is_indexed) {
            return index_.find(domain_key(domain, address));
        } else {
            for (auto &[xcid, port] : domains_[domain]) {
                if (const auto found = port->find(address); found != port->end()) {
                    return &Port::at(found);
                }
            }
            return nullptr;
        }
    }

    void feed_one(const entry &fed)
    {
        const uint64_t address = address_of(fed.mac_addr);
        record *known = find(fed.bridge_id, address);
        if (known != nullptr && known->xcid == fed.xcid) {
            store(*known, fed);
            return;
        }
        if (known != nullptr) {
            ports_.find(known->xcid)->second->erase(*known);
            remove(*known);
        }
        create(fed, address);
    }

    void create(const entry &fed, uint64_t address)
    {
        auto *added = new record();
        added->address = address;
        added->xcid = fed.xcid;
        added->domain = fed.bridge_id;
        store(*added, fed);
        ports_.find(fed.xcid)->second->insert(*added);
        list_.push_back(*added);
        if constexpr (is_indexed) {
            index_.insert(*added);
        }
    }

    static void store(record &into, const entry &fed)
    {
        into.flags = fed.flags;
        into.stamp = fts_get_stamp_fast();
        into.is_marked = false;
    }

    void unlink(record &removed)
    {
        list_.erase(list_.iterator_to(removed));
        if constexpr (is_indexed) {
            index_.erase(removed);
        }
    }

    void remove(record &removed)
    {
        unlink(removed);
        delete &removed;
    }

    void remove_entries()
    {
        for (auto &[xcid, port] : ports_) {
            port->clear();
        }
        if constexpr (is_indexed) {
            index_.clear();
        }
        list_.clear_and_dispose([](stored *each) { delete static_cast<record *>(each); });
    }

    const record *smallest_after(uint32_t domain, uint64_t address)
    {
        const record *smallest = nullptr;
        for (auto &[xcid, port] : domains_[domain]) {
            const auto next = port->after(address);
            if (next != port->end() && (smallest == nullptr || Port::at(next).address < smallest->address)) {
                smallest = &Port::at(next);
            }
        }
        return smallest;
    }

    static const record *smallest_on_first_port(ports_of_domain &of)
    {
        for (auto &[xcid, port] : of) {
            if (port->begin() != port->end()) {
                return &Port::at(port->begin());
            }
        }
        return nullptr;
    }

    // Fills `page_` with the names behind an address. Returns the last entry of the page, or null if nothing follows.
    const record *fill_page(ports_of_domain &of, uint32_t domain, uint64_t address, const std::string &tail)
    {
        const std::scoped_lock guard(lock_);
        const record *last = nullptr;
        clear_page(page_);
        const record *resumed = find(domain, address);
        auto port = of.find(resumed->xcid);
        auto at = port->second->after(address);
        while (page_.items < page_size) {
            if (at == port->second->end()) {
                if (++port == of.end()) {
                    break;
                }
                at = port->second->begin();
                continue;
            }
            last = &Port::at(at);
            append_item(page_, last->address, tail);
            ++at;
        }
        return last;
    }

    const char *called_;
    std::recursive_mutex lock_;
    std::map<uint32_t, ports_of_domain> domains_;
    boost::unordered_flat_map<uint32_t, std::unique_ptr<Port>> ports_;
    intrusive::list<stored, intrusive::base_hook<list_hook>> list_;
    [[no_unique_address]] Index<record> index_;
    std::vector<record *> graves_;
    name_page page_;
};

} // namespace

std::unique_ptr<contestant> make_full()
{
    return std::make_unique<ported_table<btree_port, flat_index>>("full");
}

std::unique_ptr<contestant> make_map_of_maps()
{
    return std::make_unique<ported_table<map_port, no_index>>("std::map");
}

std::unique_ptr<contestant> make_intrusive_avl()
{
    return std::make_unique<ported_table<avl_port, intrusive_index>>("AVL + hash");
}

} // namespace bench
