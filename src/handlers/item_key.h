// SPDX-License-Identifier: Apache-2.0

// Names of items. A handler prints a name for each item of a list. The request that continues the list has the last
// name as its start key, which the handler reads back.
//
//     MAC entry   word,word,word,group,domain     words of the address in hexadecimal; the two parts of the full name
//     VTEP        xcid,seg_info2,address          all in hexadecimal; the address in host order with eight digits
//
//     200,0,a01,group,first                       02:00:00:00:0a:01 in the bridge domain "group:first"
//     2a,1388,c0000201                            192.0.2.1 on port 42 with seg_info2 5000
//
// Notes: some names cannot be read back. If a full name lacks one of its two parts, its item name has an empty text
// there, which no key may have. A comma inside a part ends that part early. The handler then rejects the key as
// malformed or finds no entry, so a list that stops at such an item cannot be continued.
//
// Threads: the functions read and write their arguments only. Records need the table lock.
#pragma once

#include <cstddef>
#include <string_view>

#include "platform/operational_db.h"
#include "table/element.h"

extern "C" {
// Prints the words of an entry's address into `size` bytes, final zero included, and cuts what does not fit. Returns
// the length of the printed text.
size_t l2fib_hw_mac_to_item_key(const l2fm_edm_mac_t *mac, char *buffer, size_t size);
}

namespace edm {

constexpr size_t item_name_size = 256; // of a printed name, in bytes
constexpr size_t key_text_size = 101;  // of a text that is read back, in bytes

// Where the domain's part of a full name ends: at the next ":", or at the end of the name.
enum class domain_part { to_next_colon, to_end };

struct name_parts {
    std::string_view group;
    std::string_view domain;
};

// Splits a full name. A part begins after any number of ":". With to_end the domain begins right after the ":" that
// ended the group. A missing part is empty.
//
//                      to_next_colon   to_end
//     g:d              g  d            g  d
//     g:d:e            g  d            g  d:e
//     g::d             g  d            g  :d
//     :g:d             g  d            g  d
//     g   g:           g  (empty)      g  (empty)
name_parts split_full_name(std::string_view full_name, domain_part domain);

// The names of the MAC items of one reply. It keeps the split names of the latest bridge domains, because consecutive
// entries usually share one. Valid while the caller holds the table lock.
struct mac_item_names {
    struct tail {
        const l2fm_edm_bd_t *bd; // the bridge domain that `text` names; null: none yet
        char text[64];           // ",group,domain"
    };
    static constexpr size_t tail_count = 16; // a bridge domain uses the tail with the number: its id modulo this

    domain_part rule = domain_part::to_next_colon;
    tail tails[tail_count] = {};
    char text[item_name_size] = {};
};

// Prints the name of an entry of `bd` into `names.text` and returns that text.
const char *print_mac_item_name(mac_item_names &names, const l2fm_edm_bd_t *bd, const l2fm_edm_mac_t *mac);

struct mac_item_key {
    uint8_t mac_addr[mac_addr_size];
    char full_name[key_text_size];
};

// How many characters of group and domain a handler accepts in a key. `configured_names` allows what a configuration
// may contain. `any_names` allows what the buffers hold; the full name is then cut to its own buffer.
struct key_limits {
    size_t group;
    size_t domain;
};
constexpr key_limits configured_names = {32, 27};
constexpr key_limits any_names = {key_text_size - 1, key_text_size - 1};

bool has_start_key(const edm_list_req_t *request);

// Read the start key of a request that has one. They return false if the key has too few fields or a part that is too
// long. They ignore text after the last field.
bool read_mac_item_key(const edm_list_req_t *request, const key_limits &limits, mac_item_key &key);

struct vtep_item_key {
    uint32_t xcid;
    uint8_t vtep_addr[vtep_addr_size];
};

bool read_vtep_item_key(const edm_list_req_t *request, vtep_item_key &key);

// Prints the name of a VTEP into `text`.
void print_vtep_item_name(char (&text)[item_name_size], const l2fm_edm_bp_t *bp, const l2fm_edm_vtep_t *vtep);

} // namespace edm
