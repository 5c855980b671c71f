/* SPDX-License-Identifier: Apache-2.0 */

/*
 * Record encoder: turns a reply record into the bytes that the operational database stores. A schema describes each
 * kind of record.
 *
 * The layouts below match the schemas byte for byte. The module zeroes a record before it fills it, so bytes without a
 * name are zero. Numbers are in host byte order. Texts are heap copies that the filler makes and
 * parcel_free_indirections releases.
 *
 *      l2fib_vtep_info_t record = {0};
 *      ...                                                                  fill it
 *      status = parcel_encode(&data, &length, &record, &l2fib_vtep_info_parcel);
 *      parcel_free_indirections(&record, &l2fib_vtep_info_parcel);          in any case
 *
 * Threads: any. A record belongs to its caller.
 *
 * Errors: statuses are 0 for success.
 */
#pragma once

#include "platform/export.h"

L2FIB_BEGIN_DECLS

typedef struct parcel_schema parcel_schema_t;

/* seg_type: which attributes of the port a MAC info record carries. */
#define EDM_SEG_TYPE_NONE 0u
#define EDM_SEG_TYPE_INTERFACE 2u
#define EDM_SEG_TYPE_PSEUDOWIRE 4u
#define EDM_SEG_TYPE_5 5u
#define EDM_SEG_TYPE_VXLAN 6u
#define EDM_SEG_TYPE_20 20u

/* seg_attr_kind of a pseudowire. */
#define EDM_SEG_ATTR_KIND_PSEUDOWIRE 2u

/* Bits of mac_flags: each stands for the entry's flag of the same name (l2fib_mac_edm.h). */
#define EDM_INFO_LOCAL 0x00002000u
#define EDM_INFO_STATIC 0x00004000u
#define EDM_INFO_STICKY 0x00010000u
#define EDM_INFO_BD_FIXED 0x00020000u
#define EDM_INFO_PBB 0x00100000u
#define EDM_INFO_BD_OWN 0x00200000u
#define EDM_INFO_BD_40 0x00400000u
#define EDM_INFO_EXTERN_LEARNED 0x08000000u
#define EDM_INFO_BD_200 0x20000000u
#define EDM_INFO_BD_400 0x40000000u
#define EDM_INFO_OFFLOADED 0x80000000u

/* Bits of mac_flags2: three for flags, one for an extended flag. */
#define EDM_INFO2_TIMESTAMP_VALID 0x0008u
#define EDM_INFO2_4000 0x0010u
#define EDM_INFO2_LOCKED 0x0020u
#define EDM_INFO2_INACTIVE 0x2000u

/* aux_kind: which member carries the entry's auxiliary value. */
#define EDM_AUX_NONE 0u
#define EDM_AUX_VALUE16 1u   /* aux_value.value16 */
#define EDM_AUX_VALUE32 2u   /* aux_value.value32 */
#define EDM_AUX_VALUE_ALT 3u /* aux_value_alt */

/*
 * MAC info record, 1912 bytes. Offsets of its members:
 *
 *      4  mac_flags         32  seg_type          64  time_str         104  prev_mac       928  aux_kind
 *     24  hw_valid          40  seg_id            72  age              112  next_mac       936  aux_value
 *                           44  seg_sub_id        88  bd_name          892  bmac_valid     968  aux_value_alt
 *                           48  seg_attr          96  bridge_id        900  bmac          1000  zero_word
 *                           52  seg_attr_kind    100  xcid             906  ext_attr      1896  vtep_addr
 *                           56  node_id                                                   1902  mac_flags2
 *                                                                                         1904  vtep_seg_info
 *
 * The segment type decides how the eight bytes at 40 are used:
 *
 *      40                    44                    48
 *      +---------------------+---------------------+
 *      | seg_id, 32 bits     | sub_id16 |          |    EDM_SEG_TYPE_INTERFACE
 *      | seg_id, 32 bits     | seg_sub_id, 32 bits |    EDM_SEG_TYPE_VXLAN
 *      | seg_id_wide, 64 bits                      |    EDM_SEG_TYPE_PSEUDOWIRE
 *      | seg_id, 32 bits     |                     |    all others
 *      +---------------------+---------------------+
 */
typedef struct l2fib_mac_info {
    uint8_t reserved0[4];
    uint32_t mac_flags; /* EDM_INFO_ bits */
    uint8_t reserved1[16];
    uint8_t hw_valid; /* 1: the record describes an entry */
    uint8_t reserved2[7];
    uint32_t seg_type; /* EDM_SEG_TYPE_ */
    uint8_t reserved3[4];
    union {
        uint64_t seg_id_wide;
        struct {
            uint32_t seg_id;
            union {
                uint16_t seg_sub_id16;
                uint32_t seg_sub_id;
            } sub;
        } narrow;
    } seg;
    uint32_t seg_attr;
    uint32_t seg_attr_kind;
    uint32_t node_id;
    uint8_t reserved4[4];
    char *time_str; /* when the hardware saw the entry: day, month and local time */
    uint64_t age;   /* nanoseconds since the entry's last update */
    uint8_t reserved5[8];
    char *bd_name; /* full name */
    uint32_t bridge_id;
    uint32_t xcid;
    char *prev_mac; /* texts of the addresses before and after the entry in order of creation */
    char *next_mac;
    uint8_t reserved6[772];
    uint32_t bmac_valid; /* 1: `bmac` counts */
    uint8_t reserved7[4];
    uint8_t bmac[6]; /* backbone address, wire order */
    uint16_t ext_attr;
    uint8_t reserved8[20];
    uint32_t aux_kind; /* EDM_AUX_ */
    uint8_t reserved9[4];
    union {
        uint16_t value16;
        uint32_t value32;
    } aux_value;
    uint8_t reserved10[12];
    uint8_t aux_alt_prefix[16];
    uint32_t aux_value_alt;
    uint8_t reserved11[28];
    uint32_t zero_word;
    uint8_t reserved12[892];
    uint8_t vtep_addr[4]; /* network byte order */
    uint8_t reserved13[2];
    uint16_t mac_flags2; /* EDM_INFO2_ bits */
    uint32_t vtep_seg_info;
    uint8_t reserved14[4];
} l2fib_mac_info_t;

