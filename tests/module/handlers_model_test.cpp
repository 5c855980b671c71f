// SPDX-License-Identifier: Apache-2.0

// The handlers against the naive reference of the table. At random moments the operational database answers a request
// for each of them. The answer, read to its last page, is what the reference holds.
#include <array>
#include <cerrno>
#include <iomanip>
#include <set>
#include <sstream>

#include "tests/support/module/served_module.h"
#include "tests/support/table/reference_table.h"
#include "tests/support/words.h"

using namespace reference_table;
using host::request_kind;
using small_table::seg_info1_of;
using small_table::seg_info2_of;
using test::words;
using strings = std::vector<std::string>;

namespace {

const auto *const environment = testing::AddGlobalTestEnvironment(new served::running_module);

constexpr uint32_t bad = EDM_ERR_BAD_REQUEST;
constexpr uint32_t none = EDM_ERR_NO_ITEM;
constexpr size_t page_size = 200;

// Items as texts: a name, and what is compared of the record.
struct answer {
    uint32_t status = 0;
    strings items = {}; // of an endless list, up to its first repetition
};

std::string hex(uint64_t value, int digits = 1)
{
    std::ostringstream out;
    out << std::hex << std::setfill('0') << std::setw(digits) << value;
    return out.str();
}

// ---- What the database answers ----

// The values that are compared.
std::string text(const std::string &path, std::span<const uint8_t> data)
{
    static const strings of_count = {"mac_cnt_sum", "mac_cnt_plain", "mac_cnt_f2", "mac_cnt_f4", "mac_cnt_f60"};
    static const strings of_vtep = {"seg_info1", "seg_info2", "vtep_addr"};
    static const strings of_mac = {"mac_flags", "mac_flags2", "xcid",          "bridge_id", "bd_name",
                                   "seg_type",  "vtep_addr",  "vtep_seg_info", "prev_mac",  "next_mac"};
    const std::string record = test::record_text(data);
    std::string values;
    for (const std::string &name : path.starts_with("mac-count")  ? of_count
                                   : path.starts_with("mac-vtep") ? of_vtep
                                                                  : of_mac) {
        values += (values.empty() ? "" : " ") + test::value_of(record, name);
    }
    return values;
}

void expect_answer(const std::string &path, request_kind kind, const answer &expected)
{
    strings got;
    const uint32_t status = test::read_pages({.path = path, .kind = kind}, [&](const host::operational_page &page) {
        for (const auto &item : page.items) {
            got.push_back(std::string(item.name) + (item.data.empty() ? "" : " " + text(path, item.data)));
        }
        return true;
    });
    if (expected.status == ELOOP && got.size() > expected.items.size()) {
        got.resize(expected.items.size());
    }
    const auto [left, right] = std::mismatch(got.begin(), got.end(), expected.items.begin(), expected.items.end());
    EXPECT_EQ(left == got.end() ? "the end" : *left, right == expected.items.end() ? "the end" : *right)
        << "item " << left - got.begin() << " of " << path << ", kind " << static_cast<uint32_t>(kind);
    EXPECT_EQ(status, expected.status) << path << ", kind " << static_cast<uint32_t>(kind);
}

// ---- What the reference has ----

std::string vtep_text(uint32_t vtep)
{
    return hex(vtep == 0 ? 0 : 0x0a000000 | vtep, 8);
}

std::string mac_text(uint32_t address)
{
    const std::string digits = hex(address, 4);
    return "02:00:00:00:" + digits.substr(0, 2) + ":" + digits.substr(2);
}

uint32_t translated(uint32_t flags)
{
    constexpr uint32_t pairs[][2] = {{0x1, 0x100000},    {0x2, 0x4000},       {0x4, 0x2000},
                                     {0x8, 0x20000},     {0x20, 0x200000},    {0x40, 0x400000},
                                     {0x100, 0x8000000}, {0x200, 0x20000000}, {0x400, 0x40000000}};
    uint32_t reported = 0;
    for (const auto &[flag, bit] : pairs) {
        reported |= (flags & flag) != 0 ? bit : 0;
    }
    return reported;
}

std::string record(reference &ref, const ref_mac &mac)
{
    constexpr uint32_t seg_types[] = {0, 2, 4, 5, 6, 20};
    const ref_port &p = *mac.port;
    const auto at = p.macs.at(mac.number);
    const bool of_bd = (mac.flags & 0x668) != 0;
    const bool vxlan = p.type == 4 && !of_bd;
    const std::string prev = at == ref.list.begin() ? "N/A" : mac_text(std::prev(at)->number);
    const std::string next = std::next(at) == ref.list.end() ? "N/A" : mac_text(std::next(at)->number);
    return words(translated(mac.flags), (mac.flags & 0xe000) >> 10, of_bd ? EDM_XCID_DUMMY : p.xcid, *p.bd,
                 "'" + ref.bds[*p.bd] + "'", of_bd ? 0 : seg_types[p.type],
                 !vxlan ? "" : vtep_text((mac.flags & 0x1000) != 0 ? mac.vtep : 0),
                 !vxlan ? "" : number(seg_info2_of(p.xcid)), "'" + prev + "'", "'" + next + "'");
}

// A bridge domain in an item name: the name's part before its first ":", and the next part or all the rest.
std::string tail_of(const std::string &full_name, bool all_the_rest)
{
    const size_t colon = std::min(full_name.find(':'), full_name.size());
    const std::string rest = full_name.substr(std::min(colon + 1, full_name.size()));
    return full_name.substr(0, colon) + "," + (all_the_rest ? rest : rest.substr(0, rest.find(':')));
}

// The bridge domain of a name, 0 for none.
uint32_t id_of(const std::string &name, const std::map<uint32_t, std::string> &names)
{
    const auto at = std::find_if(names.begin(), names.end(), [&](auto &named) { return named.second == name; });
    return at == names.end() ? 0 : at->first;
}

std::vector<ref_mac *> macs_of(const std::vector<ref_port *> &ports)
{
    std::vector<ref_mac *> found;
    for (const ref_port *p : ports) {
        std::transform(p->macs.begin(), p->macs.end(), std::back_inserter(found),
                       [](auto &mac) { return &*mac.second; });
    }
    return found;
}

// Reads the items of a list, page by page.
struct listing {
    reference &ref;
    enum { by_bd, by_port, aging } handler;
    std::vector<ref_mac *> order; // of the walk
    std::string bd_name;          // which a start key has to have; empty: any
    // Whether an entry is reported; a port filter does not apply to the port `start` that a page continues on.
    std::function<bool(const ref_mac &mac, const ref_port *start)> reports;
    request_kind kind = request_kind::list;
    size_t at = 0;
    answer all = {};

