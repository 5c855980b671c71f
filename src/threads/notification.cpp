// SPDX-License-Identifier: Apache-2.0

// The removal of bridge domains and ports, as the notification service tells it: what it names is destroyed in the
// cache with everything under it. Both streams are subscribed to before the table exists and delivered by the cache
// thread's loop, which begins afterwards. That something is not cached is no error.
#include <cstdint>

#include "l2fib_mac_edm.h"
#include "l2fm_edm_table.h"
#include "platform/notification.h"
#include "table/shared_cell.h"
#include "table/trace_point.h"

namespace edm {
namespace {

// Kept for the life of the process; the cache thread's alone.
bdxc_connection_t *bdxc_handle;

void l2fib_mac_edm_notif_noop(void *, void *, const void *) {}

void l2fib_mac_edm_bdxc_notif_hdlr(void *, void *, const void *notification)
{
    const auto *told = static_cast<const bdxc_notification_t *>(notification);
    if (told == nullptr || told->event_code != BDXC_EVENT_REMOVED) {
        return;
    }
    switch (told->object_kind) {
    case BDXC_KIND_BRIDGE_DOMAIN: l2fm_edm_table_bd_destroy(told->object_id); break;
    case BDXC_KIND_CROSS_CONNECT: l2fm_edm_table_bp_destroy(told->object_id); break;
    default: break;
    }
}

void l2fib_mac_edm_efp_notif_hdlr(void *, void *, const void *notification)
{
    const auto *told = static_cast<const efp_notification_t *>(notification);
    if (told == nullptr || told->validity != 1 || told->event_code != BDXC_EVENT_REMOVED) {
        return;
    }
    switch (told->object_kind) {
    case BDXC_KIND_BRIDGE_DOMAIN: l2fm_edm_table_bd_destroy(told->bridge_id); break;
    case BDXC_KIND_CROSS_CONNECT:
    case EFP_KIND_BRIDGE_PORT_3:
    case EFP_KIND_BRIDGE_PORT_6: l2fm_edm_table_bp_destroy(told->port_id); break;
    default: break;
    }
}

constexpr bdxc_subscription_t bdxc_callbacks = {{l2fib_mac_edm_bdxc_notif_hdlr, l2fib_mac_edm_notif_noop,
                                                 l2fib_mac_edm_notif_noop, l2fib_mac_edm_notif_noop,
                                                 l2fib_mac_edm_notif_noop, l2fib_mac_edm_notif_noop}};
// The second stream has its handler twice.
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
        EDM_TRACE(1924, status);
        return status;
    }
    // Disconnecting withdraws a subscription that was made.
    if (const uint32_t status = edm::subscribe_to_both(); status != 0) {
        EDM_TRACE(1923, status);
        bdxc_process_disconnect(edm::bdxc_handle);
        return status;
    }
    return 0;
}
