/* SPDX-License-Identifier: Apache-2.0 */

/*
 * Record encoder: turns a reply record into the bytes that the operational database stores, as a schema describes it.
 *
 * The records are laid out byte for byte as the schemas want them. All are zeroed before they are filled, and whatever
 * is not named here stays zero. Texts are heap copies that the filler makes; parcel_free_indirections releases them.
 *
 * Threads: any; a record belongs to its caller. Statuses are 0 for success.
 */
#pragma once

#include "platform/export.h"

L2FIB_BEGIN_DECLS

typedef struct parcel_schema parcel_schema_t;

/* Which of the port's attributes a MAC info record carries; 0 when it carries none. */
#define EDM_SEG_TYPE_INTERFACE 2u
#define EDM_SEG_TYPE_PSEUDOWIRE 4u
#define EDM_SEG_TYPE_5 5u
#define EDM_SEG_TYPE_VXLAN 6u
#define EDM_SEG_TYPE_20 20u

/*
 * MAC info record, 1912 bytes.
 *
 *      4  mac_flags         32  seg_type          64  time_str         104  prev_mac       928  aux_kind
 *     24  hw_valid          40  seg_id            72  age              112  next_mac       936  aux_value
 *                           44  seg_sub_id        88  bd_name          892  bmac_valid     968  aux_value_alt
 *                           48  seg_attr          96  bridge_id        900  bmac          1000  zero_word
 *                           52  seg_attr_kind    100  xcid             906  ext_attr      1896  vtep_addr
 *                           56  node_id                                                   1902  mac_flags2
 *                                                                                         1904  vtep_seg_info
 *
 * `seg_id` is 64 bits wide for EDM_SEG_TYPE_PSEUDOWIRE and 32 bits for the others, and so runs into `seg_sub_id`,
 * which is 16 bits wide for EDM_SEG_TYPE_INTERFACE and 32 for EDM_SEG_TYPE_VXLAN.
 */
typedef struct l2fib_mac_info {
    uint8_t reserved0[4];
    uint32_t mac_flags;
    uint8_t reserved1[16];
    uint8_t hw_valid;
    uint8_t reserved2[7];
    uint32_t seg_type;
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
    char *time_str;
    uint64_t age; /* nanoseconds since the entry's last update */
    uint8_t reserved5[8];
    char *bd_name;
    uint32_t bridge_id;
    uint32_t xcid;
    char *prev_mac;
    char *next_mac;
    uint8_t reserved6[772];
    uint32_t bmac_valid;
    uint8_t reserved7[4];
    uint8_t bmac[6];
    uint16_t ext_attr;
    uint8_t reserved8[20];
    uint32_t aux_kind;
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
    uint16_t mac_flags2;
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

/* MAC count record, 20 bytes: the counters of the same names. */
typedef struct l2fib_mac_count_info {
    uint32_t mac_cnt_sum;
    uint32_t mac_cnt_plain;
    uint32_t mac_cnt_f2;
    uint32_t mac_cnt_f4;
    uint32_t mac_cnt_f60;
} l2fib_mac_count_info_t;

static_assert(sizeof(l2fib_mac_count_info_t) == 20, "MAC count layout");

/* VTEP info record, 12 bytes: the port's two attributes and the address in network byte order. */
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
 * Encodes `record` as `schema` describes it into a buffer that the caller releases with free, and stores the buffer and
 * its length in bytes. On failure nothing is stored.
 */
L2FIB_EXPORT uint32_t parcel_encode(void **data, uint32_t *length, const void *record, const parcel_schema_t *schema);

/* Releases the texts of a record and clears their pointers. */
L2FIB_EXPORT uint32_t parcel_free_indirections(void *record, const parcel_schema_t *schema);

L2FIB_END_DECLS