    answer read()
    {
        std::set<size_t> begun;
        while (ref_mac *last = all.status == 0 ? add_page() : nullptr) {
            all.status = resume_after(last);
            if (all.status == 0 && !begun.insert(at).second) {
                all.status = ELOOP;
            }
        }
        return all;
    }

    // The last entry of a page that others follow.
    ref_mac *add_page()
    {
        const ref_port *start = at != 0 ? order[at - 1]->port : nullptr;
        const size_t before = all.items.size();
        ref_mac *last = nullptr;
        for (; at < order.size() && order[at]->port->bd; at++) {
            if (!reports(*order[at], start)) {
                continue;
            }
            if (all.items.size() == before + page_size) {
                return last;
            }
            last = order[at];
            all.items.push_back("200,0," + hex(last->number) + "," + tail_of(ref.bds[*last->port->bd], handler == aging)
                                + (kind == request_kind::list ? "" : " " + record(ref, *last)));
        }
        if (last == nullptr) {
            all.status = handler != aging ? none : before != 0 && at == order.size() ? 0 : bad;
        }
        return nullptr;
    }

    uint32_t resume_after(ref_mac *last)
    {
        std::string name = tail_of(ref.bds[*last->port->bd], handler == aging);
        name[name.find(',')] = ':';
        if (name == ":") {
            return bad;
        }
        if (!bd_name.empty() && bd_name != name) {
            return none;
        }
        last = handler == by_port ? last : ref.find_in_bd(id_of(name, ref.bds), last->number);
        at = static_cast<size_t>(std::find(order.begin(), order.end(), last) - order.begin()) + 1;
        return last != nullptr ? 0 : handler == aging ? bad : none;
    }
};

// By a walk, or as the table's own counters have it.
std::string counts(const std::vector<ref_mac *> &macs, bool walked)
{
    uint32_t plain = 0, f2 = 0, f4 = 0, f60 = 0;
    for (const ref_mac *mac : macs) {
        const uint32_t flags = walked ? mac->flags : mac->counted;
        plain += (flags & 6) == 0;
        f2 += (flags & (walked ? 6 : 2)) == 2;
        f4 += (flags & 4) != 0;
        f60 += !walked && (flags & 0x60) != 0;
    }
    return words(plain + f2, plain, f2, f4, f60);
}

// ---- Both, side by side ----

// What the hardware knows of an address.
bool is_static(uint32_t address)
{
    return address % 4 == 0;
}

template <uint32_t Addresses, uint32_t Spread, uint32_t Stride>
class asked_tables : public both_tables {
public:
    explicit asked_tables(uint64_t seed)
        : both_tables(seed, Addresses, Spread)
    {
        small_table::make_objects();
        EXPECT_EQ(l2fib_mac_edm_defn_init(&small_table::limit, unlimited), 0u);
        host::mac_query_set(
            [](void *, uint32_t, const uint8_t *mac_addr, uint8_t *state) {
                *state = is_static(mac_addr[5]) ? L2FIB_MAC_QUERY_F2 : 0;
                return 0u;
            },
            nullptr);
        hw_edm_pd_cb.resync_all_cb = [] { l2fib_mac_edm_resync_complete(0); };
        hw_edm_pd_cb.resync_bd_cb = [](uint16_t) { l2fib_mac_edm_resync_complete(0); };
        hw_edm_pd_cb.resync_bp_cb = [](uint32_t) { l2fib_mac_edm_resync_complete(0); };
        hw_edm_pd_cb.bd_mac_count_cb = [](uint16_t, edm_mac_counters_t *) { return 1u; };
    }
    ~asked_tables()
    {
        for (const char *name : pool_names) {
            small_table::refuse_elements(name, false);
        }
        for (const uint32_t xcid : xcids) {
            l2fm_edm_table_bp_destroy(xcid);
        }
        for (const auto &[id, name] : ref.bds) {
            l2fm_edm_table_bd_destroy(id);
        }
    }
    asked_tables(const asked_tables &) = delete;
    asked_tables &operator=(const asked_tables &) = delete;

