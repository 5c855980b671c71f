// SPDX-License-Identifier: Apache-2.0

// Names of items: what a handler prints for each item of a list, and reads back as the start key of the request that
// continues the list.
//
//     MAC entry   word,word,word,group,domain     words of the address in hexadecimal; the two parts of the full name
//     VTEP        xcid,seg_info2,address          all in hexadecimal, the address in host order and eight digits wide
//
// Not obvious: a name cannot always be read back. A full name without one of its two parts prints an empty text in its
// place, which no key may hold, and a comma inside a part ends that part early. Such a key is malformed or finds no
// entry; a list that stops exactly there cannot be continued.
//
// Threads: the functions touch their arguments only; records need the table lock.
#pragma once

#include <cstddef>
#include <string_view>

#include "platform/operational_db.h"
#include "table/element.h"

extern "C" {
// Prints the words of an entry's address, cut to `size` bytes with the end of the text. Returns the length printed.
size_t l2fib_hw_mac_to_item_key(const l2fm_edm_mac_t *mac, char *buffer, size_t size);
}

namespace edm {

constexpr size_t item_name_size = 256;
constexpr size_t key_text_size = 101;

// How far the domain's part of a full name goes: to the next ":", or to the end of the name whatever it holds.
enum class domain_part { to_next_colon, to_end };

struct name_parts {
    std::string_view group;
    std::string_view domain;
};

// Splits a full name. A part begins after any number of ":", save that one that reaches to the end begins right after
// the ":" that ended the group; a part that is missing is empty.
//
//                      to_next_colon   to_end
//     g:d              g  d            g  d
//     g:d:e            g  d            g  d:e
//     g::d             g  d            g  :d
//     :g:d             g  d            g  d
//     g   g:           g  (empty)      g  (empty)
name_parts split_full_name(std::string_view full_name, domain_part domain);

// The names of the MAC items of one reply. A bridge domain's name is split once for all of its entries, as long as not
// too many bridge domains take turns. Good while the table lock is held.
struct mac_item_names {
    struct tail {
        const l2fm_edm_bd_t *bd; // whose tail it is
        char text[64];           // ",group,domain"
    };
    static constexpr size_t tail_count = 16; // bridge domains share them by their ids

    domain_part rule = domain_part::to_next_colon;
    tail tails[tail_count] = {};
    char text[item_name_size] = {};
};

// Prints the name of an entry of `bd` into `names.text`, and returns that.
const char *print_mac_item_name(mac_item_names &names, const l2fm_edm_bd_t *bd, const l2fm_edm_mac_t *mac);

struct mac_item_key {
    uint8_t mac_addr[mac_addr_size];
    char full_name[key_text_size];
};

// The longest parts that a handler accepts in a key. With `cut_long_names` the parts have no limit but the buffers',
// and the full name is cut to its own.
struct key_limits {
    size_t group;
    size_t domain;
};
constexpr key_limits configured_names = {32, 27};
constexpr key_limits any_names = {key_text_size - 1, key_text_size - 1};

bool has_start_key(const edm_list_req_t *request);

// Read the start key of a request that has one. False when it has too few fields or a part that is too long; text after
// the last field is ignored.
bool read_mac_item_key(const edm_list_req_t *request, const key_limits &limits, mac_item_key &key);

struct vtep_item_key {
    uint32_t xcid;
    uint8_t vtep_addr[vtep_addr_size];
};

bool read_vtep_item_key(const edm_list_req_t *request, vtep_item_key &key);

// Prints the name of a VTEP into `text`.
void print_vtep_item_name(char (&text)[item_name_size], const l2fm_edm_bp_t *bp, const l2fm_edm_vtep_t *vtep);

} // namespace edm
