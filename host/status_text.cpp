// SPDX-License-Identifier: Apache-2.0

#include "host/status_text.h"

#include <algorithm>
#include <cstring>
#include <iterator>

#include "l2fib_mac_edm.h"

namespace {

constexpr uint64_t error_number_mask = 0xfff; // Linux error numbers are below 4096

struct status_text {
    uint32_t status;
    const char *text;
};

constexpr status_text module_statuses[] = {
    {EDM_ERR_INVALID_ARGS, "the module is not ready, or was given a wrong argument"},
    {EDM_ERR_NO_RESOURCE, "a record could not be created"},
    {EDM_ERR_STOPPED, "stopped early, or refused"},
    {EDM_ERR_RESYNC, "the forwarding plane could not bring the table up to date"},
    {EDM_ERR_NOT_FOUND, "not found"},
    {EDM_ERR_BAD_REQUEST, "the request is malformed, or what it continues has gone"},
    {EDM_ERR_NO_ITEM, "there is no such item"},
};

} // namespace

namespace host {

const char *status_meaning(uint64_t status)
{
    const auto *known = std::ranges::find(module_statuses, status, &status_text::status);
    if (known != std::end(module_statuses)) {
        return known->text;
    }
    return status <= error_number_mask ? strerrordesc_np(static_cast<int>(status)) : nullptr;
}

bool is_send_error(uint64_t status)
{
    return (status & ~error_number_mask) == EDM_RESYNC_SEND_ERROR;
}

uint32_t send_error_number(uint64_t status)
{
    return static_cast<uint32_t>(status & error_number_mask);
}

} // namespace host