    void step(uint64_t)
    {
        operate();
        if (below(Stride) == 0) {
            ask_by_bd();
            ask_by_port();
            ask_aging();
            ask_vteps();
            ask_one();
            ask_counts();
        }
    }

private:
    std::string any_name()
    {
        strings all = {"g:z"};
        for (const auto *names : {&ref.names, &ref.bds}) {
            for (const auto &[id, name] : *names) {
                all.push_back(name.empty() ? "g:a:x" : name);
            }
        }
        return one_of(all);
    }

    std::vector<ref_mac *> walk(const std::string &bd_name)
    {
        std::map<std::string, uint32_t> by_name;
        for (const auto &[id, name] : ref.bds) {
            by_name[name] = id;
        }
        std::vector<ref_port *> found;
        for (const auto &[name, id] : by_name) {
            if (bd_name.empty() || ref.stored(bd_name) == name) {
                const auto of_bd = ref.ports_of(id);
                found.insert(found.end(), of_bd.begin(), of_bd.end());
            }
        }
        return macs_of(found);
    }

    void ask_by_bd()
    {
        const std::string name = below(2) == 0 ? "" : any_name();
        const uint32_t address = below(4) == 0 ? 1 + below(addresses) : 0;
        const uint32_t vtep = below(5);
        const uint32_t seg_info2 = one_of(std::array{540u, 560u, 0u});
        const uint32_t filter = below(3); // none, by VTEP, by port
        const bool flagged = below(3) == 0;
        const std::string filters[] = {"", "/vtep/" + std::string(vtep == 0 ? "0.0.0." : "10.0.0.") + number(vtep),
                                       "/seg-info2/" + number(seg_info2)};
        const std::string path = "mac-table" + (name.empty() ? "" : "/domain/" + name)
                                 + (address == 0 ? "" : "/mac/" + mac_text(address)) + filters[filter]
                                 + (flagged ? "/flagged" : "");
        listing of = {ref, listing::by_bd, walk(name), name, {}};
        for (const auto kind : {request_kind::list, request_kind::datalist}) {
            const uint32_t mask = kind == request_kind::list ? 0xc668 : 0x668;
            of.reports = [=](const ref_mac &mac, const ref_port *start) {
                const ref_port &p = *mac.port;
                const bool on_port =
                    filter == 0 || &p == start || (p.type == 4 && (filter == 1 || seg_info2_of(p.xcid) == seg_info2));
                return on_port && (address == 0 || address == mac.number)
                       && (filter != 1 || ((mac.flags & 0x1000) != 0 && mac.vtep == vtep))
                       && (!flagged || (mac.flags & mask) != 0);
            };
            of.kind = kind;
            const bool unknown = !name.empty() && id_of(name, ref.names) == 0;
            expect_answer(path, kind, unknown ? answer{none} : listing(of).read());
        }
    }

