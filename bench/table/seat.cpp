// SPDX-License-Identifier: Apache-2.0

#include "bench/table/seat.h"

#include <malloc.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <stdexcept>

namespace bench {

namespace {

constexpr double nanoseconds_of_microsecond = 1000;

// A pass over few entries is short, so a sample repeats it until it has covered this many.
constexpr size_t items_of_sample = 100'000;

bool reopen(seat &at, const work &on)
{
    close(at);
    if (on.fed.size() > at.table->capacity() || !at.table->open(on.over)) {
        return false;
    }
    at.now = content::empty;
    at.of = &on;
    return true;
}

size_t repetitions(const row &wanted, const work &on)
{
    return wanted.needs == before::full ? std::max<size_t>(1, items_of_sample / items_of(wanted, on)) : 1;
}

// Returns the nanoseconds for one item, or a negative number if the contestant cannot do the row.
double time_pass(seat &at, const row &wanted, const work &on)
{
    const size_t repeated = repetitions(wanted, on);
    if (repeated > 1 && run_pass(at, wanted, on) == cannot) {
        return -1;
    }
    const double start = thread_nanoseconds();
    for (size_t i = 0; i < repeated; i++) {
        if (run_pass(at, wanted, on) == cannot) {
            return -1;
        }
    }
    return (thread_nanoseconds() - start) / static_cast<double>(repeated * items_of(wanted, on));
}

double time_slowest_feed(seat &at, const work &on)
{
    double slowest = 0;
    at.now = content::full;
    double before = thread_nanoseconds();
    for (const entry &each : on.fed) {
        at.table->feed({&each, 1});
        const double now = thread_nanoseconds();
        slowest = std::max(slowest, now - before);
        before = now;
    }
    return slowest / nanoseconds_of_microsecond;
}

double resident_bytes()
{
    std::ifstream statm("/proc/self/statm");
    size_t all = 0;
    size_t resident = 0;
    statm >> all >> resident;
    return static_cast<double>(resident) * static_cast<double>(sysconf(_SC_PAGESIZE));
}

double memory_of_entry(seat &at, const work &on)
{
    malloc_trim(0);
    const double before = resident_bytes();
    if (!reopen(at, on)) {
        return -1;
    }
    at.table->feed(on.fed);
    return (resident_bytes() - before) / static_cast<double>(on.fed.size());
}

// Measures in a child, whose memory nobody else uses. The table is closed before, so that the child starts without one.
double memory_in_child(seat &at, const work &on)
{
    close(at);
    int ends[2];
    if (pipe(ends) != 0) {
        throw std::runtime_error("pipe failed");
    }
    const pid_t child = fork();
    if (child < 0) {
        throw std::runtime_error("fork failed");
    }
    if (child == 0) {
        const double bytes = memory_of_entry(at, on);
        _exit(write(ends[1], &bytes, sizeof(bytes)) == sizeof(bytes) ? 0 : 1);
    }
    ::close(ends[1]);
    double bytes = -1;
    const bool is_read = read(ends[0], &bytes, sizeof(bytes)) == sizeof(bytes);
    ::close(ends[0]);
    waitpid(child, nullptr, 0);
    if (!is_read) {
        throw std::runtime_error(std::string(at.table->name()) + ": the child that measures memory failed");
    }
    return bytes;
}

double measure_figure(seat &at, const row &wanted, const work &on)
{
    switch (wanted.measures) {
    case figure::memory: return at.table->is_in_process() ? memory_in_child(at, on) : -1;
    case figure::slowest_feed: return prepare(at, wanted, on) ? time_slowest_feed(at, on) : -1;
    case figure::time: break;
    }
    return prepare(at, wanted, on) ? time_pass(at, wanted, on) : -1;
}

} // namespace

void close(seat &at)
{
    if (at.now != content::closed) {
        at.table->close();
        malloc_trim(0);
        at.now = content::closed;
    }
}

bool prepare(seat &at, const row &wanted, const work &on)
{
    const bool is_empty_wanted = wanted.needs == before::empty;
    if (at.of == &on && at.now == (is_empty_wanted ? content::empty : content::full)) {
        return true;
    }
    if (!reopen(at, on)) {
        return false;
    }
    if (!is_empty_wanted) {
        at.table->feed(on.fed);
        at.now = content::full;
    }
    return true;
}

uint64_t run_pass(seat &at, const row &wanted, const work &on)
{
    const uint64_t result = wanted.pass(*at.table, on);
    if (result != cannot && wanted.needs != before::full) {
        at.now = wanted.needs == before::empty ? content::full : content::spent;
    }
    return result;
}

bool take_sample(seat &at, const row &wanted, const work &on, std::vector<sample> &samples)
{
    const double before = probe();
    const double value = measure_figure(at, wanted, on);
    if (value < 0) {
        return false;
    }
    samples.push_back({value, std::max(before, probe())});
    return true;
}

} // namespace bench
