// SPDX-License-Identifier: Apache-2.0

// Compares the answers of a peer with ours before anything is measured. A peer that does less work, or other work,
// would otherwise look fast.
#include <stdexcept>
#include <string>

#include "bench/table/seat.h"

namespace bench {

namespace {

constexpr size_t checked_entries = 20'000;
constexpr size_t checked_steps = 500;

struct answer {
    const char *what;
    uint64_t number;
};

// Feeds everything, moves a tenth of it, and asks.
std::vector<answer> answers_after_moves(contestant &at, const work &on)
{
    at.feed(on.fed);
    at.feed(moved_entries(on));
    return {
        {"order of a walk", at.walks_in_order() ? at.walk() : cannot},
        {"entries of a walk", at.walks_in_order() ? at.look_up_by_domain(on.fed) : at.walk()},
        {"look_up_by_domain", at.look_up_by_domain(on.shuffled)},
        {"look_up_by_domain of absent addresses", at.look_up_by_domain(on.absent)},
        {"look_up_by_port", at.look_up_by_port(on.shuffled)},
        {"successors", at.successors(on.absent)},
        {"steps", at.steps(1, checked_steps)},
        {"pages", at.pages()},
    };
}

std::vector<answer> answers_after_removals(contestant &at, const work &on)
{
    const entries kept = entries(on.fed).first(on.fed.size() / 2);
    at.mark_all();
    if (at.feed_batches(kept) == cannot) {
        at.feed(kept);
    }
    const uint64_t swept = at.sweep_all() == cannot ? cannot : at.look_up_by_domain(on.fed);
    at.remove_domain(1);
    return {
        {"look_up_by_domain after a sweep", swept},
        {"look_up_by_domain of what a sweep and a removal left", at.look_up_by_domain(kept)},
        {"order of a walk after a removal", at.walks_in_order() ? at.walk() : cannot},
    };
}

void compare(const char *peer, const std::vector<answer> &ours, const std::vector<answer> &theirs)
{
    for (size_t i = 0; i < ours.size(); i++) {
        if (theirs[i].number != cannot && theirs[i].number != ours[i].number) {
            throw std::runtime_error(std::string(peer) + " answers differently from ours: " + ours[i].what);
        }
    }
}

template <typename Ask>
std::vector<answer> ask(contestant &at, const work &on, Ask questions)
{
    if (!at.open(on.over)) {
        return {};
    }
    std::vector<answer> answers = questions(at, on);
    at.close();
    return answers;
}

} // namespace

bool check_answers(contestant &ours, contestant &peer)
{
    const work on = make_work(main_layout, checked_entries);
    const auto both = [](contestant &at, const work &of) {
        std::vector<answer> all = answers_after_moves(at, of);
        const std::vector<answer> later = answers_after_removals(at, of);
        all.insert(all.end(), later.begin(), later.end());
        return all;
    };
    const std::vector<answer> theirs = ask(peer, on, both);
    if (theirs.empty()) {
        return false;
    }
    compare(peer.name(), ask(ours, on, both), theirs);
    return true;
}

} // namespace bench
