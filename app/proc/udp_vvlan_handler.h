/* Handlers of the configuration objects: what a decoded message does to the
 * state. A handler that gets a message with missing or short parts logs it,
 * changes nothing and returns -4. Also the switching of the voice VLAN, and the
 * first initialisation of the tables that the handlers change.
 */
#ifndef UDP_VVLAN_HANDLER_H
#define UDP_VVLAN_HANDLER_H

#include "p_bridge.pb-c.h"
#include "s_bridge.pb-c.h"

#include <stdint.h>

/* Field numbers of p_bridge.vvlan_glb_cfg: the tags of its subscriptions. */
constexpr uint32_t VVLAN_GLB_FIELD_SWITCH = 5;
constexpr uint32_t VVLAN_GLB_FIELD_SECU_MODE = 6;
constexpr uint32_t VVLAN_GLB_FIELD_AGE_TIME = 7;
constexpr uint32_t VVLAN_GLB_FIELD_QOS = 8;

extern "C" {

/* Defaults and empty tables, at first start. 0 or the first failing step's code. */
int udp_vvlan_glb_cfg_init(void);

/* Opens the port-id mapping and registers the packet library, at first start. */
int udp_vvlan_handler_init(void *ctx, const char *name);

/* ---- Switching ---- */

/* Switches the voice VLAN on with this id: ACLs, ACEs, then every port. With id
 * 0 only clears enable. 0 or the result of the port walk. */
int udp_vvlan_add_vid(uint32_t vid);

/* Switches it off if this is its id. */
void udp_vvlan_del_vid(uint32_t vid);

/* The security ACE and every OUI's; a failure is reported as an error event. */
void udp_vvlan_set_ace(uint32_t add);

/* ---- Configuration objects ---- */

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
