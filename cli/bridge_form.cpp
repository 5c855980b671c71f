#include "cli/bridge_form.h"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <span>
#include <string_view>

namespace l2fibctl {

namespace {

using nlohmann::json;

struct word_pair {
    std::string_view ours;
    std::string_view theirs;
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

// Members that are called otherwise there, where an entry has them.
constexpr word_pair device_members[] = {
    {"destination", "dst"}, {"udp-port", "port"}, {"vni", "vni"}, {"source-vni", "src_vni"}, {"next-hop-id", "nhid"},
};

bool has_word(const json &words, std::string_view word)
{
    return std::ranges::find(words, word) != words.end();
}

// The first state that one of the words tells; none is an entry that was learned.
std::string_view state_of(const json &words, std::span<const word_pair> states)
{
    const auto found = std::ranges::find_if(states, [&](const word_pair &row) { return has_word(words, row.ours); });
    return found != states.end() ? found->theirs : std::string_view();
}

void add_flags(json &to, const json &words)
{
    for (const word_pair &row : flag_words) {
        if (has_word(words, row.ours)) {
            to.push_back(row.theirs);
        }
    }
}

} // namespace

json bridge_entry_of(const json &mac_entry, const bridge_names &bridges)
{
    if (mac_entry.value("mac-address", "") == "00:00:00:00:00:00") {
        return {};
    }
    const auto found = bridges.find(mac_entry.value("bridge-id", uint64_t(0)));
    const std::string bridge = found != bridges.end() ? found->second : "";
    json made = {{"mac", mac_entry.value("mac-address", "")},
                 {"ifname", mac_entry.value("port", bridge)},
                 {"flags", json::array()},
                 {"master", bridge},
                 {"state", state_of({mac_entry.value("origin", "")}, bridge_states)}};
    if (mac_entry.contains("vlan")) {
        made["vlan"] = mac_entry["vlan"];
    }
    add_flags(made["flags"], mac_entry.value("flags", json::array()));
    return made;
}

json device_entry_of(const json &tunnel_entry)
{
    const json words = tunnel_entry.value("flags", json::array());
    json made = {{"mac", tunnel_entry.value("mac-address", "")},
                 {"ifname", tunnel_entry.value("port", "")},
                 {"flags", {"self"}},
                 {"state", state_of(words, device_states)}};
    for (const word_pair &row : device_members) {
        if (tunnel_entry.contains(row.ours)) {
            made[row.theirs] = tunnel_entry[row.ours];
        }
    }
    add_flags(made["flags"], words);
    return made;
}

} // namespace l2fibctl
