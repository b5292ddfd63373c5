// Included by force in front of each source of the module when it is built for
// the torture: every call of it that can fail asks the torture program first. A
// call that fails does not reach the platform. The platform's headers come
// before the macros, which then change the module's calls alone. The codes are
// those that the contract of the call names for a failure from outside.
#pragma once

#include "fp_udp.h"
#include "libddm.h"
#include "ssat.h"
#include "tests/fault/calls.h"
#include "tq_global.h"
#include "tq_mom.h"
#include "tq_thread.h"
#include "tq_zlog.h"

#include <stdlib.h>
#include <type_traits>

namespace vvl::fault
{

// A call in front of the platform's function.
template <typename Result, typename... Parameters> struct Fallible {
    Result (*real)(Parameters...);
    Call call;

    Result operator()(Parameters... parameters) const
    {
        if (!fault_fails(call)) {
            return real(parameters...);
        }
        if constexpr (std::is_pointer_v<Result>) {
            return nullptr;
        } else {
            return call.code;
        }
    }
};

constexpr uint32_t address_db = 6; // its subscription belongs to no start-up

} // namespace vvl::fault

#define VVLAN_FALLIBLE(name, code, answer)                                                                             \
    vvl::fault::Fallible                                                                                               \
    {                                                                                                                  \
        ::name, vvl::fault::Call                                                                                       \
        {                                                                                                              \
#            name, vvl::fault::code, vvl::fault::Answer::answer                                                        \
        }                                                                                                              \
    }

#define malloc VVLAN_FALLIBLE(malloc, no_memory, goes_on)
#define calloc VVLAN_FALLIBLE(calloc, no_object, ends_process) // the tables of the start-up
#define realloc VVLAN_FALLIBLE(realloc, no_memory, goes_on)

#define fp_udp_register_acl_handler VVLAN_FALLIBLE(fp_udp_register_acl_handler, not_found, ends_process)
#define fp_udp_cgst_register VVLAN_FALLIBLE(fp_udp_cgst_register, not_found, ends_process)
#define fp_udp_get_mgr fault_fp_udp_get_mgr

#define libddm_init VVLAN_FALLIBLE(libddm_init, not_found, ends_process)
// A port is looked up when its record is made, and never again.
#define libddm_get_phyid_by_ifx VVLAN_FALLIBLE(libddm_get_phyid_by_ifx, not_found, lasts_for_life)
#define libddm_get_ifx_by_phyid VVLAN_FALLIBLE(libddm_get_ifx_by_phyid, not_found, goes_on)
#define ssat_lib_init VVLAN_FALLIBLE(ssat_lib_init, no_memory, stops_loading)
#define ssat_reg_mod_cmd VVLAN_FALLIBLE(ssat_reg_mod_cmd, no_memory, lasts_for_life)
#define tq_global_finish fault_tq_global_finish
#define tq_thread_add_timer_timeval_withname                                                                           \
    VVLAN_FALLIBLE(tq_thread_add_timer_timeval_withname, no_memory, lasts_for_life)
#define tq_zlog_init VVLAN_FALLIBLE(tq_zlog_init, unavailable, stops_loading)

#define tq_mom_client_connect_sync VVLAN_FALLIBLE(tq_mom_client_connect_sync, unreachable, ends_process)
#define tq_mom_client_connect VVLAN_FALLIBLE(tq_mom_client_connect, unreachable, ends_process)
#define tq_mom_client_set_disconnect_cb VVLAN_FALLIBLE(tq_mom_client_set_disconnect_cb, unreachable, ends_process)
#define tq_mom_client_set_reconnect_cb VVLAN_FALLIBLE(tq_mom_client_set_reconnect_cb, unreachable, ends_process)
#define tq_mom_set VVLAN_FALLIBLE(tq_mom_set, unreachable, goes_on)
#define tq_mom_del VVLAN_FALLIBLE(tq_mom_del, unreachable, goes_on)
#define tq_mom_get_sync VVLAN_FALLIBLE(tq_mom_get_sync, unreachable, goes_on)
#define tq_mom_scan VVLAN_FALLIBLE(tq_mom_scan, unreachable, goes_on)
#define tq_mom_scan_sync VVLAN_FALLIBLE(tq_mom_scan_sync, unreachable, ends_process)
#define tq_mom_subscribe(ctx, db, ...)                                                                                 \
    ((db) == vvl::fault::address_db                                                                                    \
         ? VVLAN_FALLIBLE(tq_mom_subscribe, unreachable, goes_on)                                                      \
         : VVLAN_FALLIBLE(tq_mom_subscribe, unreachable, ends_process))(ctx, db, __VA_ARGS__)
#define tq_mom_unsubscribe VVLAN_FALLIBLE(tq_mom_unsubscribe, unreachable, goes_on)
#define tq_mom_subscribe_field VVLAN_FALLIBLE(tq_mom_subscribe_field, unreachable, ends_process)
#define tq_mom_clear_expire VVLAN_FALLIBLE(tq_mom_clear_expire, unreachable, goes_on)
#define tq_mom_dsbegin_sync VVLAN_FALLIBLE(tq_mom_dsbegin_sync, unreachable, goes_on)
#define tq_mom_dsbegin VVLAN_FALLIBLE(tq_mom_dsbegin, unreachable, goes_on)
#define tq_mom_dsend VVLAN_FALLIBLE(tq_mom_dsend, unreachable, goes_on)
#define tq_mom_setow VVLAN_FALLIBLE(tq_mom_setow, unreachable, goes_on)
#define tq_mom_del_ow VVLAN_FALLIBLE(tq_mom_del_ow, unreachable, goes_on)
#define tq_mom_dsbegin_ow VVLAN_FALLIBLE(tq_mom_dsbegin_ow, unreachable, goes_on)
#define tq_mom_dsend_ow VVLAN_FALLIBLE(tq_mom_dsend_ow, unreachable, goes_on)
