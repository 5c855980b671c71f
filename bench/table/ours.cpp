// SPDX-License-Identifier: Apache-2.0

// The data manager as a contestant: the exported interface on the host platform. It runs without its threads, so the
// pages call the handler that the module registers. The functions of the operational database below replace the host's:
// they hand the names of a page to the benchmark instead of a requester.
//
// A process has one table, so two contestants of this kind are never open at the same time.
#include <cstdlib>
#include <stdexcept>

#include "bench/table/contestant.h"
#include "bench/table/page.h"
#include "host/objects/l2fib_objects.h"
#include "l2fm_edm_table.h"
#include "platform/l2fib.h"
#include "platform/operational_db.h"

namespace {

edm_mac_list_fn mac_list;

optree_list_t *list_of(bench::name_page &page)
{
    return reinterpret_cast<optree_list_t *>(&page);
}

bench::name_page &page_of(optree_list_t *list)
{
    return *reinterpret_cast<bench::name_page *>(list);
}

} // namespace

uint32_t l2fib_show_mac_edm_fn_init(const l2fib_hw_edm_handler_table_t *table)
{
    mac_list = table->mac_list;
    return 0;
}

uint32_t optree_edm_list_add(optree_list_t *list, const char *name, uint32_t, uint32_t)
{
    bench::append_name(page_of(list), name);
    return 0;
}

uint32_t optree_edm_list_set_more_flag(optree_list_t *)
{
    return 0;
}

// The handler frees a list that gets no item. The page belongs to the benchmark.
uint32_t optree_edm_list_free(optree_list_t *)
{
    return 0;
}

namespace bench {

namespace {

void expect_success(uint32_t status, const char *what)
{
    if (status != 0) {
        throw std::runtime_error(std::string(what) + " failed with status " + std::to_string(status));
    }
}

struct locked {
    locked() { l2fib_mac_edm_mutex_lock(); }
    ~locked() { l2fib_mac_edm_mutex_unlock(); }
    locked(const locked &) = delete;
    locked &operator=(const locked &) = delete;
};

uint32_t add_visited(l2fm_edm_mac_t *mac, void *sum)
{
    auto &to = *static_cast<uint64_t *>(sum);
    to = add_in_order(to, address_of(mac->mac_addr), mac->xcid);
    return EDM_WALK_CONTINUE;
}

void create_objects(layout over)
{
    for (uint32_t domain = 1; domain <= over.domains; domain++) {
        expect_success(host::bridge_domain_set(domain, name_of(domain)), "bridge_domain_set");
        for (uint32_t port = 0; port < over.ports; port++) {
            const uint32_t xcid = xcid_of(domain, port);
            host::cross_connect values;
            values.first.type = L2FIB_SEGMENT_INTERFACE;
            values.first.interface_handle = xcid;
            expect_success(host::cross_connect_set(xcid, values), "cross_connect_set");
        }
    }
}

// Reads the next page of a bridge domain, which begins behind `key`. Returns false when no item follows.
bool read_page(const std::string &domain, const std::string &key, name_page &page)
{
    edm_list_req_t request = {};
    request.start_key = key.c_str();
    request.flags = EDM_LIST_KEY_GIVEN;
    request.count = page_size;
    optree_list_t *list = list_of(page);
    clear_page(page);
    return mac_list(0, domain.c_str(), nullptr, 0, 0, &request, &list) == 0 && page.items != 0;
}

class our_table final : public contestant {
public:
    const char *name() const override { return "ours"; }

    bool open(layout over) override
    {
        static uint32_t limit_cell;
        opened_ = over;
        create_objects(over);
        expect_success(l2fm_edm_table_init(), "l2fm_edm_table_init");
        expect_success(l2fib_mac_edm_defn_init(&limit_cell, UINT32_MAX), "l2fib_mac_edm_defn_init");
        expect_success(l2fib_hw_mac_addr_edm_fn_init(), "l2fib_hw_mac_addr_edm_fn_init");
        return true;
    }

    void close() override
    {
        expect_success(l2fm_edm_table_deinit(), "l2fm_edm_table_deinit");
        host::objects_clear();
    }

