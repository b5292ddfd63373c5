/* The module's only timer. Every minute it adds a minute to each joined
 * automatic port that has no voice MAC, and makes it leave when the sum reaches
 * the aging time. In any other state the sum is set to 0. While the voice VLAN
 * is off no port is visited, so sums keep their value.
 */
#include "udp_vvlan_age.h"

#include "tq_global.h"
#include "udp_vvlan_base.h"
#include "udp_vvlan_glb_cfg.h"

constexpr uint32_t VVLAN_SCAN_SECONDS = 60;
constexpr uint32_t VVLAN_SECONDS_PER_MINUTE = 60;

static void arm_timer(void)
{
    const struct timeval interval = {VVLAN_SCAN_SECONDS, 0};
    const auto *global = static_cast<const tq_global_t *>(g_udp_vvlan_global);
    tq_thread_add_timer_timeval_withname(global->master, udp_vvlan_timer_scan, nullptr, &interval, VVLAN_MODULE_NAME);
}

int udp_vvlan_timer_init(void)
{
    VVLAN_LOG_DEBUG("<timer> :init timer");
    arm_timer();
    return VVLAN_OK;
}

int udp_vvlan_timer_scan([[maybe_unused]] tq_thread_t *thread)
{
    if (g_udp_vvlan_glb_cfg.enable == 1) {
        VVLAN_LOG_DEBUG("\n Timer(60s) is time out, Scan vvlan port:");
        udp_vvlan_port_hash_traverse(udp_vvlan_timer_ops, nullptr);
        VVLAN_LOG_DEBUG("\n Scan vvlan port over!");
    }
    VVLAN_LOG_DEBUG("\n************Start timer: time interval(60s)\n");
    arm_timer();
    return VVLAN_OK;
}

static void age_out(vvlan_port_t *port)
{
    port->no_flw = 0;
    int rv = udp_vvlan_port_join_vvlan(port, 0);
    VVLAN_LOG_INFO("port(ifx:%d) out from vvlan, rv=%d!", port->ifx, rv);
    /* Leaving sets the trap itself unless it failed half-way; without the trap
     * the port's next voice frame would go unnoticed. */
    rv = udp_vvlan_port_set_trap(port, 1);
    VVLAN_LOG_INFO("port(ifx:%d), trap_to_cpu, rv=%d!", port->ifx, rv);
    port->deny_en = 1;
}

int udp_vvlan_timer_ops(vvlan_port_t *port, [[maybe_unused]] void *arg)
{
    if (port == nullptr) {
        VVLAN_LOG_ERROR("pointer NULL!");
        return VVLAN_WALK_NULL;
    }
    if (port->vvlan_en != 0) {
        VVLAN_LOG_DEBUG(VVLAN_PORT_STATE_FORMAT, VVLAN_PORT_STATE_ARGS(port, g_udp_vvlan_glb_cfg.age_time));
    }
    const bool counted =
        port->vvlan_en != 0 && port->auto_mod != 0 && port->auto_join != 0 && port->deny_en == 0 && port->mac_aged != 0;
    if (!counted) {
        port->no_flw = 0;
        return VVLAN_OK;
    }
    port->no_flw += VVLAN_SCAN_SECONDS;
    if (port->no_flw >= g_udp_vvlan_glb_cfg.age_time * VVLAN_SECONDS_PER_MINUTE) {
        age_out(port);
    }
    return VVLAN_OK;
}
