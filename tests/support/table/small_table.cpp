// SPDX-License-Identifier: Apache-2.0

#include "tests/support/table/small_table.h"

#include <cerrno>
#include <cstring>
#include <map>
#include <set>
#include <sstream>

#include "host/objects/l2fib_objects.h"
#include "host/trace/trace_reader.h"
#include "platform/utility.h"
#include "table/element.h"
#include "tests/support/host/new_traces.h"
#include "tests/support/host/pools.h"
#include "tests/support/table/table_audit.h"

namespace {

std::set<const chunk_pool_t *> refused_pools;

} // namespace

extern "C" void *chunk_malloc(chunk_pool_t *pool)
{
    static const auto real = INTERPOSE_HIDDEN(chunk_malloc);
    return interpose::chunk_malloc.meet() || refused_pools.contains(pool) ? nullptr : real(pool);
}

extern "C" ordtree_link_t *ordtree_insert(ordtree_t *tree, ordtree_link_t *node)
{
    static const auto real = INTERPOSE_HIDDEN(ordtree_insert);
    return interpose::ordtree_insert.meet() ? nullptr : real(tree, node);
}

extern "C" uint32_t platform_get_my_nodeid(uint32_t *node_id)
{
    if (interpose::platform_get_my_nodeid.meet()) {
        return EIO;
    }
    *node_id = small_table::own_node;
    return 0;
}

extern "C" uint32_t platform_ifhandle_parse_ifhandle(uint32_t ifhandle, uint32_t *node_id)
{
    if (interpose::platform_ifhandle_parse_ifhandle.meet() || ifhandle == 0) {
        return EIO;
    }
    *node_id = ifhandle == small_table::interface_handle ? small_table::interface_node : small_table::own_node;
    return 0;
}

