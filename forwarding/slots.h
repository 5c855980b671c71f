// SPDX-License-Identifier: Apache-2.0

// Containers for the records of the shadow table and of the feeder. They grow in large steps, so that most reports
// allocate no memory.
//  - slot_pool holds records by slot number.
//  - slot_index finds a slot number by a hash of the record's key.
//  - slot_records holds further records under the slot numbers of a pool.
//  - shared_values holds each of its values once, however many records refer to it.
//
//      slot_pool<port> pool;
//      slot_index by_name;
//      const uint32_t slot = pool.take();
//      pool[slot].name = "eth1";
//      by_name.insert(hash_of("eth1"), slot, [&](uint32_t at) { return hash_of(pool[at].name); });
//      ...
//      by_name.find(hash_of("eth1"), [&](uint32_t at) { return pool[at].name == "eth1"; })     // slot, or no_slot
//
// Threads: no container takes a lock. Its owner uses it on the plane's thread only. Running out of memory throws
// std::bad_alloc.
#pragma once

#include <algorithm>
#include <cassert>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

namespace forwarding {

inline constexpr uint32_t no_slot = UINT32_MAX;

// ---- Hashes ----

inline uint64_t mix(uint64_t hash, uint64_t value)
{
    hash = (hash ^ value) * 0x9e3779b97f4a7c15u;
    return hash ^ (hash >> 29);
}

inline uint32_t fold(uint64_t hash)
{
    return static_cast<uint32_t>(hash ^ (hash >> 32));
}

// ---- Records by slot number ----

// Pages of records that never move.
template <typename Record>
class record_pages {
public:
    void add_page() { pages_.push_back(std::make_unique<Record[]>(page_size)); }
    Record &operator[](uint32_t slot)
    {
        assert(slot < bound());
        return pages_.data()[slot / page_size].get()[slot % page_size];
    }
    const Record &operator[](uint32_t slot) const
    {
        assert(slot < bound());
        return pages_.data()[slot / page_size].get()[slot % page_size];
    }

    // All slot numbers are below this.
    uint32_t bound() const { return static_cast<uint32_t>(pages_.size() * page_size); }

    static constexpr size_t page_size = 1024; // records

private:
    std::vector<std::unique_ptr<Record[]>> pages_;
};

// Records by slot number. Records never move, so a reference stays valid until its slot is given back. The pool reuses
// the numbers of slots that were given back, and never shrinks.
template <typename Record>
class slot_pool {
public:
    // Returns a free slot with a default record.
    uint32_t take()
    {
        if (!free_.empty()) {
            const uint32_t slot = free_.back();
            free_.pop_back();
            return slot;
        }
        if (used_ == pages_.bound()) {
            // give_back must not fail, so the list of free slots has room for all of them.
            const size_t slots = size_t{used_} + record_pages<Record>::page_size;
            if (free_.capacity() < slots) {
                free_.reserve(std::max(slots, 2 * size_t{used_}));
            }
            pages_.add_page();
        }
        return used_++;
    }

    // Frees a slot. Resets its record at once, so that the record releases the memory that it owns.
    void give_back(uint32_t slot)
    {
        pages_[slot] = Record{};
        free_.push_back(slot);
    }

    Record &operator[](uint32_t slot) { return pages_[slot]; }
    const Record &operator[](uint32_t slot) const { return pages_[slot]; }

    // All slot numbers that were ever taken are below this.
    uint32_t bound() const { return used_; }

private:
    record_pages<Record> pages_;
    std::vector<uint32_t> free_; // slots below used_
    uint32_t used_ = 0;
};

// Records beside those of a pool, under the same slot numbers.
template <typename Record>
class slot_records {
public:
    // Makes the record of a slot reachable. A new record is default-constructed.
    void reach(uint32_t slot)
    {
        while (slot >= pages_.bound()) {
            pages_.add_page();
        }
    }

    // Only for a slot that was reached.
    Record &operator[](uint32_t slot) { return pages_[slot]; }
    const Record &operator[](uint32_t slot) const { return pages_[slot]; }

    // All slots below this were reached.
    uint32_t bound() const { return pages_.bound(); }

private:
    record_pages<Record> pages_;
};

// ---- Slot numbers by key ----

// Slot numbers by hash, with open addressing. A hash names a home cell. An entry whose home is taken uses the next free
// cell behind it, and a probe ends at the first free cell:
//
//      cell     3     4     5     6
//            [  a  |  b  |  c  |     ]       the home of a and b is 3, the home of c is 4
//
// A cell is one word, because a million entries have one each. The low bits of a hash choose the home, so a cell
// nearly tells them by its place. It keeps the slot number instead of them. With 2^20 cells:
//
//      31                20 19                 0
//      | the hash's highest | slot number       |       all bits set: the cell is free
//
// So a probe rarely reads a record. There are always more cells than the largest slot number. At most 5/8 of the cells
// are used, because probes get long in a fuller table.
//
// A cell does not hold its whole hash. insert and erase, which may move other entries, take a function that computes
// the hash of a slot from its record. All records in the index must exist meanwhile.
class slot_index {
public:
    // Returns the slot with this hash that `same(slot)` accepts, or no_slot.
    template <typename Same>
    uint32_t find(uint32_t hash, Same same) const
    {
        if (cells_.empty()) {
            return no_slot;
        }
        for (uint32_t at = hash & mask(); cells_[at] != free_cell; at = (at + 1) & mask()) {
            if ((cells_[at] ^ hash) <= mask() && same(cells_[at] & mask())) {
                return cells_[at] & mask();
            }
        }
        return no_slot;
    }

