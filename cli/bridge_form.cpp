#include "cli/bridge_form.h"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <string_view>

namespace l2fibctl {

namespace {

using nlohmann::json;

struct flag_text {
    std::string_view ours;
    std::string_view theirs;
    bool of_device; // kept by the VXLAN device as well
};

constexpr flag_text flag_texts[] = {
    {"extern-learned", "extern_learn", true},
    {"offloaded", "offload", true},
    {"sticky", "sticky", false},
    {"locked", "locked", false},
};

struct state_text {
    std::string_view origin;
    std::string_view in_bridge;
    std::string_view in_device;
};

constexpr state_text state_texts[] = {
    {"learned", "", ""},
    {"static", "static", "permanent"},
    {"local", "permanent", "permanent"},
};

const state_text &state_of(const json &entry)
{
    const auto origin = entry.value("origin", std::string());
    const auto *found = std::ranges::find(state_texts, origin, &state_text::origin);
    return found != std::end(state_texts) ? *found : state_texts[0];
}

void add_flags(json &to, const json &entry, bool of_device)
{
    const json ours = entry.value("flags", json::array());
    for (const flag_text &flag : flag_texts) {
        if ((flag.of_device || !of_device) && std::ranges::find(ours, flag.ours) != ours.end()) {
            to.push_back(flag.theirs);
        }
    }
}

json in_bridge(const json &entry, const std::string &bridge)
{
    json made = {{"mac", entry.value("mac-address", "")},
                 {"ifname", entry.value("port", bridge)},
                 {"flags", json::array()},
                 {"master", bridge},
                 {"state", state_of(entry).in_bridge}};
    if (entry.contains("vlan")) {
        made["vlan"] = entry["vlan"];
    }
    add_flags(made["flags"], entry, false);
    return made;
}

json in_device(const json &entry)
{
    json made = {{"mac", entry.value("mac-address", "")},
                 {"ifname", entry.value("port", "")},
                 {"dst", entry.value("vtep", "")},
                 {"flags", {"self"}},
                 {"state", state_of(entry).in_device}};
    add_flags(made["flags"], entry, true);
    return made;
}

} // namespace

std::vector<json> bridge_form(const json &entry, const bridge_names &bridges)
{
    const auto bridge = bridges.find(entry.value("bridge-id", uint64_t(0)));
    std::vector<json> made;
    // Destinations of the zero address are the flood list, which only the device has.
    if (entry.value("mac-address", "") != "00:00:00:00:00:00") {
        made.push_back(in_bridge(entry, bridge != bridges.end() ? bridge->second : ""));
    }
    if (entry.contains("vtep")) {
        made.push_back(in_device(entry));
    }
    return made;
}

} // namespace l2fibctl
