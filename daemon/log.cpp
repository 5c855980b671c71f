#include "daemon/log.h"

#include <unistd.h>

#include <string>

#include "daemon/visible.h"

namespace l2fibd {

namespace {

log_level threshold = log_level::info;

constexpr std::string_view labels[] = {"error: ", "warning: ", "", "debug: "};

} // namespace

void log_threshold(log_level finest)
{
    threshold = finest;
}

void log(log_level level, std::string_view line)
{
    if (level > threshold) {
        return;
    }
    std::string whole("l2fibd: ");
    whole.append(labels[static_cast<size_t>(level)]).append(visible(line)).append("\n");
    // One call, so that lines of several threads do not mix. Nothing can be done about a log that is gone.
    [[maybe_unused]] const ssize_t written = write(STDERR_FILENO, whole.data(), whole.size());
}

} // namespace l2fibd
