// SPDX-License-Identifier: Apache-2.0

#include "cli/output/terminal.h"

#include <cstdlib>
#include <string_view>
#include <unistd.h>

#include "cli/output/pager.h"

namespace l2fibctl {

namespace {

// Without less, or without a shell to look for it, the text goes to the terminal as it is.
constexpr char usual_pager[] = "if command -v less >/dev/null; then exec less; else exec cat; fi";

const char *variable(const char *name)
{
    return std::getenv(name); // NOLINT(concurrency-mt-unsafe): nothing changes the environment while threads run
}

bool is_set(const char *name)
{
    const char *value = variable(name);
    return value != nullptr && *value != '\0';
}

} // namespace

bool is_on_terminal()
{
    return isatty(STDOUT_FILENO) == 1;
}

bool wants_colors(when color)
{
    if (color != when::automatic) {
        return color == when::always;
    }
    const char *terminal = variable("TERM");
    const bool is_dumb = terminal == nullptr || std::string_view(terminal) == "dumb";
    return is_on_terminal() && !is_set("NO_COLOR") && !is_dumb;
}

std::string pager_command(bool is_off)
{
    if (is_off || !is_on_terminal()) {
        return "";
    }
    for (const char *name : {"L2FIBCTL_PAGER", "PAGER"}) {
        if (const char *value = variable(name)) {
            return std::string_view(value) == "cat" ? "" : value;
        }
    }
    return access(pager_shell, X_OK) == 0 ? usual_pager : "";
}

} // namespace l2fibctl
