// SPDX-License-Identifier: Apache-2.0

// A system without memory for the slabs of the page arena. Include it in one source of a program.
//
//     {
//         const test::no_slabs refused;
//         EXPECT_EQ(host::arena_take(&owner), nullptr);
//     }
//
// The arena opens each slab with mprotect, which is refused here. It touches memory ahead with madvise, which a test
// refuses with interpose::madvise.
#pragma once

#include <semaphore.h>
#include <sys/mman.h>

#include <cerrno>
#include <thread>

#include "host/pool/arena.h"
#include "tests/support/faults/interpose.h"

// One source of the program includes this.
// NOLINTBEGIN(misc-definitions-in-headers)
INTERPOSE(int, mprotect, (void *start, size_t size, int protection) noexcept, (start, size, protection), -1)
INTERPOSE(int, madvise, (void *start, size_t size, int advice) noexcept, (start, size, advice), (errno = ENOMEM, -1))
INTERPOSE(int, sem_post, (sem_t * semaphore) noexcept, (semaphore), -1)
INTERPOSE(int, sem_wait, (sem_t * semaphore), (semaphore), -1)
// NOLINTEND(misc-definitions-in-headers)

namespace test {

// Waits until the arena's thread is idle: it prepares one slab for each post, then waits for the next one.
inline void wait_for_keeper()
{
    while (interpose::sem_post.calls != 0 && interpose::sem_wait.calls <= interpose::sem_post.calls) {
        std::this_thread::yield();
    }
}

// While it exists, nobody gets a slab that is not taken yet.
class no_slabs {
public:
    no_slabs()
    {
        wait_for_keeper();
        interpose::mprotect.refuse(interpose::every);
        prepared_ = host::arena_take(this, host::arena_pages::huge);
    }
    ~no_slabs()
    {
        interpose::mprotect.refuse(0);
        host::arena_give(prepared_);
    }
    no_slabs(const no_slabs &) = delete;
    no_slabs &operator=(const no_slabs &) = delete;

private:
    void *prepared_; // the slab that is open without an owner, if there is one
};

} // namespace test
