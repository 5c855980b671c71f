// SPDX-License-Identifier: Apache-2.0

// The six pools from which the table allocates its records.
#include "table/pool.h"

#include <cerrno>

#include "platform/chunk.h"
#include "table/element.h"
#include "table/root.h"
#include "table/trace_point.h"

namespace {

using edm::root;

struct pool_configuration {
    const char *name;
    uint32_t element_size;  // in bytes
    uint32_t element_count; // by how many elements the pool grows
};

// Indexed by EDM_POOL_, which is also the order of creation.
constexpr pool_configuration configuration[EDM_POOL_COUNT] = {
    {"EDM-MAC Chunk", sizeof(mac_element), 1000},
    {"EDM-MAC-PBB Chunk", sizeof(mac_pbb_element), 100},
    {"EDM-MAC-VNI Chunk", sizeof(mac_vni_element), 100},
    {"EDM-BP Chunk", sizeof(bp_element), 100},
    {"EDM-BD Chunk", sizeof(bd_element), 10},
    {"EDM-MAC Vtep DB Chunk", sizeof(vtep_element), 100},
};

void destroy_pools(uint32_t count) L2FIB_REQUIRES_TABLE_LOCK
{
    for (uint32_t pool = 0; pool < count; pool++) {
        chunk_destroy(root.chunk[pool]);
    }
}

} // namespace

uint32_t l2fm_edm_table_chunk_init(void)
{
    for (uint32_t pool = 0; pool < EDM_POOL_COUNT; pool++) {
        const pool_configuration &wanted = configuration[pool];
        root.chunk[pool] =
            chunk_create(wanted.name, wanted.element_size, wanted.element_count, CHUNK_ZEROED_GROWABLE, 0, 0);
        if (root.chunk[pool] == nullptr) {
            destroy_pools(pool);
            EDM_TRACE(EDM_TRACE_POOL_NOT_CREATED, ENOMEM);
            return EDM_ERR_NO_RESOURCE;
        }
    }
    return 0;
}

void l2fm_edm_table_chunk_deinit(void)
{
    destroy_pools(EDM_POOL_COUNT);
}

void *l2fm_edm_table_malloc(uint32_t pool)
{
    if (pool >= EDM_POOL_COUNT) {
        return nullptr;
    }
    void *element = chunk_malloc(root.chunk[pool]);
    if (element == nullptr) {
        EDM_TRACE(EDM_TRACE_POOL_REFUSED);
    }
    return element;
}

uint32_t l2fm_edm_table_free(uint32_t pool, void *element)
{
    if (element == nullptr || pool >= EDM_POOL_COUNT) {
        return EDM_ERR_INVALID_ARGS;
    }
    if (chunk_free(root.chunk[pool], element) == 0) {
        EDM_TRACE(EDM_TRACE_POOL_REFUSED);
        return EDM_ERR_NO_RESOURCE;
    }
    return 0;
}

uint32_t l2fm_edm_table_bd_free(l2fm_edm_bd_t *bd)
{
    return l2fm_edm_table_free(EDM_POOL_BD, bd == nullptr ? nullptr : edm::to_element(bd));
}
