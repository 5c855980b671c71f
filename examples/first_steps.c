/* SPDX-License-Identifier: Apache-2.0 */

/*
 * First steps with the table: start it, feed what the hardware holds, and remove what the hardware no longer holds.
 *
 * A forwarding process starts the whole module with l2fib_mac_edm_init. The module's threads then create the table and
 * serve the operational database. This program needs the table only, and creates it itself.
 *
 * The table asks the forwarding manager for the names of bridge domains and for the kinds of ports. This program has
 * one bridge domain and two ports, and answers for them itself: the three functions that it defines replace those of
 * the host platform. The host platform serves everything else.
 */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "l2fm_edm_table.h"
#include "platform/l2fib.h"

#define ENTRIES 10u
#define ENTRY_LIMIT 1000u
#define BRIDGE_ID 1u
#define FIRST_PORT 10u
#define PORTS 2u

/* ---- The forwarding manager ---- */

enum { KNOWN = 0, UNKNOWN = 1 };

/* A context is a handle that only the forwarding manager understands. Here it is the object's class. */
uint32_t l2fib_get_plat_ctx_by_id(uint32_t object_class, uint32_t id, l2fib_ctx_t *ctx)
{
    const int is_ours = object_class == L2FIB_CLASS_BRIDGE_DOMAIN ? id == BRIDGE_ID : id - FIRST_PORT < PORTS;
    *ctx = (void *)(uintptr_t)object_class;
    return is_ours ? KNOWN : UNKNOWN;
}

/* Both ports are plain interfaces. */
uint32_t l2fib_get_seg1_by_seg2(uint32_t object_class, const l2fib_ctx_t *ctx, uint32_t *segment_type,
                                l2fib_ctx_t *segment)
{
    (void)object_class;
    *segment_type = L2FIB_SEGMENT_INTERFACE;
    *segment = *ctx;
    return KNOWN;
}

uint32_t l2fib_access_field(uint32_t object_class, const l2fib_ctx_t *ctx, uint32_t field, void *value)
{
    static const char name[] = "group:first";
    const uint32_t number = 1;
    (void)ctx;
    if (object_class == L2FIB_CLASS_BRIDGE_DOMAIN && field == L2FIB_FIELD_BD_NAME) {
        memcpy(value, name, sizeof(name));
    } else {
        memcpy(value, &number, sizeof(number));
    }
    return KNOWN;
}

/* ---- The platform ---- */

static void check(uint32_t status, const char *what)
{
    if (status != 0) {
        fprintf(stderr, "%s: status 0x%08x\n", what, status);
        exit(EXIT_FAILURE);
    }
}

/* Reports one entry of the hardware: an address learned on one of the two ports. */
static void feed(unsigned number)
{
    l2fib_mac_edm_entry_t entry = {
        .bridge_id = BRIDGE_ID,
        .xcid = FIRST_PORT + number % PORTS,
        .mac_addr = {0x02, 0, 0, 0, 0, (uint8_t)number},
    };
    check(l2fib_mac_edm_add(&entry), "feed");
}

/* The walk calls this for each entry and holds the table lock. The record is valid until it returns. */
static uint32_t print(l2fm_edm_mac_t *mac, void *cookie)
{
    unsigned *count = cookie;
    const uint8_t *a = mac->mac_addr;
    printf("%02x:%02x:%02x:%02x:%02x:%02x  port %u  %s\n", a[0], a[1], a[2], a[3], a[4], a[5], mac->bp->xcid,
           mac->bp->bd->bd_name);
    (*count)++;
    return EDM_WALK_CONTINUE;
}

static unsigned print_table(const char *title)
{
    unsigned count = 0;
    printf("%s:\n", title);
    check(l2fm_edm_table_walk_all_macs_under_bd(print, &count, BRIDGE_ID), "walk");
    return count;
}

int main(void)
{
    /* The cell with the MAC entry limit. The platform owns it and may write it again later. */
    static uint32_t limit;
    check(l2fm_edm_table_init(), "start of the table");
    check(l2fib_mac_edm_defn_init(&limit, ENTRY_LIMIT), "definition of the limit");

    for (unsigned number = 0; number < ENTRIES; number++) {
        feed(number);
    }
    print_table("After the first feed");

    /* The program reads the hardware again: it marks all entries, feeds those that are still there, and sweeps. */
    check(l2fib_mac_edm_mark_all(), "mark");
    for (unsigned number = 0; number < ENTRIES / 2; number++) {
        feed(number);
    }
    check(l2fib_mac_edm_sweep_all(), "sweep");
    const unsigned left = print_table("After mark, feed and sweep");
    printf("%u entries are left, and %u are counted\n", left, l2fm_edm_table_mac_get_pool()->mac_cnt_total);

    check(l2fm_edm_table_deinit(), "teardown");
    return left == ENTRIES / 2 ? EXIT_SUCCESS : EXIT_FAILURE;
}
