// SPDX-License-Identifier: Apache-2.0

#include "handlers/reply.h"

#include <cstdlib>
#include <cstring>
#include <ctime>
#include <iterator>

#include "platform/utility.h"
#include "table/root.h"
#include "table/trace_point.h"

namespace edm {

namespace {

// ---- Flags ----

// Which bit of the record stands for a flag of the entry.
template <typename Bits>
struct flag_translation {
    uint16_t flag;
    Bits record_bit;
};

constexpr flag_translation<uint32_t> mac_flags_table[] = {
    {EDM_MAC_PBB, EDM_INFO_PBB},
    {EDM_MAC_STATIC, EDM_INFO_STATIC},
    {EDM_MAC_LOCAL, EDM_INFO_LOCAL},
    {EDM_MAC_BD_FIXED, EDM_INFO_BD_FIXED},
    {EDM_MAC_STICKY, EDM_INFO_STICKY},
    {EDM_MAC_BD_OWN, EDM_INFO_BD_OWN},
    {EDM_MAC_BD_40, EDM_INFO_BD_40},
    {EDM_MAC_EXTERN_LEARNED, EDM_INFO_EXTERN_LEARNED},
    {EDM_MAC_BD_200, EDM_INFO_BD_200},
    {EDM_MAC_BD_400, EDM_INFO_BD_400},
    {EDM_MAC_OFFLOADED, EDM_INFO_OFFLOADED},
};
constexpr flag_translation<uint16_t> mac_flags2_table[] = {
    {EDM_MAC_TIMESTAMP_VALID, EDM_INFO2_TIMESTAMP_VALID},
    {EDM_MAC_4000, EDM_INFO2_4000},
    {EDM_MAC_LOCKED, EDM_INFO2_LOCKED},
};
constexpr flag_translation<uint16_t> ext_flags_table[] = {{EDM_MAC_EXT_INACTIVE, EDM_INFO2_INACTIVE}};

template <typename Bits, size_t Count>
Bits translate(const flag_translation<Bits> (&table)[Count], uint16_t flags)
{
    Bits bits = 0;
    for (const auto &row : table) {
        bits = static_cast<Bits>(bits | ((flags & row.flag) != 0 ? row.record_bit : 0));
    }
    return bits;
}

// ---- Segment values, by kind of port ----

void fill_bmac(l2fib_mac_info_t &record, const l2fm_edm_mac_t &mac)
{
    if ((mac.flags & EDM_MAC_PBB) != 0) {
        record.bmac_valid = 1;
        std::memcpy(record.bmac, bmac_addr(&mac), sizeof(record.bmac));
    }
}

void fill_interface(l2fib_mac_info_t &record, const l2fm_edm_bp_t &bp, const l2fm_edm_mac_t &mac)
{
    record.seg.narrow.seg_id = bp.seg_info2;
    record.seg.narrow.sub.seg_sub_id16 = bp.seg_info3;
    fill_bmac(record, mac);
}

void fill_pseudowire(l2fib_mac_info_t &record, const l2fm_edm_bp_t &bp, const l2fm_edm_mac_t & /*mac*/)
{
    record.seg.seg_id_wide = bp.seg_info2;
    record.seg_attr = bp.seg_info1;
    record.seg_attr_kind = EDM_SEG_ATTR_KIND_PSEUDOWIRE;
}

void fill_xcid(l2fib_mac_info_t &record, const l2fm_edm_bp_t &bp, const l2fm_edm_mac_t & /*mac*/)
{
    record.seg.narrow.seg_id = bp.xcid;
}

void fill_xcid_and_bmac(l2fib_mac_info_t &record, const l2fm_edm_bp_t &bp, const l2fm_edm_mac_t &mac)
{
    fill_xcid(record, bp, mac);
    fill_bmac(record, mac);
}

void fill_vxlan(l2fib_mac_info_t &record, const l2fm_edm_bp_t &bp, const l2fm_edm_mac_t &mac)
{
    fill_xcid(record, bp, mac);
    record.seg.narrow.sub.seg_sub_id = bp.seg_info1;
    record.vtep_seg_info = bp.seg_info2;
    // Only entries with this flag have the member.
    if ((mac.flags & EDM_MAC_VNI) != 0) {
        std::memcpy(record.vtep_addr, vtep_addr(&mac), sizeof(record.vtep_addr));
    }
}

struct segment_kind {
    uint32_t seg_type;
    void (*fill)(l2fib_mac_info_t &record, const l2fm_edm_bp_t &bp, const l2fm_edm_mac_t &mac);
};

// Indexed by bp_type.
constexpr segment_kind segment_kinds[] = {
    {EDM_SEG_TYPE_NONE, [](l2fib_mac_info_t &, const l2fm_edm_bp_t &, const l2fm_edm_mac_t &) {}},
    {EDM_SEG_TYPE_INTERFACE, fill_interface},
    {EDM_SEG_TYPE_PSEUDOWIRE, fill_pseudowire},
    {EDM_SEG_TYPE_5, fill_xcid_and_bmac},
    {EDM_SEG_TYPE_VXLAN, fill_vxlan},
    {EDM_SEG_TYPE_20, fill_xcid},
};

// Fills in where the entry is: its port and segment, or the dummy port for an entry of the bridge domain itself.
void fill_place(l2fib_mac_info_t &record, const l2fm_edm_mac_t &mac)
{
    if ((mac.flags & EDM_MAC_ON_DUMMY_PORT) != 0) {
        record.xcid = EDM_XCID_DUMMY;
        return;
    }
    const l2fm_edm_bp_t &bp = *mac.bp;
    record.xcid = bp.xcid;
    const segment_kind &kind = segment_kinds[bp.bp_type < std::size(segment_kinds) ? bp.bp_type : EDM_BP_TYPE_NONE];
    record.seg_type = kind.seg_type;
    kind.fill(record, bp, mac);
}

// ---- The auxiliary value ----

// The first row that matches the entry's flags decides. If none matches, the kind is EDM_AUX_NONE.
struct aux_row {
    uint16_t any_of;
    uint16_t all_of;
    uint32_t kind;
};

constexpr uint16_t has_wide_value = EDM_MAC_BD_400 | EDM_MAC_4000;

constexpr aux_row aux_table[] = {
    {EDM_MAC_BD_200, 0, EDM_AUX_VALUE16},
    {has_wide_value, EDM_MAC_OFFLOADED, EDM_AUX_VALUE32},
    {has_wide_value, 0, EDM_AUX_VALUE_ALT},
};

void fill_aux(l2fib_mac_info_t &record, const l2fm_edm_mac_t &mac)
{
    for (const aux_row &row : aux_table) {
        if ((mac.flags & row.any_of) != 0 && (mac.flags & row.all_of) == row.all_of) {
            record.aux_kind = row.kind;
            break;
        }
    }
    switch (record.aux_kind) {
    case EDM_AUX_VALUE16: record.aux_value.value16 = static_cast<uint16_t>(mac.aux_value); break;
    case EDM_AUX_VALUE32: record.aux_value.value32 = mac.aux_value; break;
    case EDM_AUX_VALUE_ALT: record.aux_value_alt = mac.aux_value; break;
    default: break;
    }
}

// ---- Texts ----

constexpr char not_available[] = "N/A";
constexpr size_t time_text_size = 256;

// Returns a heap copy of the day and local time at which the hardware saw the entry.
char *time_text(const l2fm_edm_mac_t &mac)
{
    if ((mac.flags & EDM_MAC_TIMESTAMP_VALID) == 0) {
        return strdup(not_available);
    }
    const time_t seconds = mac.hw_timestamp;
    tm local;
    char text[time_text_size];
    if (localtime_r(&seconds, &local) == nullptr || std::strftime(text, sizeof(text), "%d %b %T", &local) == 0) {
        return strdup("unknown_time");
    }
    return strdup(text);
}

// Returns a heap copy of the address of an entry's neighbour in the list of all entries.
char *neighbour_text(l2fm_edm_ll_link_t *link)
{
    if (link == nullptr || link == list_end()) {
        return strdup(not_available);
    }
    return strdup(macstring(mac_of_list_link(link)->mac_addr, mac_addr_size));
}

// The neighbours may be anywhere in memory. The processor fetches them while the rest of the record is filled.
void prefetch_neighbours(const l2fm_edm_mac_t &mac)
{
    __builtin_prefetch(mac.list_link.prev);
    __builtin_prefetch(mac.list_link.next);
}

} // namespace

bool add_mac(list_reply &reply, mac_item_names &names, const l2fm_edm_bd_t *bd, const l2fm_edm_mac_t *mac)
{
    uint32_t status;
    const char *name = print_mac_item_name(names, bd, mac);
    if (reply.kind == request_kind::list) {
        status = add_name(reply, name);
    } else {
        l2fib_mac_info_t record;
        if (l2fib_hw_edm_fill_mac_parcel(&record, mac) != 0) {
            return false;
        }
        status = add_record(reply, name, &record, &l2fib_bridge_mac_info_parcel);
    }
    if (status != 0) {
        // Both kinds of request trace this number.
        mac_request_failed(reply.handler, request_kind::datalist, status);
    }
    return status == 0;
}

} // namespace edm

