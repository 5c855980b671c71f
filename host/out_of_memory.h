// SPDX-License-Identifier: Apache-2.0

// Keeps exceptions inside: a function of the C interface that allocates runs its body through here.
#pragma once

#include <cerrno>
#include <cstdint>
#include <new>

namespace host {

// The body's status, or ENOMEM when it ran out of memory; the body has undone what it did by then.
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
