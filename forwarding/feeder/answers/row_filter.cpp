// SPDX-License-Identifier: Apache-2.0

#include "forwarding/feeder/answers/row_filter.h"

#include "l2fib_mac_edm.h"

namespace forwarding {

row_origin origin_of(uint16_t flags)
{
    return (flags & EDM_MAC_LOCAL) != 0    ? row_origin::local
           : (flags & EDM_MAC_STATIC) != 0 ? row_origin::fixed
                                           : row_origin::learned;
}

base::ip_address address_of(const fdb_destination &destination)
{
    switch (destination.kind) {
    case destination_kind::ipv4: return base::ip_of(std::span(destination.address).first<base::ipv4_bytes>());
    case destination_kind::ipv6: return destination.address;
    default: return {};
    }
}

bool passes_place(const row_filter &filter, const port_place &at)
{
    return filter.domains.holds(at.first) && filter.ports.holds(at);
}

bool passes_address(const row_filter &filter, const mac_address &mac)
{
    const uint64_t number = base::number_of_mac(mac);
    const auto has = [number](const base::mac_range &range) { return range.holds(number); };
    return has(filter.addresses) && std::ranges::none_of(filter.not_addresses, has);
}

bool passes_values(const row_filter &filter, const filtered_values &values)
{
    return (filter.flags == 0 || (values.flags & filter.flags) != 0) && filter.origins.holds(origin_of(values.flags))
           && filter.vlans.holds(values.vlan) && filter.vnis.holds(values.vni) && filter.vteps.holds(values.vtep)
           && passes_address(filter, values.mac);
}

bool has_ipv6(const row_filter &filter)
{
    return !std::ranges::all_of(filter.vteps.values, base::is_ipv4);
}

} // namespace forwarding
