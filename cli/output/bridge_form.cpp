// SPDX-License-Identifier: Apache-2.0

#include "cli/output/bridge_form.h"

#include <algorithm>
#include <span>
#include <string_view>
#include <vector>

namespace l2fibctl {

namespace {

constexpr std::string_view flood_address = "00:00:00:00:00:00";

struct word_pair {
    std::string_view ours;   // in the daemon's API
    std::string_view theirs; // in the output of `bridge`
};

constexpr word_pair flag_words[] = {
    {"extern-learned", "extern_learn"},
    {"offloaded", "offload"},
    {"sticky", "sticky"},
    {"locked", "locked"},
};

constexpr word_pair bridge_states[] = {
    {"static", "static"},
    {"local", "permanent"},
};

constexpr word_pair device_states[] = {
    {"permanent", "permanent"},
    {"static", "static"},
    {"stale", "stale"},
};

// Members of a device's entry, in the order in which `bridge` prints them.
constexpr word_pair device_members[] = {
    {"destination", "dst"}, {"udp-port", "port"}, {"vni", "vni"}, {"source-vni", "src_vni"}, {"next-hop-id", "nhid"},
};

using words = std::vector<std::string_view>;

words flags_of(json_value entry)
{
    words found;
    const json_value flags = find(entry, "flags");
    if (!flags) {
        return found;
    }
    if (!flags.is_array()) {
        fail_damaged();
    }
    for (json_value flag = flags.first(); flag != flags.end(); flag = flag.next()) {
        if (flag.is_text()) {
            found.push_back(flag.text());
        }
    }
    return found;
}

// Returns the first of `states` that `entry_words` contain. A learned entry has no state.
std::string_view state_of(const words &entry_words, std::span<const word_pair> states)
{
    const auto found = std::ranges::find_if(
        states, [&](const word_pair &row) { return std::ranges::count(entry_words, row.ours) != 0; });
    return found != states.end() ? found->theirs : std::string_view();
}

void put_member(text_buffer &to, std::string_view name, std::string_view text)
{
    put_name(to, to.size() == 0 ? '{' : ',', name);
    put_text(to, text);
}

void put_member(text_buffer &to, std::string_view name, json_value value)
{
    put_name(to, ',', name);
    put_value(to, value);
}

// Puts `first` before the entry's own flags unless it is empty.
void put_flags(text_buffer &to, std::string_view first, const words &flags)
{
    words shown;
    if (!first.empty()) {
        shown.push_back(first);
    }
    for (const word_pair &row : flag_words) {
        if (std::ranges::count(flags, row.ours) != 0) {
            shown.push_back(row.theirs);
        }
    }
    put_name(to, ',', "flags");
    to.put('[');
    for (size_t i = 0; i < shown.size(); i++) {
        to.put(i == 0 ? "" : ",");
        put_text(to, shown[i]);
    }
    to.put(']');
}

} // namespace

std::string bridge_entry_of(json_value mac_entry, const bridge_names &bridges)
{
    const std::string_view mac = text_of(mac_entry, "mac-address");
    if (mac == flood_address) {
        return {};
    }
    const auto found = bridges.find(number_of(mac_entry, "bridge-id"));
    const std::string_view bridge = found != bridges.end() ? std::string_view(found->second) : "";
    text_buffer made;
    put_member(made, "mac", mac);
    put_member(made, "ifname", find(mac_entry, "port") ? text_of(mac_entry, "port") : bridge);
    if (const json_value vlan = find(mac_entry, "vlan")) {
        put_member(made, "vlan", vlan);
    }
    put_flags(made, "", flags_of(mac_entry));
    put_member(made, "master", bridge);
    put_member(made, "state", state_of({text_of(mac_entry, "origin")}, bridge_states));
    made.put('}');
    return std::string(made.text());
}

std::string device_entry_of(json_value tunnel_entry)
{
    const words flags = flags_of(tunnel_entry);
    text_buffer made;
    put_member(made, "mac", text_of(tunnel_entry, "mac-address"));
    put_member(made, "ifname", text_of(tunnel_entry, "port"));
    for (const word_pair &row : device_members) {
        if (const json_value value = find(tunnel_entry, row.ours)) {
            put_member(made, row.theirs, value);
        }
    }
    put_flags(made, "self", flags);
    put_member(made, "state", state_of(flags, device_states));
    made.put('}');
    return std::string(made.text());
}

} // namespace l2fibctl
