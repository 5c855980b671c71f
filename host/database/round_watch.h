// SPDX-License-Identifier: Apache-2.0

// Notices that the read of a list goes round.
//
// A list is continued after its last item, by that item's name. If two items share the name, the handler continues
// after the first of them. A page that ends on the second is then followed by what follows the first, the read comes to
// the same page end again, and so on without an end:
//
//     names       a  b  X  c  d  X  e         pages of 3
//     pages       a  b  X | c  d  X | c  d  X | c  d  X | ...
//
// A start key that comes again proves nothing, because the table changes while it is read: an entry may move back and
// forth. So the watch remembers one start key and a digest of the pages since. When the key comes again, a round is
// complete. Complete rounds in a row with the same start keys and page sizes are a circle if they are three at least
// and have 16 pages at least: nothing moves back and forth in step with the read that many times. A circle need not
// include the remembered key, so after twice as many pages each time the watch remembers the present key instead.
//
// One watch serves one read, on one thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace host {

class round_watch {
public:
    // Takes note that a page of `item_count` items has been read and that the read continues after `start_key`. True if
    // the read goes round.
    bool goes_round(std::string_view start_key, size_t item_count);

private:
    uint64_t remembered_ = 0;  // hash of the remembered start key
    uint64_t digest_ = 0;      // of the pages since the remembered key came last
    uint64_t last_round_ = 0;  // digest of the latest complete round
    uint32_t same_rounds_ = 0; // how many complete rounds in a row had that digest
    uint64_t pages_ = 0;       // in `digest_`
    uint64_t most_pages_ = 1;  // after which another key is remembered
};

} // namespace host
