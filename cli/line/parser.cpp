// SPDX-License-Identifier: Apache-2.0

#include "cli/line/parser.h"

#include <CLI/CLI.hpp>
#include <algorithm>

#include "base/result.h"
#include "base/standard_streams.h"
#include "base/text.h"
#include "cli/failure.h"
#include "cli/line/names.h"
#include "cli/line/wording.h"

namespace l2fibctl {

namespace {

constexpr char program[] = "l2fibctl";
constexpr char version_text[] = "l2fibctl " L2FIB_VERSION "\n";
constexpr const char *group_titles[] = {"Filters", "Output", "Options of this command", "Connection"};

// ---- CLI11 ----

// Checks a value and stores it.
void take(client_options &to, const option_row &row, std::string value)
{
    if (row.check != nullptr) {
        if (const base::result checked = row.check({row, to.command}, value); !checked.ok()) {
            throw CLI::ValidationError(row.commands == 0 ? std::string(row.name) : "--" + std::string(row.name),
                                       checked.text);
        }
    }
    if (row.store != nullptr) {
        row.store(to, row, value);
    }
}

void take_all(client_options &to, const option_row &row, const std::vector<std::string> &values)
{
    for (const std::string &value : values) {
        take(to, row, value);
    }
}

// `names` is as CLI11 takes it: "-d,--domain" or "ADDR".
CLI::Option *add_valued(CLI::App &app, const std::string &names, const option_row &row, bool repeats,
                        client_options &options)
{
    const std::string description(row.help);
    if (repeats) {
        const auto store = [&row, &options](const std::vector<std::string> &values) { take_all(options, row, values); };
        return app.add_option_function<std::vector<std::string>>(names, store, description)->allow_extra_args(false);
    }
    const auto store = [&row, &options](const std::string &value) { take(options, row, value); };
    return app.add_option_function<std::string>(names, store, description);
}

void add_option(CLI::App &app, const option_row &row, client_options &options)
{
    const std::string short_form = row.letter == '\0' ? "" : std::string("-") + row.letter + ",";
    const std::string names = short_form + "--" + std::string(row.name);
    const std::string &title = group_titles[static_cast<size_t>(row.group)];
    if (row.is_flag()) {
        const auto store = [&row, &options] { take(options, row, ""); };
        app.add_flag_callback(names, store, std::string(row.help))->group(title);
        return;
    }
    CLI::Option *added = add_valued(app, names, row, row.repeats, options)->group(title);
    added->type_name(std::string(row.value))->default_str(std::string(row.fallback));
    added->envname(std::string(row.environment));
}

void add_argument(CLI::App &app, const command_row &command, client_options &options)
{
    if (command.arguments == argument_count::none) {
        return;
    }
    const bool repeats = command.arguments == argument_count::any;
    CLI::Option *added = add_valued(app, std::string(command.argument.name), command.argument, repeats, options);
    added->type_name("")->required(command.arguments == argument_count::required);
    if (repeats) {
        added->allow_extra_args(true)->expected(0, CLI::detail::expected_max_vector_size);
    }
}

void add_exclusions(CLI::App &app, command_kind command)
{
    for (const exclusion &row : all_exclusions()) {
        CLI::Option *one = app.get_option_no_throw("--" + std::string(row.one));
        CLI::Option *other = app.get_option_no_throw("--" + std::string(row.other));
        if (has(row.commands, command) && one != nullptr && other != nullptr) {
            one->excludes(other);
        }
    }
}

// The words as CLI11 takes them: full names, arguments behind two dashes, and the last word first.
std::vector<std::string> words_for_parser(const given_names &given)
{
    std::vector<std::string> words;
    for (const given_option &one : given.options) {
        words.push_back("--" + std::string(one.row->name));
        if (!one.row->is_flag()) {
            words.push_back(one.value);
        }
    }
    words.emplace_back("--");
    words.insert(words.end(), given.arguments.begin(), given.arguments.end());
    std::ranges::reverse(words);
    return words;
}

// ---- Checks between options ----

void check_order(const given_names &given, const client_options &options)
{
    for (const given_option &one : given.options) {
        if (one.row->name == "sort" && given.has("aging") && one.value != last_seen_word) {
            fail_usage("--aging excludes --sort " + one.value);
        }
    }
    if (options.reverse && options.sorted_by.empty()) {
        fail_usage("--reverse: expected together with --sort");
    }
    if (options.reverse && options.sorted_by == last_seen_word) {
        fail_usage("--reverse: not with the order last-seen; --sort age begins with the youngest");
    }
}

void check_arguments(const given_names &given)
{
    const command_row &command = *given.command;
    const size_t most = command.arguments == argument_count::none  ? 0
                        : command.arguments == argument_count::any ? SIZE_MAX
                                                                   : 1;
    if (given.arguments.size() > most) {
        fail_usage(words_of(command) + ": unexpected argument " + in_quotes(given.arguments[most]));
    }
    if (command.arguments == argument_count::required && given.arguments.empty()) {
        fail_usage(words_of(command) + ": expected " + std::string(command.argument.name) + " ("
                   + std::string(command.argument.help) + ")");
    }
}

void check_repeats(const given_names &given)
{
    for (const given_option &one : given.options) {
        const auto is_same = [&](const given_option &other) { return other.row == one.row; };
        if (!one.row->is_flag() && !one.row->repeats && std::ranges::count_if(given.options, is_same) > 1) {
            fail_usage("--" + std::string(one.row->name) + ": expected once, given more than once");
        }
    }
}

// CLI11 would report a misspelt command as missing, and a surplus argument without the command's name.
void check_shape(const given_names &given)
{
    if (given.command == nullptr) {
        fail_usage("no command: expected a command such as \"show mac\"");
    }
    if (given.awaits != nullptr) {
        fail_usage("--" + std::string(given.awaits->name) + ": expected a value, " + std::string(given.awaits->value));
    }
    check_arguments(given);
    check_repeats(given);
}

client_options parse(const given_names &given)
{
    client_options options;
    options.command = given.command->kind;
    CLI::App app("", program);
    for (const option_row *row : options_of(options.command)) {
        if (given.has(row->name) || !row->environment.empty()) {
            add_option(app, *row, options);
        }
    }
    add_argument(app, *given.command, options);
    add_exclusions(app, options.command);
    try {
        app.parse(words_for_parser(given));
    } catch (const CLI::ParseError &error) {
        fail_usage(error.what());
    }
    check_order(given, options);
    return options;
}

// --help behind a command does what the command help does.
client_options help_options(const given_names &given)
{
    client_options options;
    options.command = command_kind::help;
    options.no_pager = given.has("no-pager");
    const std::string words = given.command != nullptr ? words_of(*given.command) : std::string(given.group);
    for (const std::string_view word : base::split(words, ' ')) {
        if (!word.empty()) {
            options.words.emplace_back(word);
        }
    }
    return options;
}

void print(const std::string &text)
{
    std::fputs(text.c_str(), stdout);
    if (const base::result written = base::finish_standard_output(); !written.ok()) {
        throw failure(exit_status::cut, written.text);
    }
}

} // namespace

std::string help_page(const command_row &command)
{
    client_options ignored;
    CLI::App app(std::string(command.help), program);
    app.name(std::string(program) + " " + words_of(command));
    app.set_help_flag();
    for (const option_row *row : options_of(command.kind)) {
        add_option(app, *row, ignored);
    }
    add_argument(app, command, ignored);
    return app.help();
}

std::optional<client_options> parse_options(int argc, const char *const *argv)
{
    const given_names given = read_names(std::vector<std::string>(argv + 1, argv + argc));
    if (given.has("help")) {
        return help_options(given);
    }
    if (given.has("version")) {
        print(version_text);
        return std::nullopt;
    }
    check_shape(given);
    return parse(given);
}

} // namespace l2fibctl
