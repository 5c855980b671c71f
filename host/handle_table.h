// SPDX-License-Identifier: Apache-2.0

// Records that other code knows by a number, the handle.
//
// Handles count up and skip 0. The table reuses a handle only after 2^32 insertions. So a handle that was kept for too
// long is unknown, and does not name another record:
//
//      insert(a)   1      erase(1)       insert(c)   3
//      insert(b)   2      find(1)  null  find(2)     b
//
// Threads: the owner's lock guards a table. An insertion that throws std::bad_alloc has changed nothing.
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

    // Returns null for an unknown handle. The pointer is valid until the record is erased.
    Record *find(uint32_t handle)
    {
        const auto found = records.find(handle);
        return found == records.end() ? nullptr : &found->second;
    }

    bool erase(uint32_t handle) { return records.erase(handle) != 0; }
};

// Carries a handle in a pointer type of the C interface. Nobody dereferences such a pointer.
template <typename Opaque>
Opaque *pointer_of(uint32_t handle)
{
    return reinterpret_cast<Opaque *>(uintptr_t{handle});
}

// The way back; 0 if the pointer does not carry a handle.
inline uint32_t handle_of(const void *pointer)
{
    const auto number = reinterpret_cast<uintptr_t>(pointer);
    return number <= UINT32_MAX ? static_cast<uint32_t>(number) : 0;
}

} // namespace host
