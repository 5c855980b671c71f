// SPDX-License-Identifier: Apache-2.0

#include "forwarding/recorded/replay.h"

#include <atomic>
#include <cerrno>
#include <new>
#include <optional>
#include <utility>

#include "forwarding/recorded/elements.h"
#include "forwarding/recorded/tables.h"

namespace forwarding {
namespace {

class recorded : public plane {
public:
    explicit recorded(recorded_tables tables)
        : tables_(std::move(tables))
    {}

    const char *kind() const override { return "recorded"; }

    base::result start(event_manager_t *, sink &to) override
    {
        to.full_dump_begun();
        for (const link_record &link : tables_.links) {
            to.link_changed(link);
        }
        for (size_t at = 0; at < tables_.entries.size(); at++) {
            to.fdb_changed(tables_.entries.at(at));
        }
        started_ = true;
        to.full_dump_ended(true);
        return base::success();
    }

    void drain() override {}

    void query(std::span<const fdb_key> keys, std::span<fdb_answer> answers) override
    {
        for (size_t at = 0; at < keys.size(); at++) {
            const std::optional<fdb_record> found = tables_.entries.find(keys[at]);
            answers[at].presence = !started_           ? fdb_presence::unknown
                                   : found.has_value() ? fdb_presence::present
                                                       : fdb_presence::absent;
            answers[at].record = found.value_or(fdb_record{});
        }
    }

    plane_health health() const override
    {
        plane_health health;
        health.clean = started_;
        health.full_dumps = 1;
        health.events = tables_.links.size() + tables_.entries.size();
        return health;
    }

    void stop() override { started_ = false; }

private:
    const recorded_tables tables_;
    std::atomic<bool> started_{false};
};

} // namespace

base::result load_recorded_plane(const std::string &directory, std::unique_ptr<plane> &loaded)
{
    try {
        loaded = std::make_unique<recorded>(read_tables(directory));
        return base::success();
    } catch (const malformed &wrong) {
        return base::failure(EINVAL, wrong.what());
    } catch (const std::bad_alloc &) {
        return base::failure(ENOMEM, directory + ": out of memory");
    }
}

} // namespace forwarding