uint32_t l2fib_hw_edm_fill_mac_parcel(l2fib_mac_info_t *record, const l2fm_edm_mac_t *mac)
{
    if (mac == nullptr || mac->bp == nullptr || mac->bp->bd == nullptr) {
        return EDM_ERR_BAD_REQUEST;
    }
    edm::prefetch_neighbours(*mac);
    std::memset(record, 0, sizeof(*record));
    record->mac_flags = edm::translate(edm::mac_flags_table, mac->flags);
    record->mac_flags2 = static_cast<uint16_t>(edm::translate(edm::mac_flags2_table, mac->flags)
                                               | edm::translate(edm::ext_flags_table, mac->ext_flags));
    record->hw_valid = 1;
    record->ext_attr = mac->ext_attr;
    edm::fill_place(*record, *mac);
    edm::fill_aux(*record, *mac);
    record->node_id = mac->node_id;
    record->age = fts_get_stamp_fast() - mac->update_stamp;
    record->bridge_id = mac->bp->bd->bridge_id;
    record->bd_name = strdup(mac->bp->bd->bd_name);
    record->time_str = edm::time_text(*mac);
    record->prev_mac = edm::neighbour_text(mac->list_link.prev);
    record->next_mac = edm::neighbour_text(mac->list_link.next);
    return 0;
}

