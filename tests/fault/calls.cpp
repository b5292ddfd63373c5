// One row per call, in the order of the platform's headers. The codes are those
// that the contract of the call names for a failure from outside.
#include "tests/fault/calls.h"

#include "fp_udp.h"
#include "libddm.h"
#include "ssat.h"
#include "tq_global.h"
#include "tq_mom.h"
#include "tq_thread.h"
#include "tq_zlog.h"

#include <cstdlib>
#include <type_traits>
#include <utility>

namespace
{

using vvl::fault::Answer;
using vvl::fault::Call;

constexpr int no_object = -2;
constexpr int no_memory = -6;
constexpr int not_found = -7;
constexpr int unreachable = TQ_MOM_E_UNREACHABLE;
constexpr int unavailable = -17;
constexpr uint32_t address_db = 6; // its subscription belongs to no start-up

vvl::fault::Decider decider;
bool finish_request = false;

bool fails(const Call &call)
{
    return decider && decider(call);
}

// ---- The forwarding plane's operations ----
// What was not installed, or not removed, is made good by the reconciliation
// that a restart begins.

fp_udp_mgr_ops_t plane_ops;
fp_udp_mgr_t plane_manager = {&plane_ops};
const fp_udp_mgr_ops_t *real_ops;

template <typename Returned> Returned failure(int code)
{
    if constexpr (std::is_pointer_v<Returned>) {
        return nullptr;
    } else {
        return code;
    }
}

// One operation in front of the real one of the same place in the table.
template <auto operation> struct Refusing;

template <typename Returned, typename... Parameters, Returned (*fp_udp_mgr_ops_t::*operation)(Parameters...)>
struct Refusing<operation> {
    static inline Call call_;

    static Returned call(Parameters... parameters)
    {
        return fails(call_) ? failure<Returned>(call_.code) : (real_ops->*operation)(parameters...);
    }
};

template <auto operation> void refuse(const char *name, int code = no_memory, Answer answer = Answer::lasts_in_plane)
{
    Refusing<operation>::call_ = {name, code, answer};
    plane_ops.*operation = Refusing<operation>::call;
}

void wrap_plane(const fp_udp_mgr_ops_t &real)
{
    real_ops = &real;
    plane_ops = real;
    refuse<&fp_udp_mgr_ops_t::ace_alloc>("ace_alloc", no_object, Answer::goes_on);
    refuse<&fp_udp_mgr_ops_t::apply_alloc>("apply_alloc", no_object, Answer::goes_on);
    refuse<&fp_udp_mgr_ops_t::acl_set>("acl_set");
    refuse<&fp_udp_mgr_ops_t::acl_del>("acl_del");
    refuse<&fp_udp_mgr_ops_t::acl_expire>("acl_expire");
    refuse<&fp_udp_mgr_ops_t::acl_del_expired>("acl_del_expired");
    refuse<&fp_udp_mgr_ops_t::ace_set>("ace_set");
    refuse<&fp_udp_mgr_ops_t::ace_del>("ace_del");
    refuse<&fp_udp_mgr_ops_t::ace_expire>("ace_expire");
    refuse<&fp_udp_mgr_ops_t::ace_del_expired>("ace_del_expired");
    refuse<&fp_udp_mgr_ops_t::apply_set>("apply_set");
    refuse<&fp_udp_mgr_ops_t::apply_del>("apply_del");
    refuse<&fp_udp_mgr_ops_t::apply_expire>("apply_expire");
    refuse<&fp_udp_mgr_ops_t::apply_del_expired>("apply_del_expired");
}

// ---- The module's imports ----

template <const Call &call, auto function> struct Faulty;

template <const Call &call, typename Returned, typename... Parameters, bool plain,
          Returned (*function)(Parameters...) noexcept(plain)>
struct Faulty<call, function> {
    static Returned run(Parameters... parameters) noexcept(plain)
    {
        return fails(call) ? failure<Returned>(call.code) : function(parameters...);
    }
};

} // namespace

