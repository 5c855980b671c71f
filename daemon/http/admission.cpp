// SPDX-License-Identifier: Apache-2.0

#include "daemon/http/admission.h"

#include <algorithm>

namespace l2fibd {

namespace {

constexpr uid_t root = 0;

} // namespace

// ---- Places ----

void fair_places::set_size(uint32_t common, uint32_t reserve)
{
    const base::scoped_lock hold(lock_);
    size_ = {common, reserve};
}

admission fair_places::take(uid_t user)
{
    const base::scoped_lock hold(lock_);
    holding &own = users_[user];
    if (own.common < size_.common - taken_.common) {
        own.common++;
        taken_.common++;
        return {place::common};
    }
    if (user == root && taken_.reserve < size_.reserve) {
        own.reserve++;
        taken_.reserve++;
        return {place::reserve};
    }
    refused_++;
    admission refused{place::none, refusal_of(user, own)};
    if (own.total() == 0) {
        users_.erase(user);
    }
    return refused;
}

void fair_places::give_back(uid_t user, place taken)
{
    const base::scoped_lock hold(lock_);
    const auto found = users_.find(user);
    if (taken == place::none || found == users_.end()) {
        return;
    }
    const auto count = taken == place::common ? &holding::common : &holding::reserve;
    (found->second.*count)--;
    (taken_.*count)--;
    if (found->second.total() == 0) {
        users_.erase(found);
    }
}

uint32_t fair_places::taken() const
{
    const base::scoped_lock hold(lock_);
    return taken_.total();
}

uint64_t fair_places::refused() const
{
    const base::scoped_lock hold(lock_);
    return refused_;
}

std::string fair_places::refusal_of(uid_t user, const holding &own) const
{
    const uint32_t others = taken_.total() - own.total();
    const uint32_t available = size_.common + (user == root ? size_.reserve : 0);
    return "user " + std::to_string(user) + " has " + std::to_string(own.total()) + " of " + std::to_string(available)
           + " " + unit_ + ", other users have " + std::to_string(others) + ": close some, or try again";
}

// ---- Refused connections ----

std::deque<refused_connections::refused>::iterator
refused_connections::oldest_of_largest_user(std::deque<refused> &queue)
{
    const auto count_of = [&queue](const refused &each) {
        return std::ranges::count(queue, each.user, &refused::user);
    };
    return std::ranges::max_element(queue, {}, count_of); // the first of several with the same count
}

std::optional<int> refused_connections::add(int socket, uid_t user)
{
    const base::scoped_lock hold(lock_);
    queue_.push_back({socket, user});
    if (queue_.size() <= max_) {
        return std::nullopt;
    }
    const auto oldest = oldest_of_largest_user(queue_);
    const int cut = oldest->socket;
    queue_.erase(oldest);
    return cut;
}

void refused_connections::remove(int socket)
{
    const base::scoped_lock hold(lock_);
    std::erase_if(queue_, [socket](const refused &each) { return each.socket == socket; });
}

} // namespace l2fibd
