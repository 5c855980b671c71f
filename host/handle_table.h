// SPDX-License-Identifier: Apache-2.0

// Records known outside by a number: never 0, and not given out again before four thousand million others were, so
// that a number kept for too long is unknown instead of somebody else's.
//
// Threads: the owner's lock guards a table. Insertion throws std::bad_alloc and changes nothing then.
#pragma once

#include <cstdint>
#include <unordered_map>
#include <utility>

namespace host {

template <typename Record>
struct handle_table {
    std::unordered_map<uint32_t, Record> records;
    uint32_t last = 0;

    uint32_t insert(Record record)
    {
        do {
            last++;
        } while (last == 0 || records.contains(last));
        records.emplace(last, std::move(record));
        return last;
    }

    // Null for an unknown handle; the pointer is good until the record is erased.
    Record *find(uint32_t handle)
    {
        const auto found = records.find(handle);
        return found == records.end() ? nullptr : &found->second;
    }

    bool erase(uint32_t handle) { return records.erase(handle) != 0; }
};

// A handle in the shape of a pointer, which is never followed, and back: 0 for what is none.
template <typename Opaque>
Opaque *pointer_of(uint32_t handle)
{
    return reinterpret_cast<Opaque *>(uintptr_t{handle});
}

inline uint32_t handle_of(const void *pointer)
{
    const auto number = reinterpret_cast<uintptr_t>(pointer);
    return number <= UINT32_MAX ? static_cast<uint32_t>(number) : 0;
}

} // namespace host
