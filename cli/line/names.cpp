// SPDX-License-Identifier: Apache-2.0

#include "cli/line/names.h"

#include <algorithm>
#include <numeric>

#include "base/visible.h"
#include "cli/line/wording.h"

namespace l2fibctl {

namespace {

using names = std::vector<std::string_view>;

constexpr std::string_view long_dashes = "--";
constexpr size_t letters_per_slip = 3; // of a suggestion: one slip in a short word, two in a long one

// The number of characters to insert, remove, replace or swap with their neighbour.
size_t edit_distance(std::string_view one, std::string_view other)
{
    std::vector<size_t> before_last(other.size() + 1);
    std::vector<size_t> last(other.size() + 1);
    std::vector<size_t> row(other.size() + 1);
    std::iota(row.begin(), row.end(), size_t(0));
    for (size_t i = 1; i <= one.size(); i++) {
        before_last.swap(last);
        last.swap(row);
        row[0] = i;
        for (size_t j = 1; j <= other.size(); j++) {
            const size_t replaced = last[j - 1] + (one[i - 1] == other[j - 1] ? 0 : 1);
            row[j] = std::min({replaced, last[j] + 1, row[j - 1] + 1});
            if (i > 1 && j > 1 && one[i - 1] == other[j - 2] && one[i - 2] == other[j - 1]) {
                row[j] = std::min(row[j], before_last[j - 2] + 1);
            }
        }
    }
    return row.back();
}

names beginning_with(std::string_view prefix, const names &candidates)
{
    names found;
    std::ranges::copy_if(candidates, std::back_inserter(found),
                         [&](std::string_view name) { return name.starts_with(prefix); });
    return found;
}

[[noreturn]] void fail_ambiguous(std::string_view typed, const names &meant, std::string_view dashes)
{
    fail_usage(in_quotes(std::string(dashes).append(typed)) + " is short for " + listed(meant, " and ", dashes)
               + "; expected more of the name");
}

// ---- Commands ----

// The words that can follow the group, or the first words if it is empty.
names command_words(std::string_view group)
{
    names found;
    for (const command_row &row : all_commands()) {
        const std::string_view word = row.group == group ? row.name : group.empty() ? row.group : "";
        if (!word.empty() && !row.is_hidden() && std::ranges::count(found, word) == 0) {
            found.push_back(word);
        }
    }
    return found;
}

// Returns the whole word for a name, an alias or an abbreviation. Returns an empty text for an unknown word. `matches`
// gets every word that the abbreviation can mean.
std::string_view whole_word(std::string_view group, std::string_view typed, names &matches)
{
    for (const command_row &row : all_commands()) {
        if (row.group == group && !typed.empty() && (row.name == typed || row.alias == typed)) {
            return row.name;
        }
    }
    matches = beginning_with(typed, command_words(group));
    return matches.size() == 1 ? matches.front() : std::string_view();
}

[[noreturn]] void fail_unknown_command(std::string_view group, std::string_view typed)
{
    const names candidates = command_words(group);
    const std::string_view meant = closest(typed, candidates);
    const std::string subject = (group.empty() ? "" : std::string(group) + ": ") + "no command " + in_quotes(typed);
    fail_usage(
        subject
        + (meant.empty() ? "; expected " + listed(candidates, " or ") : "; did you mean " + in_quotes(meant) + "?"));
}

const command_row *command_named(std::string_view group, std::string_view name)
{
    const auto commands = all_commands();
    const auto found =
        std::ranges::find_if(commands, [&](const command_row &row) { return row.group == group && row.name == name; });
    return found != commands.end() ? &*found : nullptr;
}

// ---- Options ----

std::string owner_of(const given_names &found)
{
    return found.command != nullptr ? words_of(*found.command) : "l2fibctl";
}

command_kind kind_of(const given_names &found)
{
    return found.command != nullptr ? found.command->kind : command_kind::none;
}

names option_names(command_kind command)
{
    names found;
    for (const option_row *row : options_of(command)) {
        found.push_back(row->name);
    }
    return found;
}

// The commands that have the option, such as "show mac and top".
std::string owners_of(std::string_view name)
{
    std::vector<std::string> words;
    for (const command_row &row : all_commands()) {
        if (!row.is_hidden() && find_option(name, row.kind) != nullptr) {
            words.push_back(words_of(row));
        }
    }
    return listed(names(words.begin(), words.end()), " and ");
}

// `typed` is not an option of the command.
[[noreturn]] void fail_unknown_option(const given_names &found, std::string_view typed)
{
    const std::string subject = "--" + base::visible(typed) + ": " + owner_of(found) + " has no such option";
    if (find_option(typed, command_kind::none) != nullptr) {
        fail_usage(subject + "; it goes with " + owners_of(typed));
    }
    const std::string_view meant = closest(typed, option_names(kind_of(found)));
    fail_usage(subject + (meant.empty() ? "" : "; did you mean --" + std::string(meant) + "?"));
}

const option_row &long_option(const given_names &found, std::string_view typed)
{
    if (const option_row *row = find_option(typed, kind_of(found))) {
        return *row;
    }
    const names meant = beginning_with(typed, option_names(kind_of(found)));
    if (meant.size() > 1) {
        fail_ambiguous(typed, meant, long_dashes);
    }
    if (meant.empty() || typed.empty()) {
        fail_unknown_option(found, typed);
    }
    return *find_option(meant.front(), kind_of(found));
}

// ---- Reading ----

void take_word(given_names &found, const std::string &word)
{
    if (found.command != nullptr) {
        found.arguments.push_back(word);
        return;
    }
    names matches;
    const std::string_view whole = whole_word(found.group, word, matches);
    if (matches.size() > 1) {
        fail_ambiguous(word, matches, "");
    }
    if (whole.empty()) {
        fail_unknown_command(found.group, word);
    }
    found.command = command_named(found.group, whole);
    found.group = found.command != nullptr ? "" : whole;
}

// --name, --name=value
void take_long(given_names &found, std::string_view word)
{
    const size_t equals = word.find('=');
    const option_row &row = long_option(found, word.substr(0, equals));
    if (row.is_flag() && equals != std::string_view::npos) {
        fail_usage("--" + std::string(row.name) + ": expected no value, not " + in_quotes(word.substr(equals + 1)));
    }
    if (row.is_flag() || equals != std::string_view::npos) {
        found.options.push_back({&row, std::string(row.is_flag() ? "" : word.substr(equals + 1))});
    } else {
        found.awaits = &row;
    }
}

// -j, -jr, -d NAME, -dNAME
void take_letters(given_names &found, std::string_view letters)
{
    while (!letters.empty()) {
        const option_row *row = find_option(letters.front(), kind_of(found));
        if (row == nullptr) {
            fail_usage("-" + base::visible(letters.substr(0, 1)) + ": " + owner_of(found) + " has no such option");
        }
        letters.remove_prefix(1);
        if (row->is_flag()) {
            found.options.push_back({row, ""});
        } else if (letters.empty()) {
            found.awaits = row;
        } else {
            found.options.push_back({row, std::string(letters)});
            return;
        }
    }
}

// Options before the command were looked up among those of all commands.
void bind_options(given_names &found)
{
    if (found.command == nullptr) {
        return;
    }
    for (given_option &one : found.options) {
        const option_row *row = find_option(one.row->name, found.command->kind);
        if (row == nullptr) {
            fail_unknown_option(found, one.row->name);
        }
        one.row = row;
    }
}

} // namespace

bool given_names::has(std::string_view name) const
{
    return std::ranges::any_of(options, [&](const given_option &one) { return one.row->name == name; });
}

given_names read_names(std::span<const std::string> words)
{
    given_names found;
    bool takes_options = true;
    for (const std::string &word : words) {
        if (found.awaits != nullptr) {
            found.options.push_back({found.awaits, word});
            found.awaits = nullptr;
        } else if (!takes_options || !word.starts_with('-') || word == "-") {
            take_word(found, word);
        } else if (word == long_dashes) {
            takes_options = false;
        } else if (word.starts_with(long_dashes)) {
            take_long(found, std::string_view(word).substr(long_dashes.size()));
        } else {
            take_letters(found, std::string_view(word).substr(1));
        }
    }
    bind_options(found);
    return found;
}

found_command find_command(std::span<const std::string> words)
{
    found_command found = {nullptr, {}};
    for (const std::string &word : words) {
        names matches;
        const std::string_view whole =
            found.command == nullptr ? whole_word(found.group, word, matches) : std::string_view();
        if (whole.empty()) {
            return {nullptr, {}};
        }
        found.command = command_named(found.group, whole);
        found.group = found.command == nullptr ? whole : std::string_view();
    }
    return found;
}

std::string_view closest(std::string_view word, std::span<const std::string_view> candidates)
{
    std::string_view best;
    size_t best_distance = std::max<size_t>(1, word.size() / letters_per_slip) + 1;
    for (const std::string_view candidate : candidates) {
        const size_t distance = edit_distance(word, candidate);
        if (distance < best_distance && distance < candidate.size() && distance < word.size()) {
            best = candidate;
            best_distance = distance;
        }
    }
    return best;
}

} // namespace l2fibctl
