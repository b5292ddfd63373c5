/* The module's spine: entry points, object-store connections, readiness, and
 * the initialisation that runs once all databases are connected.
 */
#ifndef UDP_VVLAN_H
#define UDP_VVLAN_H

#include <stdint.h>

/* Results. 0 is success; codes of the object-store client are passed up. */
constexpr int VVLAN_OK = 0;
constexpr int VVLAN_E_NO_ENTRY = -1;     /* no synchronisation entry, no tracker node */
constexpr int VVLAN_E_NO_OBJECT = -2;    /* a record or a forwarding-plane object could not be had */
constexpr int VVLAN_E_INVALID = -4;      /* invalid or missing input, or a store error in a callback */
constexpr int VVLAN_E_RECOVER = -6;      /* no recovery entry could be allocated */
constexpr int VVLAN_E_NOT_FOUND = -7;    /* no such port or OUI */
constexpr int VVLAN_E_STORE = -11;       /* an object-store write or subscription failed */
constexpr int VVLAN_E_UNAVAILABLE = -17; /* no log category, no forwarding-plane manager */
constexpr int VVLAN_E_UNHANDLED = -20;   /* an operation or field tag that the code does not handle */
constexpr int VVLAN_WALK_NULL = 4;       /* a walk callback was handed a null record */
constexpr int VVLAN_RECONNECT_IGNORED = 77;

/* Object-store databases. */
constexpr uint32_t VVLAN_DB_STATUS = 0;  /* status and service registration */
constexpr uint32_t VVLAN_DB_CONFIG = 4;  /* configuration, and our reports to the control side */
constexpr uint32_t VVLAN_DB_ADDRESS = 6; /* the bridge's learned addresses; TQ_MOM_UDP_DB holds our own objects */

/* The name under which the module registers itself everywhere. */
constexpr char VVLAN_MODULE_NAME[] = "udp_vvlan";

extern "C" {

/* The host's global context (tq_global_t): the context of every object-store
 * call, and the handle of every forwarding-plane call. Owned by the host. */
extern void *g_udp_vvlan_global;

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
