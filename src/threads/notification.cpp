// SPDX-License-Identifier: Apache-2.0

// Removal of bridge domains and ports. When the notification service reports that one is removed, the cache destroys it
// with everything below it. An object that is not cached is no error.
//
// The cache thread subscribes to both streams before it creates the table. Its event loop delivers the notifications
// and starts afterwards, so the table always exists when a callback runs.
#include <cstdint>

#include "l2fib_mac_edm.h"
#include "l2fm_edm_table.h"
#include "platform/notification.h"
#include "table/shared_cell.h"
#include "table/trace_point.h"

namespace edm {
namespace {

// Used by the cache thread only. Lives as long as the process.
bdxc_connection_t *bdxc_handle;

void l2fib_mac_edm_notif_noop(void *, void *, const void *) {}

void l2fib_mac_edm_bdxc_notif_hdlr(void *, void *, const void *notification)
{
    const auto *notice = static_cast<const bdxc_notification_t *>(notification);
    if (notice == nullptr || notice->event_code != BDXC_EVENT_REMOVED) {
        return;
    }
    switch (notice->object_kind) {
    case BDXC_KIND_BRIDGE_DOMAIN: l2fm_edm_table_bd_destroy(notice->object_id); break;
    case BDXC_KIND_CROSS_CONNECT: l2fm_edm_table_bp_destroy(notice->object_id); break;
    default: break;
    }
}

void l2fib_mac_edm_efp_notif_hdlr(void *, void *, const void *notification)
{
    const auto *notice = static_cast<const efp_notification_t *>(notification);
    if (notice == nullptr || notice->validity != EFP_NOTIFICATION_VALID || notice->event_code != BDXC_EVENT_REMOVED) {
        return;
    }
    switch (notice->object_kind) {
    case BDXC_KIND_BRIDGE_DOMAIN: l2fm_edm_table_bd_destroy(notice->bridge_id); break;
    case BDXC_KIND_CROSS_CONNECT:
    case EFP_KIND_BRIDGE_PORT_3:
    case EFP_KIND_BRIDGE_PORT_6: l2fm_edm_table_bp_destroy(notice->port_id); break;
    default: break;
    }
}

constexpr bdxc_subscription_t bdxc_callbacks = {{l2fib_mac_edm_bdxc_notif_hdlr, l2fib_mac_edm_notif_noop,
                                                 l2fib_mac_edm_notif_noop, l2fib_mac_edm_notif_noop,
                                                 l2fib_mac_edm_notif_noop, l2fib_mac_edm_notif_noop}};
// In the second stream the first two slots have the same handler.
constexpr bdxc_subscription_t efp_callbacks = {{l2fib_mac_edm_efp_notif_hdlr, l2fib_mac_edm_efp_notif_hdlr,
                                                l2fib_mac_edm_notif_noop, l2fib_mac_edm_notif_noop,
                                                l2fib_mac_edm_notif_noop, l2fib_mac_edm_notif_noop}};

uint32_t subscribe_to_both()
{
    const uint32_t status = bdxc_register_bdxc_notifications(bdxc_handle, 0, &bdxc_callbacks);
    return status == 0 ? bdxc_register_efp_notifications(bdxc_handle, 0, &efp_callbacks) : status;
}

} // namespace
} // namespace edm

uint32_t l2fib_mac_edm_bdxc_register(void)
{
    if (const uint32_t status = bdxc_process_connect(edm::acquire(l2fib_mac_cache_evm), 0, &edm::bdxc_handle);
        status != 0) {
        EDM_TRACE(EDM_TRACE_NOT_CONNECTED, status);
        return status;
    }
    // If only the second subscription fails, the disconnection ends the first one too.
    if (const uint32_t status = edm::subscribe_to_both(); status != 0) {
        EDM_TRACE(EDM_TRACE_NOT_SUBSCRIBED, status);
        bdxc_process_disconnect(edm::bdxc_handle);
        return status;
    }
    return 0;
}
