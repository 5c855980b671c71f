// SPDX-License-Identifier: Apache-2.0

// l2fibd: the forwarding process. It starts the module on a forwarding plane and serves its API until it is told to
// end.
//
// Order of the start: signals are blocked before there is a thread that could take them. Descriptors are counted and
// the socket is taken before anything costs time. The log gets its thread once the forwarding plane has given up the
// capabilities that it needed. The module serves before the first request can come. The end is the reverse.

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <exception>
#include <iostream>

#include "base/standard_streams.h"
#include "daemon/api/api_error.h"
#include "daemon/api/database.h"
#include "daemon/api/health.h"
#include "daemon/http/descriptors.h"
#include "daemon/http/http_server.h"
#include "daemon/http/unix_socket.h"
#include "daemon/log.h"
#include "daemon/options.h"
#include "forwarding/forwarding.h"
#include "host/objects/l2fib_host.h"

namespace {

using l2fibd::log;
using l2fibd::log_level;

void log_report(forwarding::severity how_bad, const std::string &text)
{
    log(how_bad == forwarding::severity::warning ? log_level::warning : log_level::info, text);
}

sigset_t block_signals()
{
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGINT);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    return signals;
}

int failed(const std::string &text)
{
    log(log_level::error, text);
    return EXIT_FAILURE;
}

// Releases everything; the exit status is a failure when something would not go.
int end_forwarding()
{
    const forwarding::release_report report = forwarding::stop();
    l2fibd::log_report_held_back();
    log(report.orderly ? log_level::info : log_level::error, report.text);
    return report.orderly ? EXIT_SUCCESS : EXIT_FAILURE;
}

// Logs the debug messages of the module, at the level of the daemon's own.
void log_module_messages()
{
    constexpr uint32_t all_messages = UINT32_MAX;
    host::debug_bits_set(all_messages);
    host::debug_sink_set(
        [](void *, uint32_t, const char *function, const char *text) {
            char line[2 * host::max_debug_message_bytes];
            snprintf(line, sizeof(line), "%s: %s", function, text);
            log(log_level::debug, line);
        },
        nullptr);
}

// Takes no socket, so that it may run beside a daemon, and leaves signals alone: nothing outlives the process.
int check(const l2fibd::settings &settings)
{
    if (const std::string error = l2fibd::check_descriptors(l2fibd::start_descriptors); !error.empty()) {
        return failed(error);
    }
    if (const std::string error = forwarding::start(settings.forwarding); !error.empty()) {
        return failed(error);
    }
    int status = EXIT_SUCCESS;
    try {
        l2fibd::resync_all();
        std::cout << l2fibd::health_text() << '\n';
        if (const std::string error = base::finish_standard_output(); !error.empty()) {
            status = failed(error);
        }
    } catch (const l2fibd::api_error &error) {
        status = failed(error.message);
    }
    const int end_status = end_forwarding();
    return status != EXIT_SUCCESS ? status : end_status;
}

void wait_for_end(const sigset_t &signals)
{
    int signal = 0;
    while (sigwait(&signals, &signal) != 0) {}
    log(log_level::info, signal == SIGTERM ? "ends on SIGTERM" : "ends on SIGINT");
    l2fibd::notify_service_manager("STOPPING=1");
}

// Serves until a signal comes. Returns what went wrong.
std::string serve_http(l2fibd::listening_socket &socket, const l2fibd::settings &settings, const sigset_t &signals)
try {
    l2fibd::log_start();
    if (std::string error = l2fibd::http_start(socket.descriptor(), settings.forwarding.resync_wait_seconds);
        !error.empty()) {
        return error;
    }
    socket.hand_over();
    log(log_level::info, "serves " + settings.socket_path + " from the " + forwarding::health().plane + " plane");
    l2fibd::notify_service_manager("READY=1");
    wait_for_end(signals);
    return {};
} catch (const std::exception &error) {
    return error.what();
}

// Nothing of the start is begun if there are too few descriptors: a thread of the module that lacks one never serves,
// and the start would wait for it.
int serve(const l2fibd::settings &settings, const sigset_t &signals)
{
    const uint32_t needed = l2fibd::start_descriptors + l2fibd::http_least_descriptors;
    if (const std::string error = l2fibd::check_descriptors(needed); !error.empty()) {
        return failed(error);
    }
    l2fibd::listening_socket socket;
    if (const std::string error = socket.open(settings.socket_path, settings.socket_group); !error.empty()) {
        return failed(error);
    }
    if (const std::string error = forwarding::start(settings.forwarding); !error.empty()) {
        return failed(error);
    }
    const std::string error = serve_http(socket, settings, signals);
    if (!error.empty()) {
        failed(error);
    }
    l2fibd::http_stop();
    const int status = end_forwarding();
    return error.empty() ? status : EXIT_FAILURE;
}

} // namespace

int main(int argc, char **argv)
{
    base::hold_standard_streams();
    try {
        l2fibd::settings settings;
        if (const auto status = l2fibd::read_command_line(argc, argv, settings)) {
            return *status;
        }
        l2fibd::log_threshold(settings.finest);
        if (settings.finest == log_level::debug) {
            log_module_messages();
        }
        settings.forwarding.report = log_report;
        std::signal(SIGPIPE, SIG_IGN); // a client that has gone is an error of its connection
        // The table tells times of day as this process sees them; the API promises UTC.
        setenv("TZ", "UTC0", 1); // NOLINT(concurrency-mt-unsafe): there are no other threads yet
        tzset();
        l2fibd::raise_descriptor_limit();
        const int status = settings.check_only ? check(settings) : serve(settings, block_signals());
        l2fibd::log_stop();
        return status;
    } catch (const std::exception &error) {
        return failed(error.what());
    }
}
