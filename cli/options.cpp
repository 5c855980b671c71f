// SPDX-License-Identifier: Apache-2.0

#include "cli/options.h"

#include <CLI/CLI.hpp>
#include <cerrno>
#include <functional>
#include <sys/un.h>

#include "base/result.h"
#include "base/standard_streams.h"
#include "base/text.h"
#include "cli/failure.h"

namespace l2fibctl {

namespace {

constexpr char exit_status_help[] = R"(Exit status:
  0  done
  1  nothing found
  2  wrong usage
  3  no connection to the daemon, or no answer from it
  4  the daemon answered with an error
  5  the answer was cut or damaged, or could not be written
  6  the answer may be incomplete: the daemon marked it as limited or degraded)";

constexpr size_t max_name_length = 255; // above every real name, and short enough for a request's URI
constexpr size_t max_path_length = sizeof(sockaddr_un::sun_path) - 1;
constexpr unsigned max_timeout_seconds = 24 * 60 * 60;

// ---- Checks of values ----

// Checks the text of a value and may rewrite it.
using value_check = std::function<base::result(std::string &text)>;

// CLI11 expects an empty text for success. `name` names the check inside CLI11.
CLI::Validator validator(const value_check &check, const char *name)
{
    return {[check](std::string &text) { return check(text).text; }, "", name};
}

base::result expected(const std::string &text, const std::string &expectation)
{
    return base::failure(EINVAL, "\"" + text + "\": expected " + expectation);
}

// Rewrites the address in the API's form.
base::result check_address(std::string &text)
{
    const auto address = base::parse_mac(text);
    if (!address) {
        return expected(text, "an address such as 02:00:00:00:00:01 or 0200.0000.0001");
    }
    text = base::mac_text(*address);
    return base::success();
}

base::result check_ipv4(const std::string &text)
{
    return base::parse_ipv4(text) ? base::success() : expected(text, "an IPv4 address such as 192.0.2.1");
}

base::result check_order(const std::string &text)
{
    const bool fits = text == last_seen_word || text == created_word;
    return fits ? base::success() : expected(text, std::string(last_seen_word) + " or " + created_word);
}

// `subject` names the value in the message, such as "a name".
CLI::Validator length_up_to(size_t max_length, const std::string &subject)
{
    const auto check = [max_length, subject](const std::string &text) {
        const bool fits = !text.empty() && text.size() <= max_length;
        return fits ? base::success()
                    : base::failure(EINVAL,
                                    "expected " + subject + " of 1 to " + std::to_string(max_length) + " characters");
    };
    return validator(check, "length");
}

// CLI11's own conversion turns -1 and numbers that are too large into other numbers.
CLI::Validator number_up_to(uint64_t max_number)
{
    const auto check = [max_number](const std::string &text) {
        const auto number = base::parse_number(text, max_number);
        const bool fits = number && *number != 0;
        return fits ? base::success() : expected(text, "a number from 1 to " + std::to_string(max_number));
    };
    return validator(check, "number");
}

// ---- Commands ----

CLI::App *add_command(CLI::App &parent, const char *name, const char *description, command_kind command,
                      client_options &options)
{
    return parent.add_subcommand(name, description)->fallthrough()->callback([command, &options] {
        options.command = command;
    });
}

struct scope_options {
    CLI::Option *domain;
    CLI::Option *port;
};

scope_options add_scope(CLI::App &command, client_options &options)
{
    const CLI::Validator is_name = length_up_to(max_name_length, "a name");
    return {
        command.add_option("--domain", options.domain, "Only this bridge domain")->type_name("NAME")->check(is_name),
        command.add_option("--port", options.port, "Only this port, by name or xcid")
            ->type_name("PORT")
            ->check(is_name)};
}

void add_narrow_scope(CLI::App &command, client_options &options)
{
    const scope_options scope = add_scope(command, options);
    scope.domain->excludes(scope.port);
}

// --aging means --sort last-seen.
void add_order(CLI::App &mac, CLI::Option *flagged, client_options &options)
{
    mac.add_flag_callback(
           "--aging", [&options] { options.sorted_by = order::last_seen; }, "The same as --sort last-seen")
        ->disable_flag_override()
        ->excludes(flagged);
    const auto set_order = [&options](const std::string &word) {
        const order wanted = word == created_word ? order::created : order::last_seen;
        if (options.sorted_by != order::usual && options.sorted_by != wanted) {
            throw CLI::ExcludesError("--aging", std::string("--sort ") + created_word);
        }
        options.sorted_by = wanted;
    };
    mac.add_option_function<std::string>("--sort", set_order, "Oldest first: last-seen or created")
        ->type_name("ORDER")
        ->check(validator(check_order, "order"))
        ->excludes(flagged);
}

void add_show_mac(CLI::App &show, client_options &options)
{
    CLI::App *mac =
        add_command(show, "mac", "MAC addresses, by domain, port and address", command_kind::show_mac, options);
    add_scope(*mac, options);
    mac->add_option("address", options.address, "Only this address")
        ->type_name("ADDR")
        ->check(validator(check_address, "address"));
    mac->add_option("--vtep", options.vtep, "Only addresses behind this tunnel end point")
        ->type_name("IP")
        ->check(validator(check_ipv4, "vtep"));
    CLI::Option *flagged = mac->add_flag("--flagged", options.flagged,
                                         "Only the bridge domain's own entries and, with --port, locked entries")
                               ->disable_flag_override();
    add_order(*mac, flagged, options);
}

void add_show(CLI::App &app, client_options &options)
{
    CLI::App *show = app.add_subcommand("show", "Print a table")->require_subcommand(0, 1)->fallthrough();
    add_show_mac(*show, options);
    add_narrow_scope(*add_command(*show, "count", "Number of MAC addresses", command_kind::show_count, options),
                     options);
    add_command(*show, "vtep", "Tunnel end points (VTEPs)", command_kind::show_vtep, options);
    add_scope(*add_command(*show, "tunnel", "Entries of the VXLAN devices: flood lists, IPv6 destinations, next hops",
                           command_kind::show_tunnel, options),
              options);
    add_command(*show, "domain", "Bridge domains", command_kind::show_domain, options);
    add_command(*show, "port", "Bridge ports", command_kind::show_port, options);
    add_command(*show, "health", "State of the forwarding plane, memory, requests", command_kind::show_health, options);
    add_command(*show, "trace", "Trace points in the order of their time", command_kind::show_trace, options);
}

void add_resync(CLI::App &app, client_options &options)
{
    add_narrow_scope(*add_command(app, "resync", "Bring the daemon's tables up to date", command_kind::resync, options),
                     options);
}

// ---- Options of every command ----

void add_forms(CLI::App &app, client_options &options)
{
    const auto add = [&](const char *name, const char *description, form shown_as) {
        return app
            .add_flag_callback(
                name, [&options, shown_as] { options.shown_as = shown_as; }, description)
            ->disable_flag_override();
    };
    CLI::Option *json = add("--json", "Print one JSON array", form::json);
    CLI::Option *lines = add("--json-lines", "Print one JSON object per line", form::json_lines);
    CLI::Option *bridge =
        add("--bridge-json", "With show mac: print entries as \"bridge -j fdb show\" does", form::bridge_json);
    lines->excludes(json);
    bridge->excludes(json)->excludes(lines);
}

void add_globals(CLI::App &app, client_options &options)
{
    add_forms(app, options);
    app.add_option("--socket", options.socket, "Socket of the daemon")
        ->type_name("PATH")
        ->envname("L2FIBD_SOCKET")
        ->check(length_up_to(max_path_length, "a path"))
        ->capture_default_str();
    app.add_option("--limit", options.limit, "Print at most this number of items")
        ->type_name("NUMBER")
        ->check(number_up_to(UINT64_MAX));
    app.add_option("--timeout", options.timeout_seconds, "Give up if nothing arrives for this long")
        ->type_name("SECONDS")
        ->check(number_up_to(max_timeout_seconds))
        ->capture_default_str();
    app.add_flag("--strict", options.strict, "Print nothing if the answer may be incomplete")->disable_flag_override();
    app.set_version_flag("--version", "l2fibctl " L2FIB_VERSION, "Print the version and exit");
    app.footer(exit_status_help);
}

// ---- Parsing ----

[[noreturn]] void fail_usage(const std::string &message)
{
    throw failure(exit_status::wrong_usage, message + "\n--help lists the commands and options");
}

// Prints the text of --help or --version, which CLI11 reports as an error.
void print_text(const CLI::App &app, const CLI::ParseError &request)
{
    app.exit(request);
    if (const base::result written = base::finish_standard_output(); !written.ok()) {
        throw failure(exit_status::cut, written.text);
    }
}

// Checks between options. CLI11 could require a command itself, but then it would report a misspelt one as missing.
void check_combination(const client_options &options)
{
    if (options.command == command_kind::none) {
        fail_usage("no command: expected a command such as \"show mac\"");
    }
    if (options.shown_as == form::bridge_json && options.command != command_kind::show_mac) {
        fail_usage("--bridge-json: expected the command show mac");
    }
}

} // namespace

std::optional<client_options> parse_options(int argc, const char *const *argv)
{
    client_options options;
    CLI::App app("Prints the tables of a running l2fibd: MAC addresses, bridge domains, ports, tunnels.", "l2fibctl");
    app.require_subcommand(0, 1);
    add_globals(app, options);
    add_show(app, options);
    add_resync(app, options);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError &error) {
        if (error.get_exit_code() != 0) {
            fail_usage(error.what());
        }
        print_text(app, error);
        return std::nullopt;
    }
    check_combination(options);
    return options;
}

} // namespace l2fibctl
