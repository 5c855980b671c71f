// SPDX-License-Identifier: Apache-2.0

#include "daemon/options.h"

#include <sys/stat.h>

#include <iostream>

#include <CLI/CLI.hpp>

#include "base/standard_streams.h"
#include "base/text.h"
#include "daemon/http/unix_socket.h"
#include "forwarding/generated/generate.h"

namespace l2fibd {

namespace {

using setter = std::function<void(const std::string &)>;

[[noreturn]] void refuse(const std::string &option, const std::string &value, const std::string &expected)
{
    throw CLI::ValidationError(option + " \"" + value + "\"", expected);
}

// An option whose value is a number from 1 to `most`.
template <typename Number>
void add_number(CLI::App &app, const std::string &name, Number &to, Number most, const std::string &description)
{
    const auto set = [name, &to, most](const std::string &text) {
        const auto number = base::parse_number(text, most);
        if (!number || *number == 0) {
            refuse(name, text, "expected a number from 1 to " + std::to_string(most));
        }
        to = static_cast<Number>(*number);
    };
    app.add_option_function<std::string>(name, setter(set), description)
        ->type_name("NUMBER")
        ->default_str(to != 0 ? std::to_string(to) : std::string());
}

// An option whose value is one of the names of a table.
template <typename Value, size_t Count>
void add_choice(CLI::App &app, const std::string &name, Value &to,
                const std::pair<const char *, Value> (&choices)[Count], const std::string &description)
{
    std::string names;
    for (const auto &choice : choices) {
        names += (names.empty() ? "" : ", ") + std::string(choice.first);
    }
    const auto set = [name, names, &to, &choices](const std::string &text) {
        for (const auto &choice : choices) {
            if (text == choice.first) {
                to = choice.second;
                return;
            }
        }
        refuse(name, text, "expected one of " + names);
    };
    app.add_option_function<std::string>(name, setter(set), description + ": " + names)->type_name("NAME");
}

using forwarding::plane_choice;

constexpr std::pair<const char *, plane_choice> planes[] = {
    {"generated", plane_choice::generated}, {"recorded", plane_choice::recorded}, {"kernel", plane_choice::kernel}};

constexpr std::pair<const char *, log_level> levels[] = {{"error", log_level::error},
                                                         {"warning", log_level::warning},
                                                         {"info", log_level::info},
                                                         {"debug", log_level::debug}};

// ---- Values that more is asked of than their form ----

void set_fabric(settings &into, const std::string &text)
{
    forwarding::fabric_options ignored;
    if (const base::result parsed = forwarding::parse_fabric(text, ignored); !parsed.ok()) {
        refuse("--generate", text, parsed.text);
    }
    into.forwarding.fabric = text;
}

void set_directory(settings &into, const std::string &path)
{
    struct stat found {};
    if (stat(path.c_str(), &found) != 0 || !S_ISDIR(found.st_mode)) {
        refuse("--recorded", path, "expected a directory with links.json and fdb.json");
    }
    into.forwarding.recorded_directory = path;
}

void set_netns(settings &into, const std::string &name)
{
    if (name.empty()) {
        refuse("--netns", name, "expected the name of a network namespace, or a path");
    }
    into.forwarding.netns = name;
}

void set_group(settings &into, const std::string &name)
{
    const std::string error = forwarding::group_error(name);
    if (!error.empty()) {
        refuse("--group", name, error);
    }
    into.forwarding.group = name;
}

void set_socket(settings &into, const std::string &path)
{
    if (path.empty() || path.size() > longest_socket_path()) {
        refuse("--socket", path, "expected a path of 1 to " + std::to_string(longest_socket_path()) + " characters");
    }
    into.socket_path = path;
}

void set_socket_group(settings &into, const std::string &name)
{
    if (name.empty()) {
        refuse("--socket-group", name, "expected the name of a group");
    }
    into.socket_group = name;
}

struct text_option {
    const char *name;
    const char *type;
    void (*set)(settings &into, const std::string &value);
    const char *description;
};

constexpr text_option text_options[] = {
    {"--generate", "TEXT", set_fabric,
     "what the generated plane holds, such as bridges=10,ports=32,macs=100000,vteps=64,churn=1000/s,seed=1"},
    {"--recorded", "DIR", set_directory, "tables recorded from ip and bridge, links.json and fdb.json; their plane"},
    {"--netns", "NAME", set_netns, "the network namespace of the kernel's plane, a name or a path"},
    {"--group", "NAME", set_group, "the first part of every bridge domain's name; by default the host's name"},
    {"--socket", "PATH", set_socket, "the socket to serve; by default /run/l2fibd.sock"},
    {"--socket-group", "NAME", set_socket_group, "the group that may use the socket; by default the process's"},
};

void add_options(CLI::App &app, settings &into)
{
    add_choice(app, "--plane", into.forwarding.plane, planes, "the forwarding plane");
    for (const text_option &option : text_options) {
        const auto set = [&into, &option](const std::string &text) { option.set(into, text); };
        app.add_option_function<std::string>(option.name, setter(set), option.description)->type_name(option.type);
    }
    add_number(app, "--mac-limit", into.forwarding.mac_limit, uint32_t{100'000'000}, "the most MAC entries");
    add_number(app, "--receive-buffer", into.forwarding.receive_buffer, uint32_t{1} << 30,
               "bytes for notifications of the kernel that wait to be read; by default 128 MiB");
    add_number(app, "--proof-rate", into.forwarding.proof_rate, uint32_t{100'000},
               "entries a second that are compared with the kernel's");
    add_number(app, "--resync-wait", into.forwarding.resync_wait_seconds, uint16_t{3600},
               "seconds that a request waits for the forwarding plane");
    add_choice(app, "--log-level", into.finest, levels, "how much is logged");
    app.add_flag("--check", into.check_only, "start, bring the table up to date once, report, and end")
        ->disable_flag_override();
    app.set_version_flag("--version", "l2fibd " L2FIBD_VERSION);
}

// The options that only one plane has: they choose it, and do not go with another.
void settle_plane(const CLI::App &app, settings &into)
{
    constexpr struct {
        const char *option;
        plane_choice plane;
        bool is_required;
        const char *expected;
    } rows[] = {
        {"--generate", plane_choice::generated, false, "expected --plane generated with it, or none"},
        {"--recorded", plane_choice::recorded, true, "expected --plane recorded with it, or none"},
        {"--netns", plane_choice::kernel, false, "expected --plane kernel with it, or none"},
        {"--receive-buffer", plane_choice::kernel, false, "expected --plane kernel with it, or none"},
    };
    bool is_chosen = app.count("--plane") != 0;
    for (const auto &row : rows) {
        const bool is_given = app.count(row.option) != 0;
        if (is_given && is_chosen && into.forwarding.plane != row.plane) {
            throw CLI::ValidationError(row.option, row.expected);
        }
        if (is_given) {
            into.forwarding.plane = row.plane;
            is_chosen = true;
        }
        if (into.forwarding.plane == row.plane && row.is_required && !is_given) {
            throw CLI::ValidationError("--plane recorded", "expected --recorded DIR with it");
        }
    }
}

} // namespace

std::optional<int> read_command_line(int argc, char **argv, settings &into)
{
    CLI::App app("Shows what a layer-2 forwarding plane holds, over a Unix socket.", "l2fibd");
    add_options(app, into);
    try {
        app.parse(argc, argv);
        settle_plane(app, into);
    } catch (const CLI::Success &asked) {
        const int status = app.exit(asked);
        const std::string error = base::finish_standard_output();
        if (!error.empty()) {
            log(log_level::error, error);
        }
        return error.empty() ? status : EXIT_FAILURE;
    } catch (const CLI::ParseError &error) {
        std::cerr << "l2fibd: " << error.what() << "\nl2fibd --help shows the options\n";
        return exit_usage;
    }
    return std::nullopt;
}

} // namespace l2fibd
