// SPDX-License-Identifier: Apache-2.0

#include "cli/options.h"

#include <CLI/CLI.hpp>
#include <iostream>
#include <sys/un.h>

#include "base/standard_streams.h"
#include "base/text.h"
#include "cli/failure.h"

namespace l2fibctl {

namespace {

constexpr char statuses[] = R"(Exit status:
  0  done
  1  nothing found
  2  wrong usage
  3  the daemon cannot be reached
  4  the daemon answered with an error
  5  the answer was cut, or could not be written
  6  the answer may be incomplete: the daemon marked it as limited or degraded)";

constexpr char last_seen_word[] = "last-seen";
constexpr char created_word[] = "created";

constexpr size_t longest_name = 255; // longer than any, and short enough for a request
constexpr size_t longest_path = sizeof(sockaddr_un::sun_path) - 1;

// Turns an address into the API's form.
std::string to_address(std::string &text)
{
    const auto address = base::parse_mac(text);
    if (!address) {
        return "\"" + text + "\": expected an address such as 02:00:00:00:00:01 or 0200.0000.0001";
    }
    text = base::mac_text(*address);
    return "";
}

std::string check_ipv4(const std::string &text)
{
    return base::parse_ipv4(text) ? "" : "\"" + text + "\": expected an IPv4 address such as 192.0.2.1";
}

// `what` names what is checked, such as "a name".
CLI::Validator length_up_to(size_t most, const std::string &what)
{
    const auto check = [most, what](const std::string &text) {
        const bool fits = !text.empty() && text.size() <= most;
        return fits ? "" : "expected " + what + " of 1 to " + std::to_string(most) + " characters";
    };
    return {check, "", "length"};
}

// CLI11 takes -1 and numbers that are too large for others.
CLI::Validator number_up_to(uint64_t most)
{
    const auto check = [most](const std::string &text) {
        const auto number = base::parse_number(text, most);
        const bool fits = number && *number != 0;
        return fits ? "" : "\"" + text + "\": expected a number from 1 to " + std::to_string(most);
    };
    return {check, "", "number"};
}

struct scope_options {
    CLI::Option *domain;
    CLI::Option *port;
};

scope_options add_scope(CLI::App &to, options &result)
{
    const CLI::Validator is_name = length_up_to(longest_name, "a name");
    return {to.add_option("--domain", result.domain, "Only this bridge domain")->type_name("NAME")->check(is_name),
            to.add_option("--port", result.port, "Only this port, by name or xcid")->type_name("PORT")->check(is_name)};
}

std::string check_order(const std::string &text)
{
    const bool fits = text == last_seen_word || text == created_word;
    return fits ? "" : "\"" + text + "\": expected " + last_seen_word + " or " + created_word;
}

CLI::App *add_command(CLI::App &to, const char *name, const char *description, command what, options &result)
{
    return to.add_subcommand(name, description)->fallthrough()->callback([what, &result] { result.what = what; });
}

// --aging is short for --sort last-seen.
void add_order(CLI::App &mac, CLI::Option *flagged, options &result)
{
    mac.add_flag_callback(
           "--aging", [&result] { result.sorted_by = order::last_seen; }, "The same as --sort last-seen")
        ->disable_flag_override()
        ->excludes(flagged);
    const auto take = [&result](const std::string &word) {
        const order wanted = word == created_word ? order::created : order::last_seen;
        if (result.sorted_by != order::usual && result.sorted_by != wanted) {
            throw CLI::ExcludesError("--aging", std::string("--sort ") + created_word);
        }
        result.sorted_by = wanted;
    };
    mac.add_option_function<std::string>("--sort", take, "The oldest first, by the time last seen or created")
        ->type_name("ORDER")
        ->check(CLI::Validator([](std::string &text) { return check_order(text); }, "", "order"))
        ->excludes(flagged);
}

void add_show_mac(CLI::App &show, options &result)
{
    CLI::App *mac = add_command(show, "mac", "MAC addresses, by domain, port and address", command::show_mac, result);
    add_scope(*mac, result);
    mac->add_option("address", result.address, "Only this address")
        ->type_name("ADDR")
        ->check(CLI::Validator(to_address, "", "address"));
    mac->add_option("--vtep", result.vtep, "Only behind this tunnel end point")
        ->type_name("IP")
        ->check(CLI::Validator([](std::string &text) { return check_ipv4(text); }, "", "vtep"));
    CLI::Option *flagged = mac->add_flag("--flagged", result.flagged,
                                         "Only entries of the bridge domain itself, and with --port locked ones")
                               ->disable_flag_override();
    add_order(*mac, flagged, result);
}

void add_show(CLI::App &app, options &result)
{
    CLI::App *show = app.add_subcommand("show", "Show a table")->require_subcommand(0, 1)->fallthrough();
    add_show_mac(*show, result);
    CLI::App *count = add_command(*show, "count", "How many MAC addresses there are", command::show_count, result);
    const scope_options scope = add_scope(*count, result);
    scope.domain->excludes(scope.port);
    add_command(*show, "vtep", "Tunnel end points", command::show_vtep, result);
    CLI::App *tunnel = add_command(*show, "tunnel", "What VXLAN devices hold: flood lists, all kinds of destinations",
                                   command::show_tunnel, result);
    add_scope(*tunnel, result);
    add_command(*show, "domain", "Bridge domains", command::show_domain, result);
    add_command(*show, "port", "Bridge ports", command::show_port, result);
    add_command(*show, "health", "State of the forwarding plane, memory, requests", command::show_health, result);
    add_command(*show, "trace", "Trace points, in order of time", command::show_trace, result);
}

void add_resync(CLI::App &app, options &result)
{
    CLI::App *resync = add_command(app, "resync", "Bring the tables up to date", command::resync, result);
    const scope_options scope = add_scope(*resync, result);
    scope.domain->excludes(scope.port);
}

void add_forms(CLI::App &app, options &result)
{
    const auto add = [&](const char *name, const char *description, form shown_as) {
        return app
            .add_flag_callback(
                name, [&result, shown_as] { result.shown_as = shown_as; }, description)
            ->disable_flag_override();
    };
    CLI::Option *json = add("--json", "Print JSON", form::json);
    CLI::Option *lines = add("--json-lines", "Print a JSON object a line", form::json_lines);
    CLI::Option *bridge = add("--bridge-json", "Print as \"bridge -j fdb show\" does (show mac)", form::bridge_json);
    lines->excludes(json);
    bridge->excludes(json)->excludes(lines);
}

void add_globals(CLI::App &app, options &result)
{
    add_forms(app, result);
    app.add_option("--socket", result.socket, "Socket of the daemon")
        ->type_name("PATH")
        ->envname("L2FIBD_SOCKET")
        ->check(length_up_to(longest_path, "a path"))
        ->capture_default_str();
    app.add_option("--limit", result.limit, "Print at most this number of items")
        ->type_name("NUMBER")
        ->check(number_up_to(UINT64_MAX));
    app.add_option("--timeout", result.timeout_seconds, "Give up when nothing arrives for this long")
        ->type_name("SECONDS")
        ->check(number_up_to(86400))
        ->capture_default_str();
    app.add_flag("--strict", result.strict, "Print nothing of an answer that may be incomplete")
        ->disable_flag_override();
    app.set_version_flag("--version", "l2fibctl " L2FIB_VERSION);
    app.footer(statuses);
}

int complain(const std::string &message)
{
    std::cerr << "l2fibctl: " << message << "\nl2fibctl: --help lists the commands and options\n";
    return static_cast<int>(ending::wrong_usage);
}

// Prints the text that was asked for.
int help(const CLI::App &app, const CLI::ParseError &asked)
{
    const int status = app.exit(asked);
    if (const base::result written = base::finish_standard_output(); !written.ok()) {
        std::cerr << "l2fibctl: " << written.text << "\n";
        return static_cast<int>(ending::cut);
    }
    return status;
}

} // namespace

std::optional<int> parse_options(int argc, char **argv, options &to)
{
    CLI::App app("Shows the MAC addresses that l2fibd knows.", "l2fibctl");
    app.require_subcommand(0, 1);
    add_globals(app, to);
    add_show(app, to);
    add_resync(app, to);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError &error) {
        // Success is a text that was asked for.
        return error.get_exit_code() == 0 ? help(app, error) : complain(error.what());
    }
    // Asked for here, since the parser would name a missing command before a wrong one.
    if (to.what == command::none) {
        return complain("expected a command, such as show mac");
    }
    if (to.shown_as == form::bridge_json && to.what != command::show_mac) {
        return complain("--bridge-json is for show mac only");
    }
    return std::nullopt;
}

} // namespace l2fibctl
