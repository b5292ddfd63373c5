// One function per call, in the order of the platform's headers. The codes are
// those that the contract of the call names for a failure from outside.
#include "tests/fault/calls.h"

#include "fp_udp.h"
#include "libddm.h"
#include "ssat.h"
#include "tq_global.h"
#include "tq_mom.h"
#include "tq_thread.h"
#include "tq_zlog.h"

#include <cstdlib>
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

bool fails(const char *name, int code = unreachable, Answer answer = Answer::goes_on)
{
    return fails(Call{name, code, answer});
}

bool fails_for_good(const char *name, int code = unreachable)
{
    return fails(name, code, Answer::ends_process);
}

// ---- The forwarding plane's operations ----
// What was not installed, or not removed, is made good by the reconciliation
// that a restart begins.

fp_udp_mgr_ops_t plane_ops;
fp_udp_mgr_t plane_manager = {&plane_ops};
const fp_udp_mgr_ops_t *real_ops;

// One operation in front of the real one of the same place in the table.
template <auto operation> struct Refusing;

template <typename... Parameters, int (*fp_udp_mgr_ops_t::*operation)(Parameters...)> struct Refusing<operation> {
    static inline const char *name = nullptr;

    static int call(Parameters... parameters)
    {
        return fails(name, no_memory, Answer::lasts_in_plane) ? no_memory : (real_ops->*operation)(parameters...);
    }
};

template <auto operation> void refuse(const char *name)
{
    Refusing<operation>::name = name;
    plane_ops.*operation = Refusing<operation>::call;
}

fp_udp_ace_t *alloc_ace(uint64_t ace_id, uint32_t zero)
{
    return fails("ace_alloc", no_object) ? nullptr : real_ops->ace_alloc(ace_id, zero);
}

fp_udp_apply_t *alloc_apply(const vvlan_apply_t *record)
{
    return fails("apply_alloc", no_object) ? nullptr : real_ops->apply_alloc(record);
}

