/* Included by force in front of each source of the module when it is built for
 * the torture: every call of it that can fail goes to a function of the same
 * name with "fault_" before it, which the torture program exports. The
 * platform's headers, read after this one, declare those functions. Blocks
 * from a renamed allocator are released with the plain free().
 */
#ifndef VVLAN_FAULT_REDIRECT_H
#define VVLAN_FAULT_REDIRECT_H

#include <stdlib.h>

#ifdef __cplusplus
extern "C" {
#endif
void *fault_malloc(size_t size);
void *fault_calloc(size_t count, size_t size);
void *fault_realloc(void *block, size_t size);
#ifdef __cplusplus
}
#endif

#define malloc fault_malloc
#define calloc fault_calloc
#define realloc fault_realloc

#define fp_udp_cgst_register fault_fp_udp_cgst_register
#define fp_udp_get_mgr fault_fp_udp_get_mgr
#define fp_udp_register_acl_handler fault_fp_udp_register_acl_handler
#define libddm_get_ifx_by_phyid fault_libddm_get_ifx_by_phyid
#define libddm_get_phyid_by_ifx fault_libddm_get_phyid_by_ifx
#define libddm_init fault_libddm_init
#define ssat_lib_init fault_ssat_lib_init
#define ssat_reg_mod_cmd fault_ssat_reg_mod_cmd
#define tq_global_finish fault_tq_global_finish
#define tq_mom_clear_expire fault_tq_mom_clear_expire
#define tq_mom_client_connect fault_tq_mom_client_connect
#define tq_mom_client_connect_sync fault_tq_mom_client_connect_sync
#define tq_mom_client_set_disconnect_cb fault_tq_mom_client_set_disconnect_cb
#define tq_mom_client_set_reconnect_cb fault_tq_mom_client_set_reconnect_cb
#define tq_mom_del fault_tq_mom_del
#define tq_mom_del_ow fault_tq_mom_del_ow
#define tq_mom_dsbegin fault_tq_mom_dsbegin
#define tq_mom_dsbegin_ow fault_tq_mom_dsbegin_ow
#define tq_mom_dsbegin_sync fault_tq_mom_dsbegin_sync
#define tq_mom_dsend fault_tq_mom_dsend
#define tq_mom_dsend_ow fault_tq_mom_dsend_ow
#define tq_mom_get_sync fault_tq_mom_get_sync
#define tq_mom_scan fault_tq_mom_scan
#define tq_mom_scan_sync fault_tq_mom_scan_sync
#define tq_mom_set fault_tq_mom_set
#define tq_mom_setow fault_tq_mom_setow
#define tq_mom_subscribe fault_tq_mom_subscribe
#define tq_mom_subscribe_field fault_tq_mom_subscribe_field
#define tq_mom_unsubscribe fault_tq_mom_unsubscribe
#define tq_thread_add_timer_timeval_withname fault_tq_thread_add_timer_timeval_withname
#define tq_zlog_init fault_tq_zlog_init

#endif
