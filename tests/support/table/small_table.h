// SPDX-License-Identifier: Apache-2.0

// A small table to test on: a forwarding manager with a few objects, short ways to feed, and the table as one line of
// text, so that a test says what it expects to find in the whole of it.
#pragma once

#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "l2fm_edm_table.h"
#include "tests/support/faults/interpose.h"

// small_table.cpp defines these operations for every program that uses it.
INTERPOSE_OPERATION(chunk_malloc)
INTERPOSE_OPERATION(ordtree_insert)
INTERPOSE_OPERATION(platform_get_my_nodeid)
INTERPOSE_OPERATION(platform_ifhandle_parse_ifhandle)

namespace small_table {

// Bridge domains 1, 2 and 3, whose names sort the other way round: g:c, g:b, g:a.
// Ports that may be attached to any of them, one of each kind and a second VXLAN:
constexpr uint32_t interface_port = 10; // its interface is of another node
constexpr uint32_t pseudowire_port = 20;
constexpr uint32_t vxlan_port = 30;
constexpr uint32_t other_vxlan_port = 40;
constexpr uint32_t kind_3_port = 50;
constexpr uint32_t kind_5_port = 60;
constexpr uint32_t unknown_port = 70; // its segment is of no kind that is known

constexpr uint32_t own_node = 7;
constexpr uint32_t interface_node = 9;
constexpr uint32_t interface_handle = 0x100;

// The MAC entry limit; written by tests.
extern uint32_t limit;

// The attributes of VXLAN ports.
constexpr uint32_t seg_info2_of(uint32_t xcid)
{
    return xcid % 20 == 0 ? 560 : 540;
}
constexpr uint32_t seg_info1_of(uint32_t xcid)
{
    return xcid < 50 ? 543 : 544;
}

void make_objects();
void start(); // objects, an empty table, the limit at 1000
void stop();  // audits, tears down, and audits that nothing is left

// Whether the pool hands out no more elements. start() makes all pools hand them out.
void refuse_elements(const char *pool_name, bool is_refused);

void set_port(uint32_t xcid, uint32_t segment_type); // in the forwarding manager

using address = std::array<uint8_t, 6>;
address mac_address(uint32_t number);
std::array<uint8_t, 4> vtep_address(uint32_t number);

l2fib_mac_edm_entry_t entry(uint32_t number, uint32_t xcid, uint32_t bridge_id, uint32_t flags = 0, uint32_t vtep = 0);
// Feeds one entry, as a batch if `feeds_batches`.
extern bool feeds_batches;
uint32_t feed(uint32_t number, uint32_t xcid, uint32_t bridge_id, uint32_t flags = 0, uint32_t vtep = 0);

// The first entry with an address under a bridge domain.
l2fm_edm_mac_t *cached(uint32_t number, uint32_t bridge_id);

// The table as text, such as "1: 10*(1 2!@3) 30(){5!} dummy(4) | -: 20() | list 4 1 2":
//
//     TABLE  = {DOMAIN " | "} "list" {" " ADDRESS}   domains by id; then the list of all entries, in its order
//     DOMAIN = (BRIDGE_ID | "-") ":" {" " PORT}      "-" holds the ports without a bridge domain
//     PORT   = (XCID | "dummy") ["*"] "(" {ENTRY} ")" ["{" {VTEP} "}"]        "*": to be refreshed
//     ENTRY  = ADDRESS ["!"] ["@" BRIDGE_ID]         "!": marked; "@": its bridge id is not that of its port
//     VTEP   = ADDRESS ["!"]
std::string table_text();

// Trace points since the last call, such as "1913 l2fib_mac_edm_add 10; 1915 l2fib_mac_edm_add 10 INVALID_ARGS":
//
//     TRACES = [POINT {"; " POINT}]
//     POINT  = ID " " FUNCTION {" " VALUE}           a known status by its name
std::string take_traces();

// Runs steps such as "1 10 1 0x1000 5; mark bp 10; limit 2". Returns the status of the last one. Each other step has to
// succeed, unless it begins with "try".
//
//     STEPS = STEP {";" STEP}
//     STEP  = ["try "] (FEED | VERB {" " NUMBER})
//     FEED  = ADDRESS " " XCID " " BRIDGE_ID [" " FLAGS [" " VTEP]]
//
// The verbs:
//     mark, mark bd ID, mark bp XCID; sweep, sweep bd ID, sweep bp XCID
//     create bd ID, destroy bd ID, destroy bp XCID, evict
//     update XCID BRIDGE_ID                     updates the port
//     limit NUMBER, undefine                    the MAC entry limit
//     full MAC, full BP, full BD, full VTEP     the pool hands out no more elements
//     full trees                                trees accept no more records
//     kind XCID SEGMENT_TYPE, remove XCID       in the forwarding manager
uint32_t run(const std::string &steps);

// What a step does, from a fresh table that the steps before it have filled.
struct row {
    const char *what;
    const char *before;
    const char *step;
    uint32_t status;
    const char *traces;
    const char *table; // afterwards
};
void check(
    const std::vector<row> &rows, const std::function<void()> &before_step = [] {});

// A test on a table of its own.
struct fixture : testing::Test {
    void SetUp() override { start(); }
    void TearDown() override { stop(); }
};

} // namespace small_table
