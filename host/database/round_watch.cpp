// SPDX-License-Identifier: Apache-2.0

#include "host/database/round_watch.h"

#include <functional>

namespace {

constexpr uint64_t least_rounds = 3;
constexpr uint64_t least_pages = 16;

uint64_t mixed(uint64_t digest, uint64_t value)
{
    constexpr uint64_t odd = 0x9e3779b97f4a7c15u;
    return (digest ^ value) * odd;
}

} // namespace

bool host::round_watch::goes_round(std::string_view start_key, size_t item_count)
{
    const uint64_t key = std::hash<std::string_view>()(start_key);
    digest_ = mixed(mixed(digest_, key), item_count);
    pages_++;
    if (key == remembered_) {
        same_rounds_ = digest_ == last_round_ ? same_rounds_ + 1 : 1;
        last_round_ = digest_;
        const bool is_circle = same_rounds_ >= least_rounds && same_rounds_ * pages_ >= least_pages;
        digest_ = pages_ = 0;
        return is_circle;
    }
    if (pages_ == most_pages_) {
        remembered_ = key;
        same_rounds_ = 0;
        last_round_ = 0;
        digest_ = pages_ = 0;
        most_pages_ *= 2;
    }
    return false;
}
