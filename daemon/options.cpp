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

template <typename Number>
struct number_range {
    Number min;
    Number max;
};

constexpr number_range<uint32_t> mac_limits = {1, 100'000'000}; // such a table takes about 13 gigabytes
// Bytes; the kernel doubles the number and counts in an int.
constexpr number_range<uint32_t> receive_buffers = {1, uint32_t{1} << 30};
constexpr number_range<uint32_t> proof_rates = {0, 100'000}; // entries a second, each a question to the kernel; 0: none
constexpr number_range<uint16_t> resync_waits = {1, 3600};   // seconds; no client waits for more than an hour
constexpr uint32_t max_kept = 10'000'000;                    // events, or moves; ten million take 300 or 400 megabytes
constexpr number_range<uint32_t> kept_events = {1, max_kept};
constexpr number_range<uint32_t> kept_moves = {0, max_kept};

using setter = std::function<void(const std::string &)>;

[[noreturn]] void refuse(const std::string &option, const std::string &value, const std::string &expected)
{
    throw CLI::ValidationError(option + " \"" + value + "\"", expected);
}

// Adds an option whose value is a number of a range.
template <typename Number>
void add_number(CLI::App &app, const std::string &name, Number &to, const number_range<Number> &allowed,
                const std::string &description)
{
    const auto set = [name, &to, allowed](const std::string &text) {
        const auto number = base::parse_number(text, allowed.max);
        if (!number || *number < allowed.min) {
            refuse(name, text,
                   "expected a number from " + std::to_string(allowed.min) + " to " + std::to_string(allowed.max));
        }
        to = static_cast<Number>(*number);
    };
    app.add_option_function<std::string>(name, setter(set), description)
        ->type_name("NUMBER")
        ->default_str(to != 0 ? std::to_string(to) : std::string());
}

// Adds an option whose value is one of the names in a table.
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

// ---- Options with a text ----

void set_fabric(options &to, const std::string &text)
{
    forwarding::fabric_options ignored;
    if (const base::result parsed = forwarding::parse_fabric(text, ignored); !parsed.ok()) {
        refuse("--generate", text, parsed.text);
    }
    to.forwarding.fabric = text;
}

void set_directory(options &to, const std::string &path)
{
    struct stat found {};
    if (stat(path.c_str(), &found) != 0 || !S_ISDIR(found.st_mode)) {
        refuse("--recorded", path, "expected a directory with links.json and fdb.json");
    }
    to.forwarding.recorded_directory = path;
}

void set_netns(options &to, const std::string &name)
{
    if (name.empty()) {
        refuse("--netns", name, "expected the name of a network namespace, or a path");
    }
    to.forwarding.netns = name;
}

void set_group(options &to, const std::string &name)
{
    if (const base::result checked = forwarding::check_group(name); !checked.ok()) {
        refuse("--group", name, checked.text);
    }
    to.forwarding.group = name;
}

void set_socket(options &to, const std::string &path)
{
    if (path.empty() || path.size() > max_socket_path) {
        refuse("--socket", path, "expected a path of 1 to " + std::to_string(max_socket_path) + " characters");
    }
    to.socket_path = path;
}

void set_socket_group(options &to, const std::string &name)
{
    if (name.empty()) {
        refuse("--socket-group", name, "expected the name of a group");
    }
    to.socket_group = name;
}

struct text_option {
    const char *name;
    const char *type;
    void (*set)(options &to, const std::string &value);
    const char *description;
};

constexpr text_option text_options[] = {
    {"--generate", "TEXT", set_fabric,
     "contents of the generated plane, such as bridges=10,ports=32,macs=100000,vteps=64,churn=1000/s,seed=1"},
    {"--recorded", "DIR", set_directory,
     "directory of the recorded plane, with links.json from ip and fdb.json from bridge"},
    {"--netns", "NAME", set_netns, "network namespace of the kernel plane, by name or path; by default the process's"},
    {"--group", "NAME", set_group, "first part of every bridge domain's name; by default the host's name"},
    {"--socket", "PATH", set_socket, "socket to serve; by default /run/l2fibd.sock"},
    {"--socket-group", "NAME", set_socket_group, "group that may use the socket; by default the process's"},
};

void add_options(CLI::App &app, options &to)
{
    add_choice(app, "--plane", to.forwarding.plane, planes, "forwarding plane to show");
    for (const text_option &option : text_options) {
        const auto set = [&to, &option](const std::string &text) { option.set(to, text); };
        app.add_option_function<std::string>(option.name, setter(set), option.description)->type_name(option.type);
    }
    add_number(app, "--mac-limit", to.forwarding.mac_limit, mac_limits, "maximum number of MAC entries in the table");
    add_number(app, "--receive-buffer", to.forwarding.receive_buffer, receive_buffers,
               "bytes for the kernel's notifications that wait to be read; by default 128 MiB");
    add_number(app, "--proof-rate", to.forwarding.proof_rate, proof_rates,
               "entries compared with the kernel per second, to find changes that it did not report; 0: none");
    add_number(app, "--resync-wait", to.forwarding.resync_wait_seconds, resync_waits,
               "seconds that a request waits for the forwarding plane");
    add_number(app, "--events", to.forwarding.event_limit, kept_events,
               "latest changes of entries that are kept for watchers");
    add_number(app, "--history", to.forwarding.move_limit, kept_moves,
               "latest moves and removals of entries that are kept; 0: none");
    add_choice(app, "--log-level", to.finest_level, levels, "least severe lines that are logged");
    app.add_flag("--check", to.check_only, "start, bring the table up to date once, report its health, and end")
        ->disable_flag_override();
    app.set_version_flag("--version", "l2fibd " L2FIBD_VERSION);
}

// An option that only one plane has selects that plane. Throws if --plane names another one.
void settle_plane(const CLI::App &app, options &to)
{
    constexpr struct {
        const char *option;
        plane_choice plane;
        bool is_required;
        const char *expected;
    } rows[] = {
        {"--generate", plane_choice::generated, false, "expected --plane generated or no --plane with it"},
        {"--recorded", plane_choice::recorded, true, "expected --plane recorded or no --plane with it"},
        {"--netns", plane_choice::kernel, false, "expected --plane kernel or no --plane with it"},
        {"--receive-buffer", plane_choice::kernel, false, "expected --plane kernel or no --plane with it"},
    };
    bool is_chosen = app.count("--plane") != 0;
    for (const auto &row : rows) {
        const bool is_given = app.count(row.option) != 0;
        if (is_given && is_chosen && to.forwarding.plane != row.plane) {
            throw CLI::ValidationError(row.option, row.expected);
        }
        if (is_given) {
            to.forwarding.plane = row.plane;
            is_chosen = true;
        }
        if (to.forwarding.plane == row.plane && row.is_required && !is_given) {
            throw CLI::ValidationError("--plane recorded", "expected --recorded DIR with it");
        }
    }
}

} // namespace

std::optional<int> parse_options(int argc, char **argv, options &to)
{
    CLI::App app("Serves the MAC addresses that a layer-2 forwarding plane holds, over a Unix socket.", "l2fibd");
    add_options(app, to);
    try {
        app.parse(argc, argv);
        settle_plane(app, to);
    } catch (const CLI::Success &asked) {
        const int status = app.exit(asked);
        const base::result written = base::finish_standard_output();
        if (!written.ok()) {
            log(log_level::error, written.text);
        }
        return written.ok() ? status : EXIT_FAILURE;
    } catch (const CLI::ParseError &error) {
        std::cerr << "l2fibd: " << error.what() << "\nl2fibd: --help lists the options\n";
        return exit_usage;
    }
    return std::nullopt;
}

} // namespace l2fibd
