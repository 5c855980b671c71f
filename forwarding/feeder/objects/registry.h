// SPDX-License-Identifier: Apache-2.0

// The bridge domains and ports that have an id: the forwarding manager's objects (host/objects/), the views that other
// threads read, the entries that each port has lost, and the failures and notes for the health report. Ids are handed
// out elsewhere (numbering.h).
//
//      registry objects(context);
//      objects.add_domain(domain, 1);         // stores the object "group:br0" and its view
//      objects.add_port(port, 7);
//      objects.find_port(7)                   // its slot in the shadow table
//
// Threads: the cache thread changes it; any thread may call the functions of the last section.
//
// Locking: a mutex guards what other threads read. It is held for a look-up by key, a page or an update, and nothing
// else is taken under it. The table lock may be held around it.
#pragma once

#include <array>
#include <atomic>
#include <map>
#include <memory>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "base/mutex.h"
#include "forwarding/feeder/context.h"

namespace forwarding {

// Kinds of failures, counted for the health report.
enum class refusal : uint8_t { feed, bridge_id, xcid, name, object, notification, count };

// Names of a bridge domain, and of one of its ports.
struct place_names {
    std::string domain;
    std::string port; // empty: the bridge domain itself
    uint16_t vlan = 0;
};

// Why the cache lacks an entry.
enum class loss : uint8_t { evicted, refused };

class registry {
public:
    explicit registry(feed_context &context);

    // Stores the object of a bridge domain under a new id. If another bridge domain has the name, the name gets the id
    // as a suffix. Returns false if the object was refused.
    bool add_domain(uint32_t domain, uint16_t bridge_id);
    void remove_domain(uint16_t bridge_id);
    // Brings the view of a bridge domain up to date. Returns false if the name of its bridge has changed: rename_domain
    // then changes the object.
    bool update_domain(uint32_t domain);
    // Gives the object the name of its bridge. Returns false if the name was refused.
    bool rename_domain(uint32_t domain);

    // Stores the cross-connect of a port under a new xcid. Returns false if memory ran out.
    bool add_port(uint32_t port, uint32_t xcid);
    void remove_port(uint16_t bridge_id, uint32_t xcid);
    // Brings the view of a port up to date, if it has an xcid. Returns whether the port has another name now.
    bool update_port(uint32_t port);

    // Return the slot in the shadow table, or no_slot.
    uint32_t find_domain(uint16_t bridge_id) const;
    uint32_t find_port(uint32_t xcid) const;
    // Slots by bridge id.
    const std::unordered_map<uint16_t, uint32_t> &domains_by_id() const { return domains_by_id_; }

    // "group:bridge", with ".VID" for a VLAN. The bridge may be unknown.
    std::string full_name(const shadow_domain &domain) const;

    // Counts an entry that a port has lost.
    void lose(uint16_t bridge_id, uint32_t xcid, loss why);
    // Counts a failure; the second one notes it, too.
    void refuse(refusal reason) { refusals_[static_cast<size_t>(reason)]++; }
    void refuse(refusal reason, const std::string &text);

    // ---- Any thread ----

    bool has_domain(uint16_t bridge_id) const;
    // The key of an address in a bridge domain. Returns false if there is no such bridge domain.
    bool find_key(uint16_t bridge_id, const mac_address &mac, fdb_key &key) const;
    // Empty if there is none.
    std::string domain_name(uint16_t bridge_id) const;
    // Empty if there is none. `xcid` may be EDM_XCID_DUMMY.
    place_names names_of(uint16_t bridge_id, uint32_t xcid) const;
    // Returns all bridge domains and ports as they are now. What is returned never changes.
    std::shared_ptr<const object_views> views() const;
    // Adds failures, losses and notes.
    void add_to(health_view &view) const;

private:
    using port_place = std::pair<uint16_t, uint32_t>; // bridge id and xcid

    // Entries that a port has lost, over its lifetime.
    struct losses {
        uint64_t evicted = 0;
        uint64_t refused = 0;
    };

    bool set_object(uint16_t bridge_id, std::string &name);
    void view_domain(uint32_t domain, const std::string &name);
    void note(const std::string &text);

    feed_context &context_;
    std::unordered_map<uint16_t, uint32_t> domains_by_id_;
    std::unordered_map<uint32_t, uint32_t> ports_by_xcid_;
    std::array<std::atomic<uint64_t>, static_cast<size_t>(refusal::count)> refusals_ = {};

    mutable base::mutex mutex_;
    mutable object_views views_ L2FIB_GUARDED_BY(mutex_); // share() notes that a copy exists
    // A copy for readers. Null after a change, until views() copies again.
    mutable std::shared_ptr<const object_views> shared_views_ L2FIB_GUARDED_BY(mutex_);
    std::map<port_place, losses> losses_ L2FIB_GUARDED_BY(mutex_);
    std::vector<std::string> notes_ L2FIB_GUARDED_BY(mutex_);
};

} // namespace forwarding
