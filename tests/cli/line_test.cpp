// SPDX-License-Identifier: Apache-2.0

// The command line of the client: every row of its table, and what it makes of names that are short or wrong.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

#include "base/text.h"
#include "cli/commands.h"
#include "cli/failure.h"
#include "cli/line/names.h"
#include "cli/line/parser.h"

namespace l2fibctl {
namespace {

using testing::HasSubstr;

std::vector<std::string> words_in(const std::string &line)
{
    std::istringstream in(line);
    return {std::istream_iterator<std::string>(in), {}};
}

client_options parsed(const std::string &line)
{
    const std::vector<std::string> words = words_in("l2fibctl " + line);
    std::vector<const char *> pointers;
    for (const std::string &word : words) {
        pointers.push_back(word.c_str());
    }
    return parse_options(static_cast<int>(pointers.size()), pointers.data()).value();
}

// The message of a command line that is refused as wrong usage.
std::string refusal_of(const std::string &line)
{
    try {
        parsed(line);
    } catch (const failure &error) {
        EXPECT_EQ(error.status, exit_status::wrong_usage) << line;
        return error.what();
    }
    return "accepted: " + line;
}

std::string shown_by(const std::string &line)
{
    testing::internal::CaptureStdout();
    run(parsed(line));
    return testing::internal::GetCapturedStdout();
}

// A value that the option takes.
std::string good_value(const option_row &row)
{
    if (!row.choices.empty()) {
        return std::string(row.choices.back());
    }
    return row.name == "vtep"                     ? "2001:db8::1"
           : row.name == "mac" || row.name == "c" ? "02:00:5e"
           : row.name == "not"                    ? "domain=br0"
                                                  : "7";
}

std::string line_of(const command_row &command)
{
    const bool is_address = command.argument.name == "ADDR";
    const bool is_needed = command.arguments == argument_count::required;
    return words_of(command) + (!is_needed ? "" : is_address ? " 02:00:00:00:00:01" : " bash");
}

TEST(Table, HasHelpCompletionAndAnErrorForEveryOptionOfEveryCommand)
{
    for (const command_row &command : all_commands()) {
        const std::string page = help_page(command);
        const std::string line = line_of(command);
        for (const option_row *row : options_of(command.kind)) {
            const std::string name = "--" + std::string(row->name);
            SCOPED_TRACE(line + " " + name);
            EXPECT_THAT(page, HasSubstr(name));
            EXPECT_THAT(page, HasSubstr(std::string(row->help)));
            if (row->letter != '\0') {
                EXPECT_THAT(page, HasSubstr(std::string("-") + row->letter + "," + name));
                EXPECT_EQ(find_option(row->letter, command.kind), row);
            }
            EXPECT_EQ(find_option(row->name, command.kind), row);
            EXPECT_THAT(shown_by("complete-words -- " + line + " " + name), HasSubstr(name + "\t"));
            if (row->is_flag()) {
                EXPECT_THAT(refusal_of(line + " " + name + "=1"), HasSubstr(name + ": expected no value"));
            } else {
                EXPECT_THAT(refusal_of(line + " " + name), HasSubstr(name + ": expected a value"));
                EXPECT_EQ(parsed(line + " " + name + " " + good_value(*row)).command, command.kind);
            }
            if (row->check != nullptr && row->name != "columns") {
                EXPECT_THAT(refusal_of(line + " " + name + " \x01/" + std::string(300, 'x')), HasSubstr(name));
            }
        }
    }
}

TEST(Table, AgreesWithItself)
{
    const client_options usual;
    for (const option_row &row : all_options()) {
        SCOPED_TRACE(row.name);
        // Before the command is known, any row says whether a value follows.
        EXPECT_EQ(find_option(row.name, command_kind::none)->is_flag(), row.is_flag());
        EXPECT_EQ(row.repeats || row.is_flag() || row.store != nullptr, true);
        if (row.environment.empty() && !row.fallback.empty()) {
            const std::string line = line_of(*std::ranges::find_if(
                all_commands(), [&](const command_row &one) { return has(row.commands, one.kind); }));
            const client_options made = parsed(line + " --" + std::string(row.name) + " " + std::string(row.fallback));
            EXPECT_EQ(made.timeout_seconds, usual.timeout_seconds);
            EXPECT_EQ(made.window_seconds, usual.window_seconds);
            EXPECT_EQ(made.interval_seconds, usual.interval_seconds);
            EXPECT_EQ(made.color, usual.color);
        }
    }
    for (const exclusion &row : all_exclusions()) {
        for (const command_row &command : all_commands()) {
            if (has(row.commands, command.kind)) {
                EXPECT_NE(find_option(row.one, command.kind), nullptr) << row.one;
                EXPECT_NE(find_option(row.other, command.kind), nullptr) << row.other;
            }
        }
    }
}

// The command and its filters, such as "show mac domain=br0".
std::string meaning_of(const std::string &line)
{
    const client_options options = parsed(line);
    std::string text = words_of(row_of(options.command));
    for (const filter &one : options.filters) {
        text += " " + one.name + "=" + one.value;
    }
    return text + (options.shown_as == form::json ? " json" : "") + (options.limit != no_limit ? " limit" : "");
}

TEST(Names, MayBeAbbreviatedAndStandAnywhere)
{
    const struct {
        const char *line;
        const char *meaning;
    } rows[] = {
        {"sh m", "show mac"},
        {"sh mac --dom br0", "show mac domain=br0"},
        {"--json show --domain=a mac", "show mac domain=a json"},
        {"-jl10 sh c -d a", "show count domain=a json limit"},
        {"sh mo -n port=eth1 --not mac=02:00", "show moves not-port=eth1 not-mac-prefix=02:00"},
        {"show mac -v1 --json -- 0200.0000.0001", "show mac vlan=1 json"},
        {"res --port -1", "resync port=-1"},
        {"show mac -t static --older 15m --newer-than=1d", "show mac type=static older-than=15m newer-than=1d"},
    };
    for (const auto &row : rows) {
        EXPECT_EQ(meaning_of(row.line), row.meaning) << row.line;
    }
    EXPECT_EQ(parsed("f 0200.0000.00AB").address, "02:00:00:00:00:ab");
    EXPECT_EQ(parsed("show flaps --window 2h").window_seconds, 7200u);
    EXPECT_EQ(parsed("show mac -h").words, words_in("show mac"));
}

TEST(Names, AreNamedWhenTheyAreWrong)
{
    const struct {
        const char *line;
        const char *message;
    } rows[] = {
        {"shwo mac", "no command \"shwo\"; did you mean \"show\"?"},
        {"show cat", "show: no command \"cat\"; expected mac, count, domain"},
        {"show t", "\"t\" is short for tunnel and trace"},
        {"show complete-words", "no command \"complete-words\""},
        {"comp", "completion: expected SHELL"},
        {"show mac --vlna 1", "--vlna: show mac has no such option; did you mean --vlan?"},
        {"show mac --v 1", "\"--v\" is short for --vlan, --vni, --vtep and --version"},
        {"--aging show vtep", "--aging: show vtep has no such option; it goes with show mac"},
        {"show mac -x", "-x: show mac has no such option"},
        {"show mac -", "\"-\": expected an address"},
        {"show health x", "show health: unexpected argument \"x\""},
        {"find", "find: expected ADDR"},
        {"show", "no command: expected a command such as"},
        {"show mac -l1 -l2", "--limit: expected once"},
        {"show mac --not type=mad", "--not: type: \"mad\": expected learned, static or local"},
        {"show domain --not mac=02", "expected NAME=VALUE with one of the names domain or vlan"},
        {"show mac --older-than 5x", "\"5x\": expected an age such as 90"},
        {"show mac --mac 02:00:5e:0g", "\"02:00:5e:0g\": expected 1 to 12 hexadecimal digits"},
        {"show mac --vni 16777216", "a number from 1 to 16777215"},
        {"show mac --columns a,,b", "expected names with commas"},
        {"show mac --columns a --wide", "--columns excludes --wide"},
        {"show mac --reverse", "--reverse: expected together with --sort"},
        {"show mac --aging --reverse", "--reverse: not with the order last-seen"},
        {"show mac --aging --sort created", "--aging excludes --sort created"},
        {"resync --domain a --port b", "--domain excludes --port"},
        {"completion tcsh", "\"tcsh\": expected bash, zsh or fish"},
    };
    for (const auto &row : rows) {
        EXPECT_THAT(refusal_of(row.line), HasSubstr(row.message));
    }
}

TEST(Help, HasAPageForEachCommandAndTopic)
{
    for (const char *line : {"help", "help show", "help sh mac", "show mac --help", "help filters", "help exit-status",
                             "help col", "help json", "help terminal", "help names"}) {
        EXPECT_GT(shown_by(line).size(), 200u) << line;
    }
    EXPECT_THAT(shown_by("help columns"), HasSubstr("show vtep: address, port, xcid, domain, vni\n"));
    try {
        run(parsed("help colmns"));
        ADD_FAILURE();
    } catch (const failure &error) {
        EXPECT_THAT(error.what(), HasSubstr("did you mean \"columns\"?"));
    }
}

TEST(Completion, OffersWhatTheParserTakes)
{
    const struct {
        const char *words; // the last one is completed; "_" stands for an empty one
        const char *expected;
    } rows[] = {
        {"sh", "show"},
        {"show c", "count"},
        {"sh mac --ty", "--type"},
        {"show mac --type _", "learned static local"},
        {"show mac --type=le", "--type=learned"},
        {"show mac -s v", "vlan"},
        {"top _", "ports domains addresses"},
        {"top ports p", ""},
        {"show mac --not po", "port="},
        {"show mac --not type=s", "type=static"},
        {"show vtep -c port,v", "port,vni"},
        {"help fil", "filters"},
        {"help show tr", "trace"},
        {"show cat --", ""},
        {"--socket /no/such show mac --domain _", ""},
    };
    for (const auto &row : rows) {
        client_options options;
        options.command = command_kind::complete_words;
        for (const std::string &word : words_in(row.words)) {
            options.words.push_back(word == "_" ? "" : word);
        }
        testing::internal::CaptureStdout();
        run(options);
        std::string found;
        std::istringstream lines(testing::internal::GetCapturedStdout());
        for (std::string line; std::getline(lines, line);) {
            found += (found.empty() ? "" : " ") + line.substr(0, line.find('\t'));
        }
        EXPECT_EQ(found, row.expected) << row.words;
    }
}

} // namespace
} // namespace l2fibctl
