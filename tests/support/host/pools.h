// SPDX-License-Identifier: Apache-2.0

// Finds a chunk pool by its name.
#pragma once

#include <cstring>

#include "host/pool/chunk_statistics.h"

namespace test {

// Null if there is no such pool.
inline chunk_pool_t *find_pool(const char *name)
{
    for (chunk_pool_t *pool = host::chunk_next(nullptr); pool != nullptr; pool = host::chunk_next(pool)) {
        host::chunk_statistics of{};
        if (host::chunk_read_statistics(pool, &of) && std::strncmp(of.name, name, sizeof(of.name) - 1) == 0) {
            return pool;
        }
    }
    return nullptr;
}

} // namespace test
