// SPDX-License-Identifier: Apache-2.0

// Gives ids to bridge domains and ports. While all ids are in use, new objects wait in line, and their entries wait
// with them.
//
// An id is handed out again only if three conditions hold:
//  - the cache thread has handled the removal of the old owner;
//  - the queue of changes is empty;
//  - the id has rested (ids.h).
// The first two keep changes of the old owner from the new one. The rest protects readers, which copy names first and
// read rows by id later.
//
// A bridge domain may hold a million entries, so the work is done in rounds of the event loop. Each round gives ids to
// some objects and puts some of their entries into the queue of changes. All answers stay limited until the cache holds
// the last of these entries.
//
// Threads: the cache thread, without the table lock. The last section is for any thread.
#pragma once

#include <atomic>
#include <deque>
#include <string>

#include "forwarding/feeder/change_queue.h"
#include "forwarding/feeder/objects/counters.h"
#include "forwarding/feeder/objects/ids.h"
#include "forwarding/feeder/objects/registry.h"

namespace forwarding {

class numbering {
public:
    numbering(feed_context &context, registry &objects, entry_counters &counters, change_queue &queue);

    // Give an id to a new object, or a place in the line.
    void number_domain(uint32_t domain);
    void number_port(uint32_t port);
    bool domain_waits(uint32_t domain);

    // Take the id of an object that ends, or its place in the line.
    void end_domain(uint32_t domain);
    void end_port(uint32_t port);

    // Frees ids that have rested and gives ids to objects that wait. It puts the entries of these objects into the
    // queue of changes. Call it with an empty queue. While a removal is on its way it does nothing: the removal's
    // arrival leads to the next call.
    void follow();
    // Ends the shortage when no object waits for an id and no entry waits for its feed. Call it with an empty queue of
    // changes, because queued entries may have waited for an id.
    void end_shortage();

    // ---- Any thread ----

    // An object or an entry lacks an id.
    bool is_short() const { return is_short_ || counters_.of_standing(standing::without_id) != 0; }
    std::string text_of_shortage() const;
    // How many times ids have run out.
    uint64_t limitations() const { return limitations_; }
    id_view domain_ids() const { return {bridge_ids_.limit(), bridge_ids_.waiting()}; }
    id_view port_ids() const { return {xcids_.limit(), xcids_.waiting()}; }

private:
    bool name_domain(uint32_t domain, uint32_t id);
    bool connect_port(uint32_t port, uint32_t xcid);
    void begin_shortage(refusal reason, const std::string &object);
    void leave_line(id_line &line, uint64_t &place);
    void give_back(id_line &line, uint32_t id);
    void follow_later();
    void end_rest();
    void serve_line(id_line &line, void (numbering::*give)(const served_object &served));
    void serve_domain(const served_object &served);
    void serve_port(const served_object &served);
    void feed_port_later(uint32_t port);
    void feed_served();

    feed_context &context_;
    registry &objects_;
    entry_counters &counters_;
    change_queue &queue_;

    id_line bridge_ids_{context_.settings.domain_limit};
    id_line xcids_{context_.settings.port_limit};
    slot_records<uint64_t> domain_lines_; // the place of each domain in the line for an id; 0: it does not wait
    slot_records<uint64_t> port_lines_;
    std::deque<uint32_t> served_ports_; // ports that got an id and whose entries are not all queued yet
    bool is_rest_expected_ = false;     // a timer will run end_rest
    // An object waits for an id, or has got one and its entries are not all in the cache yet.
    std::atomic<bool> is_short_{false};
    std::atomic<uint64_t> limitations_{0};
};

} // namespace forwarding
