// SPDX-License-Identifier: Apache-2.0

// Cells that one thread writes and others read without the table lock: the table's counters, handles that a thread
// publishes, the limit that the platform may change.
//
// The cells are plain objects of a C interface. Code that shares them accesses them as atomics, by these functions. On
// x86 none of them costs more than a plain access.
#pragma once

#include <atomic>
#include <cstdint>

#include "l2fib_mac_edm.h"

namespace edm {

// For a value that stands for itself: its reader concludes nothing about other objects from it.
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

// For a value that announces others: a thread that acquires it sees everything written before it was published.
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

// Adds to a counter. Only the holder of the table lock writes counters, so an atomic addition is not needed.
inline void add(uint32_t &counter, uint32_t difference) L2FIB_REQUIRES_TABLE_LOCK
{
    poke(counter, peek(counter) + difference);
}

} // namespace edm