namespace vvl::fault
{

void set_decider(Decider next)
{
    decider = std::move(next);
}

bool take_finish_request()
{
    return std::exchange(finish_request, false);
}

} // namespace vvl::fault

// The module is linked so that each of these calls goes to __wrap_NAME (the
// linker's --wrap; CMakeLists.txt reads the names here), which has the type of
// NAME and is the function that the resolver hands to the dynamic linker.
#define FAULT(name, code, answer)                                                                                      \
    static constexpr Call call_##name{#name, code, Answer::answer};                                                    \
    extern "C" decltype(&(name)) resolve_##name()                                                                      \
    {                                                                                                                  \
        return &Faulty<call_##name, &(name)>::run;                                                                     \
    }                                                                                                                  \
    extern "C" decltype(name) __wrap_##name __attribute__((ifunc("resolve_" #name)))

FAULT(malloc, no_memory, goes_on);
FAULT(calloc, no_object, ends_process); // the tables of the start-up, and nothing else
FAULT(realloc, no_memory, goes_on);

FAULT(fp_udp_register_acl_handler, not_found, ends_process);
FAULT(fp_udp_cgst_register, not_found, ends_process);

FAULT(libddm_init, not_found, ends_process);
FAULT(libddm_get_phyid_by_ifx, not_found, lasts_for_life); // looked up when the port's record is made, and never again
FAULT(libddm_get_ifx_by_phyid, not_found, goes_on);
FAULT(ssat_lib_init, no_memory, stops_loading);
FAULT(ssat_reg_mod_cmd, no_memory, lasts_for_life);
FAULT(tq_thread_add_timer_timeval_withname, no_memory, lasts_for_life);
FAULT(tq_zlog_init, unavailable, stops_loading);

FAULT(tq_mom_client_connect_sync, unreachable, ends_process);
FAULT(tq_mom_client_connect, unreachable, ends_process);
FAULT(tq_mom_client_set_disconnect_cb, unreachable, ends_process);
FAULT(tq_mom_client_set_reconnect_cb, unreachable, ends_process);
FAULT(tq_mom_set, unreachable, goes_on);
FAULT(tq_mom_del, unreachable, goes_on);
FAULT(tq_mom_get_sync, unreachable, goes_on);
FAULT(tq_mom_scan, unreachable, goes_on);
FAULT(tq_mom_scan_sync, unreachable, ends_process);
FAULT(tq_mom_unsubscribe, unreachable, goes_on);
FAULT(tq_mom_subscribe_field, unreachable, ends_process);
FAULT(tq_mom_clear_expire, unreachable, goes_on);
FAULT(tq_mom_dsbegin_sync, unreachable, goes_on);
FAULT(tq_mom_dsbegin, unreachable, goes_on);
FAULT(tq_mom_dsend, unreachable, goes_on);
FAULT(tq_mom_setow, unreachable, goes_on);
FAULT(tq_mom_del_ow, unreachable, goes_on);
FAULT(tq_mom_dsbegin_ow, unreachable, goes_on);
FAULT(tq_mom_dsend_ow, unreachable, goes_on);

extern "C" {

fp_udp_mgr_t *__wrap_fp_udp_get_mgr(void)
{
    const fp_udp_mgr_t *real = fp_udp_get_mgr();
    if (real == nullptr || fails({"fp_udp_get_mgr", unavailable, Answer::ends_process})) {
        return nullptr;
    }
    wrap_plane(*real->ops);
    return &plane_manager;
}

int __wrap_tq_mom_subscribe(void *ctx, uint32_t db, const ProtobufCMessage *tmpl, uint32_t flags,
                            tq_mom_callback_t callback, void *user)
{
    const Answer answer = db == address_db ? Answer::goes_on : Answer::ends_process;
    return fails({"tq_mom_subscribe", unreachable, answer}) ? unreachable
                                                            : tq_mom_subscribe(ctx, db, tmpl, flags, callback, user);
}

void __wrap_tq_global_finish(void *ctx)
{
    finish_request = true;
    tq_global_finish(ctx);
}

} // extern "C"
