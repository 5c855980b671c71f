// SPDX-License-Identifier: Apache-2.0

// Which pool a MAC entry belongs to.
#pragma once

#include "l2fm_edm_table.h"

namespace edm {

struct mac_variant {
    uint16_t flag; // an entry with this flag
    uint32_t pool; // is in this pool
};

// The first match decides: an entry with both flags is in the PBB pool.
constexpr mac_variant mac_variants[] = {{EDM_MAC_PBB, EDM_POOL_MAC_PBB}, {EDM_MAC_VNI, EDM_POOL_MAC_VNI}};

constexpr uint32_t pool_of_flags(uint32_t flags)
{
    for (const mac_variant &variant : mac_variants) {
        if ((flags & variant.flag) != 0) {
            return variant.pool;
        }
    }
    return EDM_POOL_MAC;
}

} // namespace edm
