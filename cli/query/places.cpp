// SPDX-License-Identifier: Apache-2.0

#include "cli/query/places.h"

namespace l2fibctl {

namespace {

// "p1", "vxlan7/192.0.2.1", or nothing.
std::string place_text(json_value item, std::string_view port_member, std::string_view vtep_member)
{
    std::string place(text_of(item, port_member));
    const std::string_view vtep = text_of(item, vtep_member);
    return vtep.empty() ? place : place.append("/").append(vtep);
}

struct places {
    std::string from;
    std::string to;
};

places places_of(json_value item)
{
    const std::string_view event = text_of(item, "event");
    const std::string here = place_text(item, "port", "vtep");
    if (find(item, "from-port") || find(item, "from-vtep")) {
        return {place_text(item, "from-port", "from-vtep"), here};
    }
    if (find(item, "other-port") || find(item, "other-vtep")) {
        return {place_text(item, "other-port", "other-vtep"), here};
    }
    const bool has_gone = event == "aged" || event == "removed";
    return has_gone ? places{here, {}} : places{{}, here};
}

void put_place(text_buffer &to, std::string_view member, const std::string &place)
{
    if (!place.empty()) {
        put_name(to, ',', member);
        put_text(to, place);
    }
}

} // namespace

std::string with_places(json_value item)
{
    const places found = places_of(item);
    text_buffer made;
    put_value(made, item);
    made.shorten(made.size() - 1); // the brace; an item has at least one member
    put_place(made, from_member, found.from);
    put_place(made, to_member, found.to);
    made.put('}');
    return std::string(made.text());
}

} // namespace l2fibctl
