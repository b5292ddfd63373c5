/* The forwarding plane: registration and reconciliation, the three voice ACLs,
 * their ACEs, the ids of ACEs, and the ACLs' bindings to ports.
 *
 * Outcomes come back through callbacks that only log, so a record's created
 * flag says what was requested, not what was achieved.
 */
#ifndef UDP_VVLAN_FP_H
#define UDP_VVLAN_FP_H

#include "fp_udp.h"
#include "udp_vvlan_glb_cfg.h"
#include "udp_vvlan_oui_node.h"

#include <stdint.h>

constexpr uint32_t VVLAN_ACE_ID_NONE = 0;
constexpr uint32_t VVLAN_ACE_ID_COUNT = 128; /* 0 is never handed out */
constexpr uint32_t VVLAN_ACE_POOL_SIZE = VVLAN_ACE_ID_COUNT / 8;

extern "C" {

/* 1 once the cycle's scan has been read and its stale records are swept. */
extern uint8_t oui_cfg_scan_over;
extern uint8_t port_cfg_scan_over;
extern uint8_t glb_cfg_scan_over;
extern uint8_t port_noti_scan_over;

/* Ids in use: id n is bit n mod 8 of byte n div 8. */
extern uint8_t g_vvlan_ace_id_pool[VVLAN_ACE_POOL_SIZE];

/* Registers with the plane and marks what an earlier run left there. 0, a
 * registration's code, or -17 where there is no manager. */
int udp_vvlan_fp_init(void *ctx, const char *name);

/* Removes what is still marked, once all four start-up cycles are over. */
void udp_vvlan_fp_del_expired(void *ctx);

/* ---- ACLs. add non-zero: set it if it is not there; 0: delete it if it is. ---- */
int udp_vvlan_set_cos_acl(vvlan_acl_t *acl, uint32_t add);
int udp_vvlan_set_mvlan_acl(vvlan_acl_t *acl, uint32_t add);
int udp_vvlan_set_sec_acl(vvlan_acl_t *acl, uint32_t add);
int udp_vvlan_set_acl_exec(uint32_t add);

/* All three; on failure the voice VLAN id is cleared. */
int udp_vvlan_set_acl(uint32_t add);

/* ---- ACE ids. Lowest free first; 0 when all are taken. ---- */
uint32_t udp_vvlan_alloc_ace_id(void);
void udp_vvlan_free_ace_id(int id); /* ids outside 0 to 127 and free ones are ignored */

/* ---- ACEs, built from the configuration of the moment. With add clear the
 * ACE is removed and its ACL left alone. 0, -2, or the ACL switch's code. ---- */
int udp_vvlan_set_cos_ace(vvlan_acl_t *acl, const vvlan_oui_t *oui, uint32_t add);
int udp_vvlan_set_mvlan_ace(vvlan_acl_t *acl, const vvlan_oui_t *oui, uint32_t add);
int udp_vvlan_set_sec_ace(vvlan_acl_t *acl, uint32_t add);

/* ---- Bindings of an ACL to a port. apply non-zero: bind. 0 or -2. ---- */
int udp_vvlan_apply_cos_acl(vvlan_acl_t *acl, uint32_t phyid, uint32_t apply);
int udp_vvlan_apply_mvlan_acl(vvlan_acl_t *acl, uint32_t phyid, uint32_t apply);
int udp_vvlan_apply_sec_acl(vvlan_acl_t *acl, uint32_t phyid, uint32_t apply);

/* ---- Outcome callbacks; they log. ---- */
extern const fp_udp_acl_cb_tbl_t udp_vvlan_fp_cb_tbl;
void udp_vvlan_fp_cb_acl_success(void *ignored, const vvlan_acl_desc_t *desc);
void udp_vvlan_fp_cb_acl_failed(void *ignored, const vvlan_acl_desc_t *desc, int err);
void udp_vvlan_fp_cb_ace_success(void *ignored, const vvlan_acl_desc_t *desc, uint64_t ace_id);
void udp_vvlan_fp_cb_ace_failed(void *ignored, const vvlan_acl_desc_t *desc, uint64_t ace_id, int err);
void udp_vvlan_fp_cb_apply_success(void *ignored, const vvlan_acl_desc_t *desc);
void udp_vvlan_fp_cb_apply_failed(void *ignored, const vvlan_acl_desc_t *desc, void *unused, int err);
}

#endif