static_assert(offsetof(l2fib_mac_info_t, mac_flags) == 4, "MAC info layout");
static_assert(offsetof(l2fib_mac_info_t, hw_valid) == 24, "MAC info layout");
static_assert(offsetof(l2fib_mac_info_t, seg_type) == 32, "MAC info layout");
static_assert(offsetof(l2fib_mac_info_t, seg.seg_id_wide) == 40, "MAC info layout");
static_assert(offsetof(l2fib_mac_info_t, seg.narrow.seg_id) == 40, "MAC info layout");
static_assert(offsetof(l2fib_mac_info_t, seg.narrow.sub.seg_sub_id16) == 44, "MAC info layout");
static_assert(offsetof(l2fib_mac_info_t, seg.narrow.sub.seg_sub_id) == 44, "MAC info layout");
static_assert(offsetof(l2fib_mac_info_t, seg_attr) == 48, "MAC info layout");
static_assert(offsetof(l2fib_mac_info_t, seg_attr_kind) == 52, "MAC info layout");
static_assert(offsetof(l2fib_mac_info_t, node_id) == 56, "MAC info layout");
static_assert(offsetof(l2fib_mac_info_t, time_str) == 64, "MAC info layout");
static_assert(offsetof(l2fib_mac_info_t, age) == 72, "MAC info layout");
static_assert(offsetof(l2fib_mac_info_t, bd_name) == 88, "MAC info layout");
static_assert(offsetof(l2fib_mac_info_t, bridge_id) == 96, "MAC info layout");
static_assert(offsetof(l2fib_mac_info_t, xcid) == 100, "MAC info layout");
static_assert(offsetof(l2fib_mac_info_t, prev_mac) == 104, "MAC info layout");
static_assert(offsetof(l2fib_mac_info_t, next_mac) == 112, "MAC info layout");
static_assert(offsetof(l2fib_mac_info_t, bmac_valid) == 892, "MAC info layout");
static_assert(offsetof(l2fib_mac_info_t, bmac) == 900, "MAC info layout");
static_assert(offsetof(l2fib_mac_info_t, ext_attr) == 906, "MAC info layout");
static_assert(offsetof(l2fib_mac_info_t, aux_kind) == 928, "MAC info layout");
static_assert(offsetof(l2fib_mac_info_t, aux_value) == 936, "MAC info layout");
static_assert(offsetof(l2fib_mac_info_t, aux_alt_prefix) == 952, "MAC info layout");
static_assert(offsetof(l2fib_mac_info_t, aux_value_alt) == 968, "MAC info layout");
static_assert(offsetof(l2fib_mac_info_t, zero_word) == 1000, "MAC info layout");
static_assert(offsetof(l2fib_mac_info_t, vtep_addr) == 1896, "MAC info layout");
static_assert(offsetof(l2fib_mac_info_t, mac_flags2) == 1902, "MAC info layout");
static_assert(offsetof(l2fib_mac_info_t, vtep_seg_info) == 1904, "MAC info layout");
static_assert(sizeof(l2fib_mac_info_t) == 1912, "MAC info layout");

/* MAC count record, 20 bytes: the counters of the same names (l2fm_edm_table.h). */
typedef struct l2fib_mac_count_info {
    uint32_t mac_cnt_sum;
    uint32_t mac_cnt_plain;
    L2FIB_TWO_NAMES(uint32_t, mac_cnt_f2, mac_cnt_static);
    L2FIB_TWO_NAMES(uint32_t, mac_cnt_f4, mac_cnt_local);
    L2FIB_TWO_NAMES(uint32_t, mac_cnt_f60, mac_cnt_bridge);
} l2fib_mac_count_info_t;

static_assert(sizeof(l2fib_mac_count_info_t) == 20, "MAC count layout");

/*
 * VTEP info record, 12 bytes: two attributes of the port and the address in network byte order.
 *
 *      0            4            8            12
 *      +------------+------------+------------+
 *      | seg_info1  | seg_info2  | vtep_addr  |
 *      +------------+------------+------------+
 */
typedef struct l2fib_vtep_info {
    uint32_t seg_info1;
    uint32_t seg_info2;
    uint8_t vtep_addr[4];
} l2fib_vtep_info_t;

static_assert(offsetof(l2fib_vtep_info_t, vtep_addr) == 8, "VTEP info layout");
static_assert(sizeof(l2fib_vtep_info_t) == 12, "VTEP info layout");

L2FIB_EXPORT extern const parcel_schema_t l2fib_bridge_mac_info_parcel;
L2FIB_EXPORT extern const parcel_schema_t l2fib_bridge_hw_mac_count_info_parcel;
L2FIB_EXPORT extern const parcel_schema_t l2fib_vtep_info_parcel;

/*
 * Encodes `record` by `schema` into a new buffer. Stores the buffer, which the caller releases with free, and its
 * length in bytes. Stores nothing on failure.
 */
L2FIB_EXPORT uint32_t parcel_encode(void **data, uint32_t *length, const void *record, const parcel_schema_t *schema);

/* Releases the texts of a record and sets their pointers to null. */
L2FIB_EXPORT uint32_t parcel_free_indirections(void *record, const parcel_schema_t *schema);

L2FIB_END_DECLS
