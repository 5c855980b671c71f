// The API's JSON of single items, from encoded records and from the forwarding plane's views.
//
// Threads: any; a name cache belongs to one request.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>

#include "daemon/json_writer.h"
#include "forwarding/forwarding.h"
#include "host/operational_db_host.h"
#include "host/trace_reader.h"

namespace l2fibd {

// Names of ports by xcid: a copy of one moment, renewed when it lacks a port.
class port_names {
public:
    // Null when there is no such port. Valid until the next call.
    const forwarding::port_view *find(uint32_t xcid);

    // Lets the next port that is lacking renew the copy; once a page, so that ports that have gone cost little.
    void begin_page() { may_renew_ = true; }

private:
    std::unordered_map<uint32_t, forwarding::port_view> ports_;
    bool may_renew_ = true;
};

// `address` is the entry's own. Throws api_error for a record that is none.
void write_mac_entry(json_writer &json, std::span<const uint8_t> record, std::string_view address, port_names &names);

// The address that the name of a MAC item begins with.
std::string mac_of_item(std::string_view item_name);

// The port that a MAC info record names.
uint32_t xcid_of(std::span<const uint8_t> record);

// An item of the database's lists, whose name tells what its record does not.
void write_mac_item(json_writer &json, const host::operational_item &item, port_names &names);
void write_vtep_item(json_writer &json, const host::operational_item &item, port_names &names);

// `with_own` for the whole table's, which alone counts the bridges' own.
void write_mac_count(json_writer &json, std::span<const uint8_t> record, bool with_own);

// How many entries a record of counts stands for, or somewhat more.
uint64_t entries_counted(std::span<const uint8_t> record);

void write_domain(json_writer &json, const forwarding::domain_view &domain);
void write_port(json_writer &json, const forwarding::port_view &port);
void write_tunnel_entry(json_writer &json, const forwarding::tunnel_entry &entry);
void write_trace(json_writer &json, const host::trace_point &point, host::trace_ring ring);

} // namespace l2fibd
