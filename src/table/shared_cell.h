// Cells that one thread writes and others read without the table lock: handles of the start, the held requester, the
// MAC entry limit. They are plain objects of the C interface; every access that another thread could meet goes through
// these two, which cost an ordinary load and store on x86. What was written before a cell is seen by who reads it.
#pragma once

#include <atomic>
#include <type_traits>

namespace edm {

template <typename Value>
Value read_shared(Value &cell)
{
    static_assert(std::atomic_ref<Value>::is_always_lock_free);
    return std::atomic_ref<Value>(cell).load(std::memory_order_acquire);
}

template <typename Value>
void write_shared(Value &cell, std::type_identity_t<Value> value)
{
    static_assert(std::atomic_ref<Value>::is_always_lock_free);
    std::atomic_ref<Value>(cell).store(value, std::memory_order_release);
}

} // namespace edm
