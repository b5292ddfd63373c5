// The C side of the forwarding plane: the functions that applications find by
// name, and the operation table. Both lead to the one manager of the process;
// a call after its end is refused instead of reaching into freed memory, since
// an application may keep the table's address for as long as it lives.
#include "platform/base/log.h"
#include "platform/fp/ace.h"
#include "platform/fp/error.h"
#include "platform/fp/manager.h"

#include <cassert>
#include <memory>
#include <new>
#include <string>

// An apply object is a copy of the record that it was made from.
struct fp_udp_apply {
    vvlan_apply_t record;
};

namespace vvl::fp
{
namespace
{

Manager *the_manager = nullptr; // the process's

// Runs one operation of the manager, where there is one.
template <typename... Parameters, typename... Arguments>
int run(int (Manager::*operation)(Parameters...), Arguments... arguments)
{
    return the_manager ? (the_manager->*operation)(arguments...) : error_not_found;
}

int acl_set(void *, const vvlan_acl_desc_t *desc)
{
    return run(&Manager::acl_set, desc);
}

int acl_del(void *, const vvlan_acl_desc_t *desc)
{
    return run(&Manager::acl_del, desc);
}

int ace_set(void *, const vvlan_acl_desc_t *desc, fp_udp_ace_t *ace)
{
    return run(&Manager::ace_set, desc, ace);
}

int ace_del(void *, const vvlan_acl_desc_t *desc, uint64_t ace_id)
{
    return run(&Manager::ace_del, desc, ace_id);
}

fp_udp_ace_t *ace_alloc(uint64_t ace_id, uint32_t)
{
    return make_ace(ace_id);
}

int apply_set(void *, const vvlan_acl_desc_t *desc, uint8_t acl_kind, fp_udp_apply_t *apply)
{
    return run(&Manager::apply_set, desc, acl_kind, apply ? &apply->record : nullptr);
}

int apply_del(void *, const vvlan_acl_desc_t *desc, const vvlan_apply_t *record)
{
    return run(&Manager::apply_del, desc, record);
}

fp_udp_apply_t *apply_alloc(const vvlan_apply_t *record)
{
    return record ? new (std::nothrow) fp_udp_apply{*record} : nullptr;
}

void apply_free(fp_udp_apply_t *apply)
{
    delete apply;
}

template <Kind kind> int expire(void *, const char *app_type)
{
    return run(&Manager::expire, kind, app_type);
}

template <Kind kind> int del_expired(void *, const char *app_type)
{
    return run(&Manager::del_expired, kind, app_type);
}

const fp_udp_mgr_ops_t operation_table = {
    .acl_set = acl_set,
    .acl_del = acl_del,
    .acl_expire = expire<Kind::acl>,
    .acl_del_expired = del_expired<Kind::acl>,
    .slot4 = nullptr,
    .slot5 = nullptr,
    .ace_set = ace_set,
    .ace_del = ace_del,
    .ace_expire = expire<Kind::ace>,
    .ace_del_expired = del_expired<Kind::ace>,
    .ace_alloc = ace_alloc,
    .ace_free = free_ace,
    .slot12 = nullptr,
    .slot13 = nullptr,
    .apply_set = apply_set,
    .apply_del = apply_del,
    .apply_expire = expire<Kind::binding>,
    .apply_del_expired = del_expired<Kind::binding>,
    .apply_alloc = apply_alloc,
    .apply_free = apply_free,
};

} // namespace

// The manager's ends are here so that whoever links the manager links these
// functions too: only a module that is loaded later refers to them.
Manager::Manager(Plane &plane, Loop &loop)
    : plane_(plane), loop_(loop), reports_(loop), reconciling_(plane.installed() != PlaneState{}),
      restarted_(reconciling_)
{
    assert(the_manager == nullptr);
    the_manager = this;
}

Manager::~Manager()
{
    the_manager = nullptr;
    if (turn_) {
        apply();
    }
    loop_.cancel_timer(limit_timer_);
}

} // namespace vvl::fp

int fp_udp_register_acl_handler(void *, uint32_t app, const fp_udp_acl_cb_tbl_t *callbacks)
{
    using vvl::fp::the_manager;
    if (!the_manager || app != FP_UDP_APP_VVLAN || !callbacks) {
        vvl::log_line(vvl::LogLevel::error, "application " + std::to_string(app) + ": ACL callbacks not registered: " +
                                                (the_manager ? "wrong id or no table" : "no forwarding plane"));
        return the_manager ? vvl::fp::error_invalid : vvl::fp::error_not_found;
    }
    the_manager->set_callbacks(callbacks);
    return 0;
}

// Frames leave the planes of this platform without a shared queue that could
// be congested, so there is nothing to tell the application later.
int fp_udp_cgst_register(void *, uint32_t app, const char *name)
{
    if (app != FP_UDP_APP_VVLAN || !name || !*name) {
        vvl::log_line(vvl::LogLevel::error,
                      "application " + std::to_string(app) + ": congestion handling: wrong id or no name");
        return vvl::fp::error_invalid;
    }
    return 0;
}

fp_udp_mgr_t *fp_udp_get_mgr(void)
{
    static fp_udp_mgr_t manager = {&vvl::fp::operation_table};
    return vvl::fp::the_manager ? &manager : nullptr;
}