uint32_t l2fib_hw_vtep_fill_parcel(l2fib_vtep_info_t *record, const l2fm_edm_vtep_t *vtep, const l2fm_edm_bp_t *bp)
{
    if (record == nullptr || vtep == nullptr || bp == nullptr || bp->bp_type != EDM_BP_TYPE_VXLAN) {
        return EDM_ERR_BAD_REQUEST;
    }
    record->seg_info1 = bp->seg_info1;
    record->seg_info2 = bp->seg_info2;
    std::memcpy(record->vtep_addr, vtep->vtep_addr, sizeof(record->vtep_addr));
    return 0;
}

uint32_t l2fib_hw_mac_cnt_walk_cb(l2fm_edm_mac_t *mac, void *counters)
{
    if (mac == nullptr || counters == nullptr) {
        return EDM_WALK_STOP;
    }
    auto *count = static_cast<edm_mac_counters_t *>(counters);
    if ((mac->flags & EDM_MAC_LOCAL) != 0) {
        count->mac_cnt_local++;
        return EDM_WALK_CONTINUE;
    }
    ((mac->flags & EDM_MAC_STATIC) != 0 ? count->mac_cnt_static : count->mac_cnt_plain)++;
    count->mac_cnt_sum++;
    return EDM_WALK_CONTINUE;
}

void l2fib_hw_mac_addr_cnt_fill(l2fib_mac_count_info_t *record, const edm_mac_counters_t *counters)
{
    constexpr struct {
        uint32_t l2fib_mac_count_info_t::*field;
        uint32_t edm_mac_counters_t::*counter;
    } pairs[] = {
        {&l2fib_mac_count_info_t::mac_cnt_sum, &edm_mac_counters_t::mac_cnt_sum},
        {&l2fib_mac_count_info_t::mac_cnt_plain, &edm_mac_counters_t::mac_cnt_plain},
        {&l2fib_mac_count_info_t::mac_cnt_static, &edm_mac_counters_t::mac_cnt_static},
        {&l2fib_mac_count_info_t::mac_cnt_local, &edm_mac_counters_t::mac_cnt_local},
    };
    if (record == nullptr || counters == nullptr) {
        return;
    }
    for (const auto &pair : pairs) {
        if (counters->*pair.counter != EDM_COUNTER_UNKNOWN) {
            record->*pair.field = counters->*pair.counter;
        }
    }
}
