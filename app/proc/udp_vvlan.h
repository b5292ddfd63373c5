/* The module's spine: entry points, object-store connections, readiness, and
 * the initialisation that runs once all databases are connected.
 */
#ifndef UDP_VVLAN_H
#define UDP_VVLAN_H

#include <stdint.h>

extern "C" {

/* Takes the host's context. -4, with the stored one unchanged, when null. */
int udp_vvlan_global_init(void *global);

/* Redundancy hook: whatever the role, connects to the object store. The
 * arguments are not looked at. Ends the process when a connection fails. */
int udp_vvlan_rdnd_aware_callback(...);

/* First initialisation, and from then on re-initialisation. 0, or the OR of
 * the failed steps' results. */
int udp_vvlan_init(void *ctx, const char *name);

void udp_vvlan_mom_init(void);
void udp_vvlan_mom_connect(void *ctx);
int udp_vvlan_mom_connect_callback(void *ctx, void *user);
int udp_vvlan_mom_disconnect_callback(void *ctx, uint32_t id);
int udp_vvlan_mom_reconnect_callback(void *ctx, uint32_t id, int32_t type);
}

#endif
