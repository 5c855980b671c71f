// SPDX-License-Identifier: Apache-2.0

#include "forwarding/feeder/objects/tunnel_ends.h"

#include <bit>

#include <arpa/inet.h>

namespace forwarding {
namespace {

uint32_t number_of(const std::array<uint8_t, 4> &address)
{
    return ntohl(std::bit_cast<uint32_t>(address));
}

} // namespace

void tunnel_ends::use(const fed_place &place)
{
    if (place.vtep == 0) {
        return;
    }
    const base::scoped_lock hold(mutex_);
    vtep_users &users = vteps_[{place.xcid, place.vtep, place.vni}];
    users.count++;
    users.bridge_id = place.bridge_id;
}

bool tunnel_ends::leave(const fed_place &place)
{
    const base::scoped_lock hold(mutex_);
    const auto users = vteps_.find({place.xcid, place.vtep, place.vni});
    if (users == vteps_.end() || --users->second.count != 0) {
        return false;
    }
    vteps_.erase(users);
    const auto other = vteps_.lower_bound({place.xcid, place.vtep, 0});
    return other == vteps_.end() || other->first.xcid != place.xcid || other->first.address != place.vtep;
}

void tunnel_ends::show_vnis(const fed_place &place, const mac_address &mac, const entry_vnis &vnis)
{
    const base::scoped_lock hold(mutex_);
    own_vnis_[{place.xcid, place.vtep, mac}] = vnis;
}

void tunnel_ends::show_port_vni(const fed_place &place, const mac_address &mac)
{
    const base::scoped_lock hold(mutex_);
    own_vnis_.erase({place.xcid, place.vtep, mac});
}

std::vector<vtep_view> tunnel_ends::list(const vtep_view &after, uint32_t max_ends) const
{
    std::vector<vtep_view> found;
    const base::scoped_lock hold(mutex_);
    auto at = vteps_.upper_bound({after.xcid, number_of(after.address), after.vni});
    for (; at != vteps_.end() && found.size() < max_ends; at++) {
        const auto address = std::bit_cast<std::array<uint8_t, 4>>(htonl(at->first.address));
        found.push_back({at->second.bridge_id, at->first.xcid, address, at->first.vni});
    }
    return found;
}

void tunnel_ends::add_vnis(std::vector<mac_row> &rows) const
{
    for (mac_row &row : rows) {
        if (row.port == nullptr || row.port->kind != port_kind::vxlan || row.vni != 0) {
            continue;
        }
        row.vni = row.port->vni;
        const base::scoped_lock hold(mutex_); // for one row at a time, so that feeds do not wait for a page
        const auto own = own_vnis_.find({row.xcid, number_of(row.vtep), row.mac});
        if (own != own_vnis_.end()) {
            row.vni = own->second.vni;
            row.source_vni = own->second.source_vni;
        }
    }
}

} // namespace forwarding
