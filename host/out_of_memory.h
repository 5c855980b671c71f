// SPDX-License-Identifier: Apache-2.0

// Turns std::bad_alloc into ENOMEM. Every function of the C interface that allocates runs its body in or_out_of_memory,
// because no exception may leave the C interface.
#pragma once

#include <cerrno>
#include <cstdint>
#include <new>

namespace host {

// Returns the status of `body`, or ENOMEM if it threw std::bad_alloc. The body undoes its own changes before it throws.
template <typename Body>
uint32_t or_out_of_memory(Body body) noexcept
{
    try {
        return body();
    } catch (const std::bad_alloc &) {
        return ENOMEM;
    }
}

} // namespace host