namespace small_table {

uint32_t limit;

namespace {

uint32_t number_of(const uint8_t *last_two)
{
    return static_cast<uint32_t>(last_two[0] << 8 | last_two[1]);
}

template <typename Addresses>
std::string joined(const Addresses &words)
{
    std::string text;
    for (const std::string &word : words) {
        text += (text.empty() ? "" : " ") + word;
    }
    return text;
}

std::string mac_text(const l2fm_edm_bp_t *bp, const l2fm_edm_mac_t *mac)
{
    const bool at_home = bp->bd != nullptr && bp->bd->bridge_id == mac->bridge_id;
    return std::to_string(number_of(mac->mac_addr + 4)) + ((mac->flags & EDM_MAC_STALE) != 0 ? "!" : "")
           + (at_home ? "" : "@" + std::to_string(mac->bridge_id));
}

std::string port_text(l2fm_edm_bp_t *bp)
{
    std::vector<std::string> macs;
    const l2fm_edm_mac_t *mac = l2fm_edm_table_bp_mac_get_first(bp);
    for (; mac != nullptr; mac = l2fm_edm_table_bp_mac_get_next(bp, mac)) {
        macs.push_back(mac_text(bp, mac));
    }
    std::vector<std::string> vteps;
    if (ordtree_running(&bp->vtep_tree) != 0) {
        const l2fm_edm_vtep_t *vtep = l2fm_edm_table_bp_vtep_get_first(bp);
        for (; vtep != nullptr; vtep = l2fm_edm_table_bp_vtep_get_next(bp, vtep)) {
            vteps.push_back(std::to_string(number_of(vtep->vtep_addr + 2)) + (vtep->stale != 0 ? "!" : ""));
        }
    }
    const std::string name = bp->xcid == EDM_XCID_DUMMY ? "dummy" : std::to_string(bp->xcid);
    return name + (bp->refresh_pending != 0 ? "*" : "") + "(" + joined(macs) + ")"
           + (vteps.empty() ? "" : "{" + joined(vteps) + "}");
}

std::string bd_text(const l2fm_edm_bd_t *bd)
{
    std::vector<std::string> ports = {std::to_string(bd->bridge_id) + ":"};
    l2fm_edm_bp_t *bp = l2fm_edm_table_bd_bp_get_first(bd);
    for (; bp != nullptr; bp = l2fm_edm_table_bd_bp_get_next(bd, bp)) {
        ports.push_back(port_text(bp));
    }
    return joined(ports) + " | ";
}

std::string homeless_text()
{
    std::vector<std::string> ports = {"-:"};
    l2fm_edm_bp_t *bp = l2fm_edm_table_bp_get_first();
    for (; bp != nullptr; bp = l2fm_edm_table_bp_get_next(bp)) {
        if (bp->bd == nullptr) {
            ports.push_back(port_text(bp));
        }
    }
    return ports.size() == 1 ? "" : joined(ports) + " | ";
}

std::string value_text(uint64_t value)
{
    static const std::map<uint64_t, std::string> names = {{EDM_ERR_INVALID_ARGS, "INVALID_ARGS"},
                                                          {EDM_ERR_NO_RESOURCE, "NO_RESOURCE"},
                                                          {EDM_ERR_STOPPED, "STOPPED"},
                                                          {EDM_ERR_NOT_FOUND, "NOT_FOUND"},
                                                          {EDM_XCID_DUMMY, "DUMMY"}};
    const auto name = names.find(value);
    return name == names.end() ? std::to_string(value) : name->second;
}

uint32_t fill_pool(const char *name)
{
    refuse_elements(name, true);
    return 0;
}

// The numbers of a step; those that are not given are 0.
using numbers = std::array<uint32_t, 5>;

using verb = uint32_t (*)(const numbers &n);

const std::map<std::string, verb> verbs = {
    {"", [](const numbers &n) { return feed(n[0], n[1], n[2], n[3], n[4]); }},
    {"mark", [](const numbers &) { return l2fib_mac_edm_mark_all(); }},
    {"mark bd", [](const numbers &n) { return l2fib_mac_edm_mark_bd(n[0]); }},
    {"mark bp", [](const numbers &n) { return l2fib_mac_edm_mark_bp(n[0]); }},
    {"sweep", [](const numbers &) { return l2fib_mac_edm_sweep_all(); }},
    {"sweep bd", [](const numbers &n) { return l2fib_mac_edm_sweep_bd(n[0]); }},
    {"sweep bp", [](const numbers &n) { return l2fib_mac_edm_sweep_bp(n[0]); }},
    {"create bd", [](const numbers &n) { return l2fm_edm_table_bd_create(n[0]) != nullptr ? 0 : EDM_ERR_NO_RESOURCE; }},
    {"destroy bd", [](const numbers &n) { return l2fm_edm_table_bd_destroy(n[0]); }},
    {"destroy bp", [](const numbers &n) { return l2fm_edm_table_bp_destroy(n[0]); }},
    {"evict", [](const numbers &) { return l2fm_edm_table_mac_destroy_old_mac(); }},
    {"update", [](const numbers &n) { return l2fm_edm_table_bp_update(l2fm_edm_table_bp_get_by_xcid(n[0]), n[1]); }},
    {"limit", [](const numbers &n) { return l2fib_mac_edm_defn_init(&limit, n[0]); }},
    {"undefine", [](const numbers &) { return hw_edm_pool = nullptr, 0u; }},
    {"full MAC", [](const numbers &) { return fill_pool("EDM-MAC Chunk"); }},
    {"full BP", [](const numbers &) { return fill_pool("EDM-BP Chunk"); }},
    {"full BD", [](const numbers &) { return fill_pool("EDM-BD Chunk"); }},
    {"full VTEP", [](const numbers &) { return fill_pool("EDM-MAC Vtep DB Chunk"); }},
    {"full trees", [](const numbers &) { return interpose::ordtree_insert.refuse(interpose::every), 0u; }},
    {"kind", [](const numbers &n) { return set_port(n[0], n[1]), 0u; }},
    {"remove", [](const numbers &n) { return host::cross_connect_remove(n[0]); }},
};

uint32_t run_step(const std::string &step, bool &may_fail)
{
    std::istringstream words(step);
    std::string name;
    numbers given{};
    size_t count = 0;
    for (std::string word; words >> word;) {
        if (std::isdigit(static_cast<unsigned char>(word[0])) != 0) {
            given.at(count++) = static_cast<uint32_t>(std::stoul(word, nullptr, 0));
        } else {
            name += (name.empty() ? "" : " ") + word;
        }
    }
    may_fail = name.starts_with("try ");
    return verbs.at(may_fail ? name.substr(4) : name)(given);
}

} // namespace

void set_port(uint32_t xcid, uint32_t segment_type)
{
    host::cross_connect values;
    values.field_126 = 126;
    values.first.type = segment_type;
    values.first.interface_handle = interface_handle;
    values.first.interface_3 = 3;
    values.first.interface_sub_kind = L2FIB_INTERFACE_SUB_KIND_23;
    values.first.interface_sub_value = 23;
    values.first.pseudowire_44 = 44;
    values.first.vxlan_54 = {seg_info2_of(xcid), 541, 542, seg_info1_of(xcid)};
    ASSERT_EQ(host::cross_connect_set(xcid, values), 0u);
}

void make_objects()
{
    constexpr std::pair<uint32_t, uint32_t> ports[] = {{interface_port, L2FIB_SEGMENT_INTERFACE},
                                                       {pseudowire_port, L2FIB_SEGMENT_PSEUDOWIRE},
                                                       {vxlan_port, L2FIB_SEGMENT_VXLAN},
                                                       {other_vxlan_port, L2FIB_SEGMENT_VXLAN},
                                                       {kind_3_port, L2FIB_SEGMENT_4},
                                                       {kind_5_port, L2FIB_SEGMENT_33},
                                                       {unknown_port, 99}};
    constexpr const char *names[] = {"g:c", "g:b", "g:a"};
    host::objects_clear();
    for (uint32_t i = 0; i < std::size(names); i++) {
        ASSERT_EQ(host::bridge_domain_set(i + 1, names[i]), 0u);
    }
    for (const auto &[xcid, segment_type] : ports) {
        set_port(xcid, segment_type);
    }
}

void refuse_elements(const char *pool_name, bool is_refused)
{
    const chunk_pool_t *pool = test::find_pool(pool_name);
    ASSERT_NE(pool, nullptr) << pool_name;
    if (is_refused) {
        refused_pools.insert(pool);
    } else {
        refused_pools.erase(pool);
    }
}

void start()
{
    make_objects();
    refused_pools.clear();
    interpose::ordtree_insert.refuse(0);
    ASSERT_EQ(l2fm_edm_table_init(), 0u);
    ASSERT_EQ(l2fib_mac_edm_defn_init(&limit, 1000), 0u);
    test::skip_traces();
}

void stop()
{
    EXPECT_EQ(audit_table(), "");
    l2fm_edm_table_deinit();
    EXPECT_EQ(l2fm_edm_table_ll_get_root()->ll_count, 0u);
    EXPECT_EQ(ordtree_running(l2fm_edm_table_bd_get_root()) + ordtree_running(l2fm_edm_table_bp_get_root()), 0u);
}

address mac_address(uint32_t number)
{
    return {2, 0, 0, 0, static_cast<uint8_t>(number >> 8), static_cast<uint8_t>(number)};
}

std::array<uint8_t, 4> vtep_address(uint32_t number)
{
    return {10, 0, static_cast<uint8_t>(number >> 8), static_cast<uint8_t>(number)};
}

l2fib_mac_edm_entry_t entry(uint32_t number, uint32_t xcid, uint32_t bridge_id, uint32_t flags, uint32_t vtep)
{
    l2fib_mac_edm_entry_t made{};
    made.flags = static_cast<uint16_t>(flags);
    made.xcid = xcid;
    made.bridge_id = static_cast<uint16_t>(bridge_id);
    std::memcpy(made.mac_addr, mac_address(number).data(), sizeof(made.mac_addr));
    std::memcpy(made.vtep_addr, vtep_address(vtep).data(), sizeof(made.vtep_addr));
    return made;
}

bool feeds_batches = false;

uint32_t feed(uint32_t number, uint32_t xcid, uint32_t bridge_id, uint32_t flags, uint32_t vtep)
{
    const l2fib_mac_edm_entry_t fed = entry(number, xcid, bridge_id, flags, vtep);
    return feeds_batches ? l2fib_mac_edm_add_batch(&fed, 1, nullptr) : l2fib_mac_edm_add(&fed);
}

l2fm_edm_mac_t *cached(uint32_t number, uint32_t bridge_id)
{
    return l2fm_edm_table_mac_get_by_bridgeid_mac(bridge_id, mac_address(number).data());
}

std::string table_text()
{
    std::string text;
    const l2fm_edm_bd_t *bd = l2fm_edm_table_bd_get_first_by_bridgeid();
    for (; bd != nullptr; bd = l2fm_edm_table_bd_get_next_by_bridgeid(bd)) {
        text += bd_text(bd);
    }
    text += homeless_text();
    std::vector<std::string> listed = {"list"};
    const auto note = [](l2fm_edm_mac_t *mac, void *cookie) {
        static_cast<std::vector<std::string> *>(cookie)->push_back(std::to_string(number_of(mac->mac_addr + 4)));
        return 1u;
    };
    l2fm_edm_table_walk_all_macs(note, &listed);
    return text + joined(listed);
}

std::string take_traces()
{
    std::string texts;
    for (const host::trace_point &point : test::new_traces(host::trace_ring::error)) {
        texts += (texts.empty() ? "" : "; ") + std::to_string(point.id) + " " + point.function;
        for (uint32_t i = 0; i < point.value_count; i++) {
            texts += " " + value_text(point.values[i]);
        }
    }
    test::skip_traces();
    return texts;
}

uint32_t run(const std::string &steps)
{
    std::istringstream from(steps);
    std::string each;
    uint32_t status = 0;
    bool may_fail = true;
    while (std::getline(from, each, ';')) {
        EXPECT_TRUE(may_fail || status == 0) << "a step before \"" << each << "\" failed";
        status = run_step(each, may_fail);
    }
    return status;
}

void check(const std::vector<row> &rows, const std::function<void()> &before_step)
{
    for (const row &each : rows) {
        SCOPED_TRACE(each.what);
        start();
        run(each.before);
        take_traces();
        before_step();
        EXPECT_EQ(run(each.step), each.status);
        EXPECT_EQ(take_traces(), each.traces);
        EXPECT_EQ(table_text(), each.table);
        stop();
    }
}

} // namespace small_table
