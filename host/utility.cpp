// SPDX-License-Identifier: Apache-2.0

#include "platform/utility.h"

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>

#include "base/mutex.h"
#include "base/text.h"
#include "host/clock.h"
#include "host/utility_host.h"

namespace {

using host::clock_ns;

constexpr size_t thread_name_size = 16; // what Linux has room for, with the end

// A Linux machine is one node, and all its interfaces belong to it.
constexpr uint32_t this_node = 0;

// ---- Lock waits ----

// Each thread has one record. It is in the list from the thread's first wait until the thread ends. Registering
// allocates no memory, because a thread registers on its way to a lock.
struct wait_record;

struct wait_list {
    base::mutex lock;
    wait_record *first L2FIB_GUARDED_BY(lock) = nullptr;
};

constinit wait_list waits;

struct wait_record {
    wait_record();
    ~wait_record();
    wait_record(const wait_record &) = delete;
    wait_record &operator=(const wait_record &) = delete;

    const pthread_t thread = pthread_self();
    const pid_t thread_id = gettid();

    wait_record *next L2FIB_GUARDED_BY(waits.lock) = nullptr;
    wait_record *previous L2FIB_GUARDED_BY(waits.lock) = nullptr;
    const pthread_mutex_t *lock L2FIB_GUARDED_BY(waits.lock) = nullptr; // null: the thread does not wait
    const char *function L2FIB_GUARDED_BY(waits.lock) = nullptr;
    uint32_t line L2FIB_GUARDED_BY(waits.lock) = 0;
    uint64_t since_ns L2FIB_GUARDED_BY(waits.lock) = 0;
};

wait_record::wait_record()
{
    const base::scoped_lock hold(waits.lock);
    next = waits.first;
    if (next != nullptr) {
        next->previous = this;
    }
    waits.first = this;
}

wait_record::~wait_record()
{
    const base::scoped_lock hold(waits.lock);
    (previous != nullptr ? previous->next : waits.first) = next;
    if (next != nullptr) {
        next->previous = previous;
    }
}

wait_record &my_wait()
{
    thread_local wait_record record;
    return record;
}

// The thread of a record in the list is alive, so its name can be read.
host::lock_wait describe(const wait_record &record, uint64_t now) L2FIB_REQUIRES(waits.lock)
{
    char name[thread_name_size] = "";
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
    *node_id = this_node;
    return 0;
}

uint32_t platform_ifhandle_parse_ifhandle(uint32_t ifhandle, uint32_t *node_id)
{
    if (node_id == nullptr || ifhandle == 0) {
        return EINVAL;
    }
    *node_id = this_node;
    return 0;
}

// The coarse clock reads the kernel's last tick: 5 ns instead of 22 for each entry of a feed. A tick is at most 10 ms,
// which is precise enough for ages in seconds.
uint64_t fts_get_stamp_fast(void)
{
    return clock_ns(CLOCK_MONOTONIC_COARSE);
}

const char *macstring(const uint8_t *address, uint32_t length)
{
    constexpr uint32_t max_length = 32; // the longest link-layer address that Linux has
    thread_local char text[max_length * 3 + 1];
    base::write_mac_text(text, {address, address == nullptr ? 0 : std::min(length, max_length)});
    return text;
}

uint32_t set_thread_name(const char *name, pthread_t thread)
{
    if (name == nullptr) {
        return EINVAL;
    }
    char cut[thread_name_size];
    snprintf(cut, sizeof(cut), "%s", name);
    return static_cast<uint32_t>(pthread_setname_np(thread, cut));
}

void ptd_set_mutex_block(const pthread_mutex_t *lock, const char *function, uint32_t line)
{
    wait_record &record = my_wait();
    const uint64_t now = clock_ns(CLOCK_MONOTONIC);
    const base::scoped_lock hold(waits.lock);
    record.lock = lock;
    record.function = function;
    record.line = line;
    record.since_ns = now;
}

void ptd_unset_mutex_block(void)
{
    wait_record &record = my_wait();
    const base::scoped_lock hold(waits.lock);
    record.lock = nullptr;
}

namespace host {

std::vector<lock_wait> lock_waits()
{
    std::vector<lock_wait> found;
    {
        const base::scoped_lock hold(waits.lock);
        // The clock is read under the lock, so that no wait begins after `now`.
        const uint64_t now = clock_ns(CLOCK_MONOTONIC);
        for (const wait_record *record = waits.first; record != nullptr; record = record->next) {
            if (record->lock != nullptr) {
                found.push_back(describe(*record, now));
            }
        }
    }
    std::ranges::sort(found, std::ranges::greater{}, &lock_wait::waited_ns);
    return found;
}

} // namespace host
