#include "cli/http.h"

#include <curl/curl.h>

#include <chrono>
#include <cstring>
#include <exception>
#include <nlohmann/json.hpp>

#include "cli/failure.h"
#include "daemon/visible.h"

namespace l2fibctl {

namespace {

using clock = std::chrono::steady_clock;

constexpr size_t longest_error = size_t(64) * 1024;
constexpr long first_error_status = 400;
constexpr long not_found = 404;

nlohmann::json errors_in(std::string_view body)
{
    static const nlohmann::json::json_pointer place("/ietf-restconf:errors/error");
    const auto answer = nlohmann::json::parse(body, nullptr, false);
    return answer.is_object() && answer.contains(place) ? answer.at(place) : nlohmann::json();
}

// The text of a member; nothing when it has none.
std::string text_of(const nlohmann::json &error, const char *member)
{
    const auto found = error.is_object() ? error.find(member) : error.end();
    return error.is_object() && found != error.end() && found->is_string() ? found->get<std::string>() : "";
}

// That an item of the table is not there is an answer; that the daemon does not know a resource is not.
ending ending_of(long status, std::string_view body)
{
    const auto errors = errors_in(body);
    const bool unknown =
        errors.is_array() && !errors.empty() && text_of(errors.front(), "error-tag") == "invalid-value";
    return status == not_found && unknown ? ending::nothing_found : ending::refused;
}

} // namespace

struct connection::transfer {
    CURL *curl;
    const body_sink &sink;
    progress &progress_line;
    std::chrono::seconds timeout;
    clock::time_point last_arrival = clock::now();
    std::string error_body = {};
    std::exception_ptr thrown = {};
    bool stopped = false;
    bool timed_out = false;

    long status() const
    {
        long code = 0;
        curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &code);
        return code;
    }

    bool take(std::string_view bytes)
    {
        if (status() < first_error_status) {
            return sink(bytes);
        }
        error_body += bytes.substr(0, longest_error - error_body.size());
        return true;
    }

    [[noreturn]] void fail(CURLcode code, const std::string &socket_path) const
    {
        long error = 0;
        curl_easy_getinfo(curl, CURLINFO_OS_ERRNO, &error);
        std::string why = code == CURLE_COULDNT_CONNECT && error != 0 ? std::strerror(static_cast<int>(error))
                                                                      : curl_easy_strerror(code);
        if (timed_out) {
            why = "nothing arrived for " + std::to_string(timeout.count()) + " seconds";
        }
        if (status() != 0) {
            throw failure{ending::cut, "the answer was cut: " + why};
        }
        throw failure{ending::unreachable, "no answer from l2fibd at " + l2fibd::visible(socket_path) + ": " + why};
    }
};

connection::connection(std::string socket_path, unsigned timeout_seconds, progress &line)
    : socket_(std::move(socket_path))
    , timeout_(timeout_seconds)
    , progress_line_(line)
    , handle_(curl_easy_init(), curl_easy_cleanup)
{
    if (handle_ == nullptr) {
        throw failure{ending::unreachable, "cannot prepare a request: out of memory"};
    }
}

size_t connection::take_body(char *bytes, size_t size, size_t count, void *transfer)
{
    auto &now = *static_cast<connection::transfer *>(transfer);
    try {
        now.stopped = !now.take({bytes, size * count});
    } catch (...) {
        now.thrown = std::current_exception();
    }
    // Waiting for a slow reader of ours is no silence of the daemon's.
    now.last_arrival = clock::now();
    return now.stopped || now.thrown ? 0 : size * count;
}

int connection::watch(void *transfer, long long, long long, long long, long long)
{
    auto &now = *static_cast<connection::transfer *>(transfer);
    now.progress_line.tick();
    now.timed_out = clock::now() - now.last_arrival > now.timeout;
    return now.timed_out ? 1 : 0;
}

void connection::set_up(const request &what, transfer &now)
{
    const std::string url = "http://l2fibd" + what.path;
    CURL *curl = now.curl;
    curl_easy_reset(curl);
    curl_easy_setopt(curl, CURLOPT_UNIX_SOCKET_PATH, socket_.c_str());
    curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
    curl_easy_setopt(curl, CURLOPT_PROXY, ""); // whatever the environment says
    curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, &connection::take_body);
    curl_easy_setopt(curl, CURLOPT_WRITEDATA, &now);
    curl_easy_setopt(curl, CURLOPT_XFERINFOFUNCTION, &connection::watch);
    curl_easy_setopt(curl, CURLOPT_XFERINFODATA, &now);
    curl_easy_setopt(curl, CURLOPT_NOPROGRESS, 0L);
    if (what.is_operation) {
        curl_easy_setopt(curl, CURLOPT_POSTFIELDSIZE, static_cast<long>(what.body.size()));
        curl_easy_setopt(curl, CURLOPT_COPYPOSTFIELDS, what.body.c_str());
    }
}

bool connection::perform(const request &what, const body_sink &sink)
{
    transfer now{handle_.get(), sink, progress_line_, std::chrono::seconds(timeout_)};
    set_up(what, now);
    const std::unique_ptr<curl_slist, void (*)(curl_slist *)> headers(
        curl_slist_append(nullptr, "Content-Type: application/yang-data+json"), curl_slist_free_all);
    if (what.is_operation) {
        curl_easy_setopt(now.curl, CURLOPT_HTTPHEADER, headers.get());
    }
    const CURLcode code = curl_easy_perform(now.curl);
    if (now.thrown) {
        std::rethrow_exception(now.thrown);
    }
    if (now.stopped) {
        return false;
    }
    if (code != CURLE_OK) {
        now.fail(code, socket_);
    }
    if (now.status() >= first_error_status) {
        throw failure{ending_of(now.status(), now.error_body), error_text(now.status(), now.error_body)};
    }
    return true;
}

std::string error_text(long status, std::string_view body)
{
    std::string lines;
    const auto errors = errors_in(body);
    for (const auto &error : errors.is_array() ? errors : nlohmann::json::array()) {
        const std::string message = text_of(error, "error-message");
        if (!message.empty()) {
            lines += (lines.empty() ? "" : "\n") + l2fibd::visible(message);
        }
    }
    return lines.empty() ? "the daemon answered with the HTTP status " + std::to_string(status) : lines;
}

} // namespace l2fibctl
