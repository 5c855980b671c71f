// SPDX-License-Identifier: Apache-2.0

// l2fibd: the forwarding process. It starts the module on a forwarding plane and serves the API until SIGTERM or
// SIGINT.
//
// The start has this order, and the end is the reverse:
//
// 1. The main thread blocks signals, before another thread could take them.
// 2. It counts free descriptors and takes the socket, before anything that costs time.
// 3. forwarding::start starts the module, so that it serves before the first request arrives. It also gives up the
//    capabilities that the forwarding plane needed.
// 4. The log gets its thread, which inherits the signal mask and no capability.
// 5. The HTTP server starts.

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <exception>
#include <iostream>

#include "base/standard_streams.h"
#include "daemon/api/database.h"
#include "daemon/api/health.h"
#include "daemon/api/json/api_error.h"
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

// Logs the error and returns the exit status for it.
int failed(const std::string &text)
{
    log(log_level::error, text);
    return EXIT_FAILURE;
}

// Releases everything. Returns a failure if something could not be released.
int end_forwarding()
{
    const forwarding::release_report report = forwarding::stop();
    l2fibd::log_report_held_back();
    log(report.orderly ? log_level::info : log_level::error, report.text);
    return report.orderly ? EXIT_SUCCESS : EXIT_FAILURE;
}

// Logs the debug messages of the module, when the daemon logs its own.
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

// Brings the table up to date once and prints its health.
base::result print_check()
try {
    l2fibd::resync_requester().resync_all();
    std::cout << l2fibd::health_text() << '\n';
    return base::finish_standard_output();
} catch (const l2fibd::api_error &error) {
    return base::failure(EIO, error.message);
}

// --check. It takes no socket, so it may run beside a daemon. It blocks no signals, because nothing outlives the
// process.
int check(const l2fibd::options &options)
{
    if (const base::result checked = l2fibd::check_descriptors(l2fibd::start_descriptors); !checked.ok()) {
        return failed(checked.text);
    }
    if (const base::result started = forwarding::start(options.forwarding); !started.ok()) {
        return failed(started.text);
    }
    const base::result printed = print_check();
    const int status = printed.ok() ? EXIT_SUCCESS : failed(printed.text);
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

// Serves until a signal arrives. The server has stopped when this returns.
base::result serve_http(l2fibd::listening_socket &socket, const l2fibd::options &options, const sigset_t &signals)
try {
    l2fibd::http_server server;
    l2fibd::log_start();
    if (base::result started = server.start(socket.descriptor(), options.forwarding.resync_wait_seconds);
        !started.ok()) {
        return started;
    }
    socket.hand_over();
    log(log_level::info, "serves " + options.socket_path + " from the " + forwarding::health().plane + " plane");
    l2fibd::notify_service_manager("READY=1");
    wait_for_end(signals);
    return base::success();
} catch (const std::exception &error) {
    return base::failure(EIO, error.what());
}

// Checks the descriptors first. A thread of the module that gets no descriptor never serves, and the start would wait
// for it.
int serve(const l2fibd::options &options, const sigset_t &signals)
{
    const uint32_t needed = l2fibd::start_descriptors + l2fibd::min_http_descriptors;
    if (const base::result checked = l2fibd::check_descriptors(needed); !checked.ok()) {
        return failed(checked.text);
    }
    l2fibd::listening_socket socket;
    if (const base::result opened = socket.open(options.socket_path, options.socket_group); !opened.ok()) {
        return failed(opened.text);
    }
    if (const base::result started = forwarding::start(options.forwarding); !started.ok()) {
        return failed(started.text);
    }
    const base::result served = serve_http(socket, options, signals);
    if (!served.ok()) {
        failed(served.text);
    }
    const int status = end_forwarding();
    return served.ok() ? status : EXIT_FAILURE;
}

} // namespace

int main(int argc, char **argv)
{
    base::hold_standard_streams();
    try {
        l2fibd::options options;
        if (const auto status = l2fibd::parse_options(argc, argv, options)) {
            return *status;
        }
        l2fibd::log_threshold(options.finest_level);
        if (options.finest_level == log_level::debug) {
            log_module_messages();
        }
        options.forwarding.report = log_report;
        std::signal(SIGPIPE, SIG_IGN); // a client that closed its connection is an error of that connection only
        // The table shows local times, and the API promises UTC.
        setenv("TZ", "UTC0", 1); // NOLINT(concurrency-mt-unsafe): there are no other threads yet
        tzset();
        l2fibd::raise_descriptor_limit();
        const int status = options.check_only ? check(options) : serve(options, block_signals());
        l2fibd::log_stop();
        return status;
    } catch (const std::exception &error) {
        return failed(error.what());
    }
}
