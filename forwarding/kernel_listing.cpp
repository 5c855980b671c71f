#include "forwarding/kernel_listing.h"

namespace forwarding {

namespace {

constexpr uint32_t most_attempts = 4;
constexpr size_t most_changed = size_t{1} << 20;

} // namespace

void listing_begin(kernel_listing &listing)
{
    listing = {};
    listing.running = true;
    listing.waiting.push_back({kernel_scope::links, 0});
}

bool listing_next(kernel_listing &listing)
{
    if (listing.waiting.empty()) {
        return false;
    }
    listing.current = listing.waiting.front();
    listing.waiting.pop_front();
    listing.attempts = 0;
    return true;
}

void listing_open_window(kernel_listing &listing)
{
    ++listing.attempts;
    listing.disturbed = false;
    listing.changed.clear();
    listing.changed_links.clear();
    listing.unbounded = false;
}

bool listing_close_window(kernel_listing &listing, bool may_repeat)
{
    if (!listing.disturbed) {
        return false;
    }
    if (may_repeat && listing.attempts < most_attempts) {
        return true;
    }
    listing.clean = false;
    return false;
}

void listing_note_changed(kernel_listing &listing, const fdb_key &key)
{
    if (!listing.running || listing.unbounded) {
        return;
    }
    listing.changed.insert(key);
    if (listing.changed.size() > most_changed) {
        listing.changed.clear();
        listing.unbounded = true;
        listing.disturbed = true;
    }
}

void listing_note_gone(kernel_listing &listing, const fdb_record &record, uint32_t bridge)
{
    listing_note_changed(listing, key_of(record));
    const kernel_dump &current = listing.current;
    const uint32_t touched = current.scope == kernel_scope::bridge ? bridge : record.ifindex;
    listing.disturbed |= current.scope != kernel_scope::links && touched == current.ifindex;
}

void listing_note_link(kernel_listing &listing, uint32_t ifindex, bool gone_or_moved)
{
    if (listing.running) {
        listing.changed_links.insert(ifindex);
        listing.disturbed |= gone_or_moved;
    }
}

bool listing_believes(const kernel_listing &listing, const fdb_key &key)
{
    return !listing.unbounded && !listing.changed.contains(key);
}

bool listing_believes_link(const kernel_listing &listing, uint32_t ifindex)
{
    return !listing.changed_links.contains(ifindex);
}

} // namespace forwarding
