// SPDX-License-Identifier: Apache-2.0

#include "daemon/api/history/history_sources.h"

#include <algorithm>
#include <tuple>
#include <utility>

#include "base/text.h"
#include "daemon/api/history/history_filter.h"
#include "daemon/api/history/history_records.h"
#include "daemon/api/lists/keys.h"
#include "forwarding/feeder/answers/history.h"

namespace l2fibd {

namespace {

constexpr int64_t ms_per_second = 1'000;

// Throws if the forwarding plane has ended: its empty page must not look like the end of a list.
void require_running()
{
    if (forwarding::objects() == nullptr) {
        throw daemon_ends("list");
    }
}

// An empty list whose filters name an object that does not exist is an error: the name is probably mistyped. Objects
// that have gone are in the history under their names.
void require_items(size_t count, const filters &given)
{
    if (count == 0) {
        static_cast<void>(resolve(given));
    }
}

// Nothing is kept until the first full dump has ended.
void write_history_since(json_writer &json, int64_t time_ms)
{
    if (time_ms != 0) {
        write_time_ms(json, "l2fib-mac:history-since", time_ms);
    }
}

// The address that alone passes the filters, if there is one.
std::optional<forwarding::mac_address> only_address(const filters &given)
{
    const base::mac_range &range = given.rest.addresses;
    return range.first == range.last ? std::optional(base::mac_of_number(range.first)) : std::nullopt;
}

class move_source final : public list_source {
public:
    move_source(const filters &given, const std::optional<std::string> &start)
        : given_(given)
        , filter_{.mac = only_address(given),
                  .passes = [given, now_ms = current_time_ms()](const forwarding::move_record &move) {
                      return passes_move(given, move, now_ms);
                  }}
    {
        if (start) {
            before_ = numbers_of<1>(*start, kind)[0];
        }
    }

    position fetch(uint32_t max_items, json_writer &json) override
    {
        const forwarding::move_page page = forwarding::read_moves(filter_, before_, max_items);
        require_running();
        for (const forwarding::move_record &move : page.moves) {
            write_move(json, move);
        }
        if (!page.more && before_ == 0) {
            require_items(page.moves.size(), given_);
        }
        before_ = page.next;
        history_since_ms_ = page.history_since_ms;
        return {key_of(kind, before_), static_cast<uint32_t>(page.moves.size()), page.more};
    }

    void write_members(json_writer &json) const override { write_history_since(json, history_since_ms_); }

private:
    static constexpr std::string_view kind = "h"; // the number before which the next page begins

    filters given_;
    forwarding::move_filter filter_;
    uint64_t before_ = 0;
    int64_t history_since_ms_ = 0;
};

class flap_source final : public list_source {
public:
    flap_source(const filters &given, uint32_t window_seconds, const std::optional<std::string> &start)
        : given_(given)
        , window_ms_(int64_t{window_seconds} * ms_per_second)
    {
        if (start) {
            const auto [moves, last_ms, bridge_id, address] = numbers_of<4>(*start, kind);
            after_ = {~moves, ~last_ms, bridge_id, address};
        }
    }

    position fetch(uint32_t max_items, json_writer &json) override
    {
        if (counted_ms_ < 0) {
            find();
        }
        const size_t end = std::min(page_.flaps.size(), next_ + max_items);
        const auto count = static_cast<uint32_t>(end - next_);
        for (; next_ < end; next_++) {
            write_flap(json, page_.flaps[next_], counted_ms_);
        }
        return {end == 0 ? "" : key_of_flap(page_.flaps[end - 1]), count, end < page_.flaps.size()};
    }

    void write_members(json_writer &json) const override { write_history_since(json, page_.history_since_ms); }

private:
    // Most moves first, then the latest first. The numbers of both are inverted, so that the order ascends.
    using place = std::tuple<uint64_t, uint64_t, uint64_t, uint64_t>;
    static constexpr std::string_view kind = "f"; // moves, time of the last one, bridge id, address

    static place place_of(const forwarding::flap_record &flap)
    {
        return {~uint64_t{flap.moves}, ~static_cast<uint64_t>(flap.last_ms), flap.place->bridge_id,
                base::number_of_mac(flap.mac)};
    }

    static std::string key_of_flap(const forwarding::flap_record &flap)
    {
        return key_of(kind, flap.moves, flap.last_ms, flap.place->bridge_id, base::number_of_mac(flap.mac));
    }

    void find()
    {
        const int64_t now_ms = current_time_ms();
        page_ = forwarding::find_flaps(
            window_ms_, [&](const forwarding::move_record &move) { return passes_move(given_, move, now_ms); });
        require_running();
        counted_ms_ = std::clamp<int64_t>(now_ms - page_.history_since_ms, 0, window_ms_);
        std::ranges::sort(page_.flaps, {}, place_of);
        require_items(page_.flaps.size(), given_);
        const auto next = std::ranges::upper_bound(page_.flaps, after_, {}, place_of);
        next_ = static_cast<size_t>(next - page_.flaps.begin());
    }

    filters given_;
    int64_t window_ms_;
    int64_t counted_ms_ = -1; // the time in which moves were counted; negative: they were not counted yet
    place after_ = {};
    forwarding::flap_page page_ = {};
    size_t next_ = 0;
};

} // namespace

std::unique_ptr<list_source> make_move_source(const filters &given, const std::optional<std::string> &start)
{
    return std::make_unique<move_source>(given, start);
}

std::unique_ptr<list_source> make_flap_source(const filters &given, uint32_t window_seconds,
                                              const std::optional<std::string> &start)
{
    return std::make_unique<flap_source>(given, window_seconds, start);
}

} // namespace l2fibd
