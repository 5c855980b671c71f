// SPDX-License-Identifier: Apache-2.0

#include "platform/utility.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <mutex>
#include <shared_mutex>
#include <unordered_map>

#include <unistd.h>

#include "host/clock.h"
#include "host/never_destroyed.h"
#include "host/out_of_memory.h"
#include "host/utility_host.h"

namespace {

using host::clock_ns;

// Nodes.

std::atomic<uint32_t> my_node_id{0};

struct interface_table {
    std::shared_mutex lock;
    std::unordered_map<uint32_t, uint32_t> node_by_handle;
    // Usually 0: a feed then takes no lock.
    std::atomic<size_t> count{0};
};

interface_table &interfaces()
{
    static host::never_destroyed<interface_table> table;
    return table.object;
}

uint32_t node_of(uint32_t ifhandle)
{
    interface_table &table = interfaces();
    if (table.count.load(std::memory_order_acquire) != 0) {
        const std::shared_lock hold(table.lock);
        const auto found = table.node_by_handle.find(ifhandle);
        if (found != table.node_by_handle.end()) {
            return found->second;
        }
    }
    return my_node_id.load(std::memory_order_relaxed);
}

// Lock waits: one record a thread, in a list from the thread's first wait until it ends. The list allocates nothing,
// since a thread registers on its way to a lock.

struct wait_record {
    wait_record();
    ~wait_record();
    wait_record(const wait_record &) = delete;
    wait_record &operator=(const wait_record &) = delete;

    wait_record *next;
    wait_record *previous = nullptr;
    pthread_t thread = pthread_self();
    pid_t thread_id = gettid();
    const pthread_mutex_t *lock = nullptr; // null: the thread does not wait
    const char *function = nullptr;
    uint32_t line = 0;
    uint64_t since_ns = 0;
};

std::mutex waits_lock; // guards the list and every record in it
wait_record *first_wait = nullptr;

wait_record::wait_record()
{
    const std::scoped_lock hold(waits_lock);
    next = first_wait;
    if (next != nullptr) {
        next->previous = this;
    }
    first_wait = this;
}

wait_record::~wait_record()
{
    const std::scoped_lock hold(waits_lock);
    (previous != nullptr ? previous->next : first_wait) = next;
    if (next != nullptr) {
        next->previous = previous;
    }
}

wait_record &my_wait()
{
    thread_local wait_record record;
    return record;
}

host::lock_wait describe(const wait_record &record, uint64_t now)
{
    // A record is in the list as long as its thread lives, so the thread can be asked for its name.
    char name[16] = "";
    pthread_getname_np(record.thread, name, sizeof(name));
    return {static_cast<uint32_t>(record.thread_id),
            name,
            record.lock,
            record.function,
            record.line,
            now - record.since_ns};
}

} // namespace

uint32_t platform_get_my_nodeid(uint32_t *node_id)
{
    if (node_id == nullptr) {
        return EINVAL;
    }
    *node_id = my_node_id.load(std::memory_order_relaxed);
    return 0;
}

uint32_t platform_ifhandle_parse_ifhandle(uint32_t ifhandle, uint32_t *node_id)
{
    if (node_id == nullptr || ifhandle == 0) {
        return EINVAL;
    }
    *node_id = node_of(ifhandle);
    return 0;
}

// The coarse clock is a read of the kernel's last tick, 5 ns instead of 22. A tick is at most 10 ms: ages are told in
// seconds, and two stamps of one clock never run backwards.
uint64_t fts_get_stamp_fast(void)
{
    return clock_ns(CLOCK_MONOTONIC_COARSE);
}

const char *macstring(const uint8_t *address, uint32_t length)
{
    constexpr uint32_t max_length = 32; // the longest link-layer address that Linux has
    thread_local char text[max_length * 3];
    constexpr char digits[] = "0123456789abcdef";
    const uint32_t count = address == nullptr ? 0 : std::min(length, max_length);
    char *end = text;
    for (uint32_t i = 0; i < count; i++) {
        *end++ = digits[address[i] >> 4];
        *end++ = digits[address[i] & 15];
        *end++ = ':';
    }
    // The last separator gives way to the end.
    text[count == 0 ? 0 : count * 3 - 1] = '\0';
    return text;
}

uint32_t set_thread_name(const char *name, pthread_t thread)
{
    if (name == nullptr) {
        return EINVAL;
    }
    char cut[16]; // what Linux has room for, with the end
    snprintf(cut, sizeof(cut), "%s", name);
    return static_cast<uint32_t>(pthread_setname_np(thread, cut));
}

void ptd_set_mutex_block(const pthread_mutex_t *lock, const char *function, uint32_t line)
{
    wait_record &record = my_wait();
    const uint64_t now = clock_ns(CLOCK_MONOTONIC);
    const std::scoped_lock hold(waits_lock);
    record.lock = lock;
    record.function = function;
    record.line = line;
    record.since_ns = now;
}

void ptd_unset_mutex_block(void)
{
    wait_record &record = my_wait();
    const std::scoped_lock hold(waits_lock);
    record.lock = nullptr;
}

namespace host {

void node_id_set(uint32_t node_id)
{
    my_node_id.store(node_id, std::memory_order_relaxed);
}

uint32_t interface_node_set(uint32_t ifhandle, uint32_t node_id)
{
    if (ifhandle == 0) {
        return EINVAL;
    }
    return or_out_of_memory([&] {
        interface_table &table = interfaces();
        const std::scoped_lock hold(table.lock);
        table.node_by_handle.insert_or_assign(ifhandle, node_id);
        table.count.store(table.node_by_handle.size(), std::memory_order_release);
        return 0u;
    });
}

void interface_node_clear()
{
    interface_table &table = interfaces();
    const std::scoped_lock hold(table.lock);
    table.node_by_handle.clear();
    table.count.store(0, std::memory_order_release);
}

std::vector<lock_wait> lock_waits()
{
    std::vector<lock_wait> waits;
    {
        const std::scoped_lock hold(waits_lock);
        // The clock is read under the lock, so that no wait begins after `now`.
        const uint64_t now = clock_ns(CLOCK_MONOTONIC);
        for (const wait_record *record = first_wait; record != nullptr; record = record->next) {
            if (record->lock != nullptr) {
                waits.push_back(describe(*record, now));
            }
        }
    }
    std::ranges::sort(waits, std::ranges::greater{}, &lock_wait::waited_ns);
    return waits;
}

} // namespace host