void wrap_plane(const fp_udp_mgr_ops_t &real)
{
    real_ops = &real;
    plane_ops = real;
    plane_ops.ace_alloc = alloc_ace;
    plane_ops.apply_alloc = alloc_apply;
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

extern "C" {

// ---- Memory ----

void *fault_malloc(size_t size)
{
    return fails("malloc", no_memory) ? nullptr : std::malloc(size);
}

// The tables of the start-up, and nothing else.
void *fault_calloc(size_t count, size_t size)
{
    return fails_for_good("calloc", no_object) ? nullptr : std::calloc(count, size);
}

void *fault_realloc(void *block, size_t size)
{
    return fails("realloc", no_memory) ? nullptr : std::realloc(block, size);
}

// ---- Forwarding plane ----

int fault_fp_udp_register_acl_handler(void *ctx, uint32_t app, const fp_udp_acl_cb_tbl_t *callbacks)
{
    return fails_for_good("fp_udp_register_acl_handler", not_found) ? not_found
                                                                    : fp_udp_register_acl_handler(ctx, app, callbacks);
}

int fault_fp_udp_cgst_register(void *ctx, uint32_t app, const char *name)
{
    return fails_for_good("fp_udp_cgst_register", not_found) ? not_found : fp_udp_cgst_register(ctx, app, name);
}

fp_udp_mgr_t *fault_fp_udp_get_mgr(void)
{
    const fp_udp_mgr_t *real = fp_udp_get_mgr();
    if (real == nullptr || fails_for_good("fp_udp_get_mgr", unavailable)) {
        return nullptr;
    }
    wrap_plane(*real->ops);
    return &plane_manager;
}

// ---- Host services ----

int fault_libddm_init(void *ctx, const char *name)
{
    return fails_for_good("libddm_init", not_found) ? not_found : libddm_init(ctx, name);
}

// A port is looked up when its record is made, and never again.
int fault_libddm_get_phyid_by_ifx(uint32_t ifx, uint32_t *phyid)
{
    return fails("libddm_get_phyid_by_ifx", not_found, Answer::lasts_for_life) ? not_found
                                                                               : libddm_get_phyid_by_ifx(ifx, phyid);
}

int fault_libddm_get_ifx_by_phyid(uint32_t phyid, uint32_t *ifx)
{
    return fails("libddm_get_ifx_by_phyid", not_found) ? not_found : libddm_get_ifx_by_phyid(phyid, ifx);
}

int fault_ssat_lib_init(void *a0, void *module, void *a2, void *a3)
{
    return fails("ssat_lib_init", no_memory, Answer::stops_loading) ? no_memory : ssat_lib_init(a0, module, a2, a3);
}

int fault_ssat_reg_mod_cmd(void *module, const char *name, uint32_t flags, const char *argdesc, ssat_handler_t handler)
{
    return fails("ssat_reg_mod_cmd", no_memory, Answer::lasts_for_life)
               ? no_memory
               : ssat_reg_mod_cmd(module, name, flags, argdesc, handler);
}

void fault_tq_global_finish(void *ctx)
{
    finish_request = true;
    tq_global_finish(ctx);
}

tq_thread_t *fault_tq_thread_add_timer_timeval_withname(struct tq_thread_master *master, tq_thread_func_t func,
                                                        void *arg, const struct timeval *interval, const char *name)
{
    return fails("tq_thread_add_timer_timeval_withname", no_memory, Answer::lasts_for_life)
               ? nullptr
               : tq_thread_add_timer_timeval_withname(master, func, arg, interval, name);
}

void *fault_tq_zlog_init(const char *category)
{
    return fails("tq_zlog_init", unavailable, Answer::stops_loading) ? nullptr : tq_zlog_init(category);
}

// ---- Object store: connections and objects ----

int fault_tq_mom_client_connect_sync(void *ctx, uint32_t db)
{
    return fails_for_good("tq_mom_client_connect_sync") ? unreachable : tq_mom_client_connect_sync(ctx, db);
}

int fault_tq_mom_client_connect(void *ctx, uint32_t db, tq_mom_connect_cb_t callback, void *user)
{
    return fails_for_good("tq_mom_client_connect") ? unreachable : tq_mom_client_connect(ctx, db, callback, user);
}

int fault_tq_mom_client_set_disconnect_cb(void *ctx, uint32_t db, tq_mom_disconnect_cb_t callback, void *user)
{
    return fails_for_good("tq_mom_client_set_disconnect_cb") ? unreachable
                                                             : tq_mom_client_set_disconnect_cb(ctx, db, callback, user);
}

int fault_tq_mom_client_set_reconnect_cb(void *ctx, uint32_t db, tq_mom_reconnect_cb_t callback, void *user)
{
    return fails_for_good("tq_mom_client_set_reconnect_cb") ? unreachable
                                                            : tq_mom_client_set_reconnect_cb(ctx, db, callback, user);
}

int fault_tq_mom_set(void *ctx, uint32_t db, const ProtobufCMessage *object, tq_mom_callback_t callback, void *user)
{
    return fails("tq_mom_set") ? unreachable : tq_mom_set(ctx, db, object, callback, user);
}

int fault_tq_mom_del(void *ctx, uint32_t db, const ProtobufCMessage *object, tq_mom_callback_t callback, void *user)
{
    return fails("tq_mom_del") ? unreachable : tq_mom_del(ctx, db, object, callback, user);
}

ProtobufCMessage *fault_tq_mom_get_sync(void *ctx, uint32_t db, const ProtobufCMessage *key, uint32_t *out)
{
    if (!fails("tq_mom_get_sync")) {
        return tq_mom_get_sync(ctx, db, key, out);
    }
    if (out != nullptr) {
        *out = static_cast<uint32_t>(unreachable);
    }
    return nullptr;
}

// ---- Object store: scans and subscriptions ----

int fault_tq_mom_scan(void *ctx, uint32_t db, const ProtobufCMessage *tmpl, uint32_t flags, tq_mom_callback_t callback,
                      void *user)
{
    return fails("tq_mom_scan") ? unreachable : tq_mom_scan(ctx, db, tmpl, flags, callback, user);
}

int fault_tq_mom_scan_sync(void *ctx, uint32_t db, const ProtobufCMessage *tmpl, uint32_t flags,
                           tq_mom_callback_t callback, void *user)
{
    return fails_for_good("tq_mom_scan_sync") ? unreachable : tq_mom_scan_sync(ctx, db, tmpl, flags, callback, user);
}

int fault_tq_mom_subscribe(void *ctx, uint32_t db, const ProtobufCMessage *tmpl, uint32_t flags,
                           tq_mom_callback_t callback, void *user)
{
    const Answer answer = db == address_db ? Answer::goes_on : Answer::ends_process;
    return fails("tq_mom_subscribe", unreachable, answer) ? unreachable
                                                          : tq_mom_subscribe(ctx, db, tmpl, flags, callback, user);
}

int fault_tq_mom_unsubscribe(void *ctx, uint32_t db, const ProtobufCMessage *tmpl, uint32_t flags,
                             tq_mom_callback_t callback, void *user)
{
    return fails("tq_mom_unsubscribe") ? unreachable : tq_mom_unsubscribe(ctx, db, tmpl, flags, callback, user);
}

int fault_tq_mom_subscribe_field(void *ctx, uint32_t db, const ProtobufCMessage *tmpl, uint32_t flags,
                                 const uint32_t *fields, const tq_mom_callback_t *callbacks, void *const *users,
                                 uint32_t count)
{
    return fails_for_good("tq_mom_subscribe_field")
               ? unreachable
               : tq_mom_subscribe_field(ctx, db, tmpl, flags, fields, callbacks, users, count);
}

// ---- Object store: cycles and owned objects ----

int fault_tq_mom_clear_expire(void *ctx, uint32_t db, const ProtobufCMessage *key, tq_mom_callback_t callback,
                              void *user)
{
    return fails("tq_mom_clear_expire") ? unreachable : tq_mom_clear_expire(ctx, db, key, callback, user);
}

int fault_tq_mom_dsbegin_sync(void *ctx, uint32_t db, const ProtobufCMessage *tmpl, uint32_t flags, uint64_t expiry)
{
    return fails("tq_mom_dsbegin_sync") ? unreachable : tq_mom_dsbegin_sync(ctx, db, tmpl, flags, expiry);
}

int fault_tq_mom_dsbegin(void *ctx, uint32_t db, const ProtobufCMessage *tmpl, uint32_t flags, uint64_t expiry,
                         tq_mom_callback_t callback, void *user)
{
    return fails("tq_mom_dsbegin") ? unreachable : tq_mom_dsbegin(ctx, db, tmpl, flags, expiry, callback, user);
}

int fault_tq_mom_dsend(void *ctx, uint32_t db, const ProtobufCMessage *tmpl, uint32_t flags, tq_mom_callback_t callback,
                       void *user)
{
    return fails("tq_mom_dsend") ? unreachable : tq_mom_dsend(ctx, db, tmpl, flags, callback, user);
}

int fault_tq_mom_setow(void *ctx, uint32_t db, const ProtobufCMessage *object, tq_mom_callback_t callback, void *user,
                       uint64_t ow)
{
    return fails("tq_mom_setow") ? unreachable : tq_mom_setow(ctx, db, object, callback, user, ow);
}

int fault_tq_mom_del_ow(void *ctx, uint32_t db, const ProtobufCMessage *object, tq_mom_callback_t callback, void *user,
                        uint64_t ow)
{
    return fails("tq_mom_del_ow") ? unreachable : tq_mom_del_ow(ctx, db, object, callback, user, ow);
}

int fault_tq_mom_dsbegin_ow(void *ctx, uint32_t db, const ProtobufCMessage *object, uint32_t flags, uint64_t expiry,
                            tq_mom_callback_t callback, void *user, uint64_t ow)
{
    return fails("tq_mom_dsbegin_ow") ? unreachable
                                      : tq_mom_dsbegin_ow(ctx, db, object, flags, expiry, callback, user, ow);
}

int fault_tq_mom_dsend_ow(void *ctx, uint32_t db, const ProtobufCMessage *object, uint32_t flags,
                          tq_mom_callback_t callback, void *user, uint64_t ow)
{
    return fails("tq_mom_dsend_ow") ? unreachable : tq_mom_dsend_ow(ctx, db, object, flags, callback, user, ow);
}

} // extern "C"