    uint64_t feed(entries fed) override
    {
        for (const entry &each : fed) {
            expect_success(l2fib_mac_edm_add(&each), "l2fib_mac_edm_add");
        }
        return fed.size();
    }

    uint64_t feed_batches(entries fed) override
    {
        uint32_t statuses[batch_size];
        for (size_t at = 0; at < fed.size(); at += batch_size) {
            const entries batch = fed.subspan(at, std::min(batch_size, fed.size() - at));
            expect_success(l2fib_mac_edm_add_batch(batch.data(), batch.size(), statuses), "l2fib_mac_edm_add_batch");
        }
        return fed.size();
    }

    uint64_t look_up_by_domain(entries asked) override
    {
        return answer(
            asked, [](const entry &of) { return l2fm_edm_table_mac_get_by_bridgeid_mac(of.bridge_id, of.mac_addr); });
    }

    uint64_t look_up_by_port(entries asked) override
    {
        return answer(asked, [](const entry &of) { return l2fm_edm_table_mac_get_by_xcid_mac(of.xcid, of.mac_addr); });
    }

    uint64_t successors(entries asked) override
    {
        return answer(asked, [](const entry &of) {
            const l2fm_edm_bp_t *bp = l2fm_edm_table_bp_get_by_xcid(of.xcid);
            return l2fm_edm_table_bp_macaddr_get_next(&bp->mac_tree, of.mac_addr);
        });
    }

    uint64_t steps(uint32_t domain, size_t steps) override
    {
        const locked lock;
        const std::string full_name = name_of(domain);
        uint8_t address[sizeof(entry::mac_addr)] = {};
        uint64_t sum = 0;
        for (size_t i = 0; i < steps; i++) {
            const l2fm_edm_mac_t *mac = l2fm_edm_table_mac_get_next_by_bdname_mac(full_name.c_str(), address);
            if (mac == nullptr) {
                break;
            }
            sum = add_in_order(sum, address_of(mac->mac_addr), mac->xcid);
            std::memcpy(address, mac->mac_addr, sizeof(address));
        }
        return sum;
    }

    uint64_t walk() override
    {
        uint64_t sum = 0;
        for (uint32_t domain = 1; domain <= opened_.domains; domain++) {
            expect_success(l2fm_edm_table_walk_all_macs_under_bd(add_visited, &sum, domain), "walk");
        }
        return sum;
    }

    uint64_t pages() override
    {
        uint64_t sum = 0;
        for (uint32_t domain = 1; domain <= opened_.domains; domain++) {
            const std::string full_name = name_of(domain);
            for (std::string key = first_name(domain); read_page(full_name, key, page_); key = last_name(page_)) {
                sum = add_page(sum, page_);
            }
        }
        return sum;
    }

    uint64_t mark_all() override { return l2fib_mac_edm_mark_all(); }
    uint64_t sweep_all() override { return l2fib_mac_edm_sweep_all(); }
    uint64_t remove_domain(uint32_t domain) override { return l2fm_edm_table_bd_destroy(domain); }

private:
    template <typename Find>
    static uint64_t answer(entries asked, Find find)
    {
        const locked lock;
        uint64_t sum = 0;
        for (const entry &each : asked) {
            if (const l2fm_edm_mac_t *found = find(each)) {
                sum = add_answer(sum, address_of(found->mac_addr), found->xcid);
            }
        }
        return sum;
    }

    std::string first_name(uint32_t domain)
    {
        const locked lock;
        const l2fm_edm_bd_t *bd = l2fm_edm_table_bd_get_by_bridgeid(domain);
        const l2fm_edm_bp_t *bp = l2fm_edm_table_bd_bp_get_first(bd);
        const l2fm_edm_mac_t *mac = nullptr;
        for (; bp != nullptr && mac == nullptr; bp = l2fm_edm_table_bd_bp_get_next(bd, bp)) {
            mac = l2fm_edm_table_bp_mac_get_first(bp);
        }
        clear_page(page_);
        if (mac != nullptr) {
            append_item(page_, address_of(mac->mac_addr), name_tail(domain));
        }
        return page_.text;
    }

    layout opened_ = {};
    name_page page_;
};

} // namespace

std::unique_ptr<contestant> make_ours()
{
    return std::make_unique<our_table>();
}

} // namespace bench
