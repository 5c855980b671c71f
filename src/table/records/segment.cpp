// SPDX-License-Identifier: Apache-2.0

#include "table/records/segment.h"

#include "platform/l2fib.h"

namespace {

// The words of VXLAN field 54 that a port keeps.
constexpr uint32_t vxlan_word_of_seg_info2 = 0;
constexpr uint32_t vxlan_word_of_seg_info1 = 3;

// The two objects that hold a port's attributes.
struct port_objects {
    l2fib_ctx_t cross_connect;
    l2fib_ctx_t segment;
};

uint32_t read_interface(const port_objects &from, l2fm_edm_bp_t *bp)
{
    constexpr uint32_t object_class = L2FIB_SEGMENT_INTERFACE;
    uint32_t sub_kind = 0;
    uint32_t status = l2fib_access_field(object_class, &from.segment, L2FIB_FIELD_INTERFACE_SUB_KIND, &sub_kind);
    if (status == 0) {
        status = l2fib_access_field(object_class, &from.segment, L2FIB_FIELD_INTERFACE_HANDLE, &bp->seg_info1);
    }
    if (status == 0) {
        status = l2fib_access_field(object_class, &from.segment, L2FIB_FIELD_INTERFACE_3, &bp->seg_info2);
    }
    if (status == 0 && sub_kind != L2FIB_INTERFACE_SUB_KIND_23) {
        bp->seg_info3 = 0;
    } else if (status == 0) {
        status = l2fib_access_field(object_class, &from.segment, L2FIB_FIELD_INTERFACE_SUB_VALUE, &bp->seg_info3);
    }
    return status;
}

uint32_t read_pseudowire(const port_objects &from, l2fm_edm_bp_t *bp)
{
    const uint32_t status =
        l2fib_access_field(L2FIB_SEGMENT_PSEUDOWIRE, &from.segment, L2FIB_FIELD_PSEUDOWIRE_44, &bp->seg_info1);
    if (status != 0) {
        return status;
    }
    return l2fib_access_field(L2FIB_CLASS_CROSS_CONNECT, &from.cross_connect, L2FIB_FIELD_XC_126, &bp->seg_info2);
}

uint32_t read_vxlan(const port_objects &from, l2fm_edm_bp_t *bp)
{
    uint32_t words[L2FIB_VXLAN_54_WORDS] = {};
    const uint32_t status = l2fib_access_field(L2FIB_SEGMENT_VXLAN, &from.segment, L2FIB_FIELD_VXLAN_54, words);
    if (status == 0) {
        bp->seg_info2 = words[vxlan_word_of_seg_info2];
        bp->seg_info1 = words[vxlan_word_of_seg_info1];
    }
    return status;
}

uint32_t read_nothing(const port_objects &, l2fm_edm_bp_t *)
{
    return 0;
}

struct segment_kind {
    uint32_t segment_type;
    uint8_t bp_type;
    uint32_t (*read_attributes)(const port_objects &from, l2fm_edm_bp_t *bp);
};

constexpr segment_kind segment_kinds[] = {
    {L2FIB_SEGMENT_INTERFACE, EDM_BP_TYPE_INTERFACE, read_interface},
    {L2FIB_SEGMENT_PSEUDOWIRE, EDM_BP_TYPE_PSEUDOWIRE, read_pseudowire},
    {L2FIB_SEGMENT_4, EDM_BP_TYPE_3, read_nothing},
    {L2FIB_SEGMENT_VXLAN, EDM_BP_TYPE_VXLAN, read_vxlan},
    {L2FIB_SEGMENT_33, EDM_BP_TYPE_5, read_nothing},
};

uint32_t read_attributes(uint32_t segment_type, const port_objects &from, l2fm_edm_bp_t *bp)
{
    for (const segment_kind &kind : segment_kinds) {
        if (kind.segment_type == segment_type) {
            bp->bp_type = kind.bp_type;
            return kind.read_attributes(from, bp);
        }
    }
    return 0;
}

uint32_t read_objects(l2fm_edm_bp_t *bp, uint32_t xcid)
{
    port_objects from{};
    uint32_t segment_type = 0;
    uint32_t status = l2fib_get_plat_ctx_by_id(L2FIB_CLASS_CROSS_CONNECT, xcid, &from.cross_connect);
    if (status == 0) {
        status = l2fib_get_seg1_by_seg2(L2FIB_CLASS_CROSS_CONNECT, &from.cross_connect, &segment_type, &from.segment);
    }
    return status != 0 ? status : read_attributes(segment_type, from, bp);
}

} // namespace

namespace edm {

uint32_t read_segment(l2fm_edm_bp_t *bp, uint32_t xcid)
{
    l2fib_lock();
    const uint32_t status = read_objects(bp, xcid);
    l2fib_unlock();
    return status;
}

} // namespace edm
