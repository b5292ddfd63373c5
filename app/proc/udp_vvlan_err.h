/* Error events: what could not be carried out is reported to the control side.
 */
#ifndef UDP_VVLAN_ERR_H
#define UDP_VVLAN_ERR_H

#include <stdint.h>

extern "C" {

/* Writes p_bridge.vvlan_err_event, overwriting the report before. type: a
 * p_bridge.vvlan_err_type. data: for VVLAN_SET_PORT_ENABLE the port's
 * uint32_t ifx, for VVLAN_SET_OUI_CONFIG the vvlan_oui_t; otherwise not read. A
 * type that is unknown, or whose data is missing, is logged and not written. */
void udp_vvlan_handler_err_event(uint32_t type, const void *data);
}

#endif
