// SPDX-License-Identifier: Apache-2.0

// Two containers of numbered slots: records that never move, and an index that finds them by a hash of their key. Both
// grow in large steps, so that telling and feeding an entry allocates nothing by itself.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

namespace forwarding {

inline constexpr uint32_t no_slot = UINT32_MAX;

// Records by slot number; a freed number is used again. A reference stays good until its slot is freed.
template <typename Record>
class slot_pool {
public:
    uint32_t take()
    {
        if (free_.empty()) {
            add_page();
        }
        const uint32_t slot = free_.back();
        free_.pop_back();
        (*this)[slot] = Record{};
        return slot;
    }

    // The record is emptied, so that what it holds is given back.
    void give_back(uint32_t slot)
    {
        (*this)[slot] = Record{};
        free_.push_back(slot);
    }

    Record &operator[](uint32_t slot) { return (*pages_[slot / page_size])[slot % page_size]; }
    const Record &operator[](uint32_t slot) const { return (*pages_[slot / page_size])[slot % page_size]; }

    // All slots, free ones among them, are below this.
    uint32_t bound() const { return static_cast<uint32_t>(pages_.size() * page_size); }

private:
    static constexpr size_t page_size = 1024;

    void add_page()
    {
        const uint32_t first = bound();
        free_.reserve(first + page_size);
        pages_.push_back(std::make_unique<std::array<Record, page_size>>());
        for (uint32_t slot = bound(); slot-- > first;) {
            free_.push_back(slot);
        }
    }

    std::vector<std::unique_ptr<std::array<Record, page_size>>> pages_;
    std::vector<uint32_t> free_;
};

// Slot numbers by hash: open addressing, with the hash beside the number so that a probe rarely looks at a record.
class slot_index {
public:
    // The slot with this hash that `same(slot)` accepts, or no_slot.
    template <typename Same>
    uint32_t find(uint32_t hash, Same same) const
    {
        if (cells_.empty()) {
            return no_slot;
        }
        for (size_t at = hash & mask(); cells_[at].slot != no_slot; at = (at + 1) & mask()) {
            if (cells_[at].hash == hash && same(cells_[at].slot)) {
                return cells_[at].slot;
            }
        }
        return no_slot;
    }

    // The slot must not be there.
    void insert(uint32_t hash, uint32_t slot)
    {
        if ((used_ + 1) * 8 > cells_.size() * 5) {
            grow();
        }
        used_++;
        put(hash, slot);
    }

    void erase(uint32_t hash, uint32_t slot)
    {
        size_t at = hash & mask();
        while (cells_[at].slot != slot) {
            at = (at + 1) & mask();
        }
        close_gap(at);
        used_--;
    }

private:
    struct cell {
        uint32_t hash = 0;
        uint32_t slot = no_slot;
    };

    size_t mask() const { return cells_.size() - 1; }

    void put(uint32_t hash, uint32_t slot)
    {
        size_t at = hash & mask();
        while (cells_[at].slot != no_slot) {
            at = (at + 1) & mask();
        }
        cells_[at] = {hash, slot};
    }

    void grow()
    {
        std::vector<cell> old(cells_.empty() ? 1024 : cells_.size() * 2);
        old.swap(cells_);
        for (const cell &each : old) {
            if (each.slot != no_slot) {
                put(each.hash, each.slot);
            }
        }
    }

    // Moves back what had to step over the cell, so that every probe still meets what it looks for.
    void close_gap(size_t gap)
    {
        for (size_t at = (gap + 1) & mask(); cells_[at].slot != no_slot; at = (at + 1) & mask()) {
            const size_t steps = (at - cells_[at].hash) & mask();
            if (steps >= ((at - gap) & mask())) {
                cells_[gap] = cells_[at];
                gap = at;
            }
        }
        cells_[gap].slot = no_slot;
    }

    std::vector<cell> cells_;
    size_t used_ = 0;
};

} // namespace forwarding
