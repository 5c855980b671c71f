// SPDX-License-Identifier: Apache-2.0

// Cells of the module that are read without the table lock by a thread other than their writer: counters that a count
// or a trace reports, handles that a thread publishes, the limit that the platform may change.
//
// They are plain objects of a C interface, so they are accessed as atomics where they are shared. On x86 none of these
// costs more than a plain access.
#pragma once

#include <atomic>
#include <cstdint>

namespace edm {

// A value that stands for itself: nothing else is read because of it.
template <typename T>
T peek(const T &cell)
{
    return std::atomic_ref<T>(const_cast<T &>(cell)).load(std::memory_order_relaxed);
}

template <typename T>
void poke(T &cell, T value)
{
    std::atomic_ref<T>(cell).store(value, std::memory_order_relaxed);
}

// A value that announces what was written before it.
template <typename T>
T acquire(const T &cell)
{
    return std::atomic_ref<T>(const_cast<T &>(cell)).load(std::memory_order_acquire);
}

template <typename T>
void publish(T &cell, T value)
{
    std::atomic_ref<T>(cell).store(value, std::memory_order_release);
}

// Counters have one writer at a time, the holder of the table lock: no read-modify-write is needed.
inline void add(uint32_t &counter, uint32_t difference)
{
    poke(counter, peek(counter) + difference);
}

} // namespace edm
