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
    const std::lock_guard guard(lock_);
    size_ = {common, reserve};
}

place fair_places::take(uid_t user, std::string &reason)
{
    const std::lock_guard guard(lock_);
    holding &own = users_[user];
    if (own.common < size_.common - taken_.common) {
        own.common++;
        taken_.common++;
        return place::common;
    }
    if (user == root && taken_.reserve < size_.reserve) {
        own.reserve++;
        taken_.reserve++;
        return place::reserve;
    }
    refused_++;
    reason = reason_for(user, own);
    if (own.common + own.reserve == 0) {
        users_.erase(user);
    }
    return place::none;
}

void fair_places::give_back(uid_t user, place taken)
{
    const std::lock_guard guard(lock_);
    const auto found = users_.find(user);
    if (taken == place::none || found == users_.end()) {
        return;
    }
    const auto count = taken == place::common ? &holding::common : &holding::reserve;
    (found->second.*count)--;
    (taken_.*count)--;
    if (found->second.common + found->second.reserve == 0) {
        users_.erase(found);
    }
}

uint32_t fair_places::taken() const
{
    const std::lock_guard guard(lock_);
    return taken_.common + taken_.reserve;
}

uint64_t fair_places::refused() const
{
    const std::lock_guard guard(lock_);
    return refused_;
}

std::string fair_places::reason_for(uid_t user, const holding &of) const
{
    const uint32_t own = of.common + of.reserve;
    const uint32_t others = taken_.common + taken_.reserve - own;
    const uint32_t size = size_.common + (user == root ? size_.reserve : 0);
    return "user " + std::to_string(user) + " has " + std::to_string(own) + " of " + std::to_string(size) + " " + what_
           + ", other users have " + std::to_string(others) + ": close some, or try again";
}

// ---- Refused connections ----

std::optional<int> refused_connections::add(int socket, uid_t user)
{
    const std::lock_guard guard(lock_);
    queue_.push_back({socket, user});
    if (queue_.size() <= most_) {
        return std::nullopt;
    }
    const auto count_of = [this](const refused &of) { return std::ranges::count(queue_, of.user, &refused::user); };
    const auto oldest = std::ranges::max_element(queue_, {}, count_of); // the first of several
    const int cut = oldest->socket;
    queue_.erase(oldest);
    return cut;
}

void refused_connections::remove(int socket)
{
    const std::lock_guard guard(lock_);
    std::erase_if(queue_, [socket](const refused &each) { return each.socket == socket; });
}

} // namespace l2fibd