    void ask_by_port()
    {
        const uint32_t xcid = any_xcid();
        ref_port *p = ref.port(xcid);
        const std::string own_name = p != nullptr && p->bd ? ref.bds[*p->bd] : "";
        const std::string name = own_name.empty() || below(8) == 0 ? any_name() : own_name;
        const bool flagged = below(3) == 0;
        const std::string path = "mac-table/port/" + number(xcid) + "/domain/" + name + (flagged ? "/flagged" : "")
                                 + (below(2) == 0 ? "/resync-all" : "");
        listing of = {ref, listing::by_port, name == own_name ? macs_of({p}) : macs_of({}), name,
                      [=](const ref_mac &mac, auto) { return !flagged || (mac.flags & 0xc668) != 0; }};
        for (const auto kind : {request_kind::list, request_kind::datalist}) {
            of.kind = kind;
            expect_answer(path, kind, xcid == EDM_XCID_DUMMY ? answer{bad} : listing(of).read());
        }
    }

    std::vector<ref_mac *> all_macs()
    {
        std::vector<ref_mac *> all;
        std::transform(ref.list.begin(), ref.list.end(), std::back_inserter(all), [](ref_mac &mac) { return &mac; });
        return all;
    }

    void ask_aging()
    {
        listing of = {ref, listing::aging, all_macs(), "", [](auto &, auto) { return true; }, request_kind::datalist};
        expect_answer("mac-aging", request_kind::datalist, of.read());
    }

    static std::string vtep_record(uint32_t xcid, uint32_t vtep)
    {
        return words(seg_info1_of(xcid), seg_info2_of(xcid), vtep_text(vtep));
    }

    void ask_vteps()
    {
        const uint32_t seg_info2 = one_of(std::array{0u, 540u, 560u, 1u});
        const uint32_t seg_info1 = one_of(std::array{0u, 543u, 544u, 1u});
        answer listed, with_data;
        for (const uint32_t xcid : xcids) {
            const ref_port *p = ref.port(xcid);
            if (p == nullptr || p->type != 4 || (seg_info2 != 0 && seg_info2 != seg_info2_of(xcid))
                || (seg_info1 != 0 && seg_info1 != seg_info1_of(xcid))) {
                continue;
            }
            for (const auto &[vtep, stale] : p->vteps) {
                listed.items.push_back(hex(xcid) + "," + hex(seg_info2_of(xcid)) + "," + hex(0x0a000000 | vtep, 8));
                with_data.items.push_back(listed.items.back() + " " + vtep_record(xcid, vtep));
            }
            if (seg_info2 != 0) {
                break;
            }
        }
        const std::string path = "mac-vtep" + (seg_info2 == 0 ? "" : "/seg-info2/" + number(seg_info2))
                                 + (seg_info1 == 0 ? "" : "/seg-info1/" + number(seg_info1));
        expect_answer(path, request_kind::list, listed);
        expect_answer(path, request_kind::datalist, with_data);
    }

    static void expect_one(const std::string &path, bool found, const std::string &item)
    {
        expect_answer(path, request_kind::get, found ? answer{0, {" " + item}} : answer{none});
    }

    void ask_one()
    {
        const std::string name = any_name();
        const uint32_t address = 1 + below(addresses);
        ref_mac *mac =
            id_of(name, ref.names) == 0 ? nullptr : ref.find_in_bd(id_of(ref.stored(name), ref.bds), address);
        if (mac != nullptr) {
            mac->flags |= is_static(address) ? 2u : 0u;
        }
        expect_one("mac-table/domain/" + name + "/mac/" + mac_text(address), mac != nullptr,
                   mac != nullptr ? record(ref, *mac) : "");

        const uint32_t xcid = any_xcid();
        const uint32_t seg_info2 = below(6) == 0 ? 1 : seg_info2_of(xcid);
        const uint32_t vtep = 1 + below(4);
        const ref_port *p = ref.port(xcid);
        expect_one("mac-vtep/port/" + number(xcid) + "/seg-info2/" + number(seg_info2) + "/vtep/10.0.0." + number(vtep),
                   p != nullptr && p->type == 4 && seg_info2 != 1 && p->vteps.contains(vtep), vtep_record(xcid, vtep));
    }

    void ask_counts()
    {
        const uint32_t xcid = any_xcid();
        ref_port *p = ref.port(xcid);
        const std::string name = any_name();
        const uint32_t id = id_of(name, ref.names);
        expect_one("mac-count", true, counts(all_macs(), false));
        expect_one("mac-count/port/" + number(xcid), true, counts(p != nullptr ? macs_of({p}) : macs_of({}), true));
        expect_one("mac-count/domain/" + name, id != 0, counts(macs_of(ref.ports_of(id)), true));
    }
};

TEST(HandlersModel, AgreesOnSmallTables)
{
    run_seeds<asked_tables<24, 150, 20>>(2, 10000);
}

TEST(HandlersModel, AgreesOverPages)
{
    run_seeds<asked_tables<1500, 15000, 700>>(2, 20000);
}

} // namespace