    // Adds a slot that the index does not hold yet. `hash_of(slot)` returns the hash of a slot that it holds.
    template <typename HashOf>
    void insert(uint32_t hash, uint32_t slot, HashOf hash_of)
    {
        while ((used_ + 1) * 8 > cells_.size() * 5 || slot >= mask()) {
            grow(hash_of);
        }
        used_++;
        put(hash, slot);
    }

    // Removes a slot that the index holds under this hash. `hash_of` as for insert; the slot itself needs no record.
    template <typename HashOf>
    void erase(uint32_t hash, uint32_t slot, HashOf hash_of)
    {
        uint32_t at = hash & mask();
        while ((cells_[at] & mask()) != slot) {
            at = (at + 1) & mask();
        }
        close_gap(at, hash_of);
        used_--;
    }

private:
    static constexpr uint32_t free_cell = UINT32_MAX;
    static constexpr size_t first_cells = 1024;

    uint32_t mask() const { return static_cast<uint32_t>(cells_.size()) - 1; }

    void put(uint32_t hash, uint32_t slot)
    {
        uint32_t at = hash & mask();
        while (cells_[at] != free_cell) {
            at = (at + 1) & mask();
        }
        cells_[at] = (hash & ~mask()) | slot;
    }

    template <typename HashOf>
    void grow(HashOf hash_of)
    {
        std::vector<uint32_t> old(std::max(first_cells, cells_.size() * 2), free_cell);
        old.swap(cells_);
        const uint32_t old_mask = static_cast<uint32_t>(old.size()) - 1;
        for (const uint32_t each : old) {
            if (each != free_cell) {
                const uint32_t slot = each & old_mask;
                put(hash_of(slot), slot);
            }
        }
    }

    // Empties a cell. An entry behind it that is not at home may have its home at the gap or before it. A probe for
    // that entry would now end at the gap. So the entry moves into the gap, and leaves a new one. After a leaves cell 3
    // in the picture above, b moves to 3 and c moves to 4.
    template <typename HashOf>
    void close_gap(uint32_t gap, HashOf hash_of)
    {
        for (uint32_t at = (gap + 1) & mask(); cells_[at] != free_cell; at = (at + 1) & mask()) {
            const uint32_t steps = (at - hash_of(cells_[at] & mask())) & mask();
            if (steps >= ((at - gap) & mask())) {
                cells_[gap] = cells_[at];
                gap = at;
            }
        }
        cells_[gap] = free_cell;
    }

    std::vector<uint32_t> cells_;
    size_t used_ = 0;
};

// ---- Shared values ----

// Values by slot number, each of them once. A value lives as long as it has users. `hash_of(value)` is found by its
// argument.
//
//      shared_values<fdb_destination> destinations;
//      const uint32_t slot = destinations.join(to);      // one more user of `to`
//      destinations[slot] == to
//      destinations.leave(slot);                         // one user less
template <typename Value>
class shared_values {
public:
    // Throws std::bad_alloc without a change if memory runs out.
    uint32_t join(const Value &value)
    {
        const uint32_t hash = hash_of(value);
        uint32_t slot = by_value_.find(hash, [&](uint32_t at) { return values_[at].value == value; });
        if (slot == no_slot) {
            slot = add(value, hash);
        }
        values_[slot].users++;
        return slot;
    }

    // One more user of the value in a slot.
    void share(uint32_t slot) { values_[slot].users++; }

    void leave(uint32_t slot)
    {
        if (--values_[slot].users == 0) {
            by_value_.erase(hash_of(values_[slot].value), slot, hash_of_slot());
            values_.give_back(slot);
        }
    }

    const Value &operator[](uint32_t slot) const { return values_[slot].value; }

private:
    struct counted {
        Value value;
        uint32_t users = 0;
    };

    uint32_t add(const Value &value, uint32_t hash)
    {
        const uint32_t slot = values_.take();
        values_[slot].value = value;
        try {
            by_value_.insert(hash, slot, hash_of_slot());
        } catch (...) {
            values_.give_back(slot);
            throw;
        }
        return slot;
    }

    auto hash_of_slot() const
    {
        return [this](uint32_t slot) { return hash_of(values_[slot].value); };
    }

    slot_pool<counted> values_;
    slot_index by_value_;
};

} // namespace forwarding
