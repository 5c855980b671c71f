// SPDX-License-Identifier: Apache-2.0

// A page of item names as a requester receives it. Ours and the peers append to the same kind of page, so a row
// compares how they find and print the names. A name is that of an item of the MAC table: 200,0,a01,bench,bd1.
#pragma once

#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

#include "bench/table/work.h"

namespace bench {

struct name_page {
    std::string text; // the names, one after the other
    size_t items = 0;
    size_t last = 0; // where the last name begins
};

inline void append_name(name_page &page, std::string_view name)
{
    page.last = page.text.size();
    page.text.append(name);
    page.items++;
}

inline std::string_view last_name(const name_page &page)
{
    return std::string_view(page.text).substr(page.last);
}

// Forgets the names and keeps the memory.
inline void clear_page(name_page &page)
{
    page.text.clear();
    page.items = page.last = 0;
}

// ",bench,bd1" for the bridge domain 1.
std::string name_tail(uint32_t domain);

// Appends the name of an address of the bridge domain that `tail` belongs to.
void append_item(name_page &page, uint64_t address, std::string_view tail);

// Adds the names of a page to the number of a pass.
uint64_t add_page(uint64_t sum, const name_page &page);

} // namespace bench
