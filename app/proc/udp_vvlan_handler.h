/* Handlers of the configuration objects: what a decoded message does to the
 * state. A handler that is given a message with missing or short parts logs it,
 * changes nothing and returns -4.
 */
#ifndef UDP_VVLAN_HANDLER_H
#define UDP_VVLAN_HANDLER_H

#include "p_bridge.pb-c.h"
#include "s_bridge.pb-c.h"

#include <stdint.h>

extern "C" {

/* Opens the port-id mapping and registers the packet library, at first start. */
int udp_vvlan_handler_init(void *ctx, const char *name);

/* One field of the global configuration, named by its field number. op is not
 * used. -11: the MAC subscription failed; -20: unknown field. */
int udp_vvlan_handler_set_glb_cfg(uint32_t op, const PBridge__VvlanGlbCfg *msg, uint32_t field_tag);

/* Adds (add 1) or deletes an OUI. -11: it could not be added; -7: unknown. */
int udp_vvlan_handler_set_oui_cfg(uint32_t add, const PBridge__VvlanOuiCfg *msg);

/* Sets (add 1) or deletes a port's configuration. -2: out of memory; -7: delete
 * of an unknown port; otherwise the code of the failed step. */
int udp_vvlan_handler_set_port_cfg(uint32_t add, const PBridge__VvlanPortCfg *msg);

/* A voice frame was trapped on a physical port: an enabled automatic port
 * joins. op is not used. */
int udp_vvlan_handler_set_port_noti(uint32_t op, const SBridge__VvlanPortNoty *msg);

/* Whether a message has all of its key: 0, or -4 with a log line. */
int udp_vvlan_handler_check_oui_cfg(const PBridge__VvlanOuiCfg *msg);
int udp_vvlan_handler_check_port_cfg(const PBridge__VvlanPortCfg *msg);
}

#endif
