// The C side of the forwarding plane: the functions that applications find by
// name, and the operation table. Both lead to the one manager of the process;
// a call after its end is refused instead of reaching into freed memory, since
// an application may keep the table's address for as long as it lives.
#include "platform/base/log.h"
#include "platform/fp/ace.h"
#include "platform/fp/error.h"
#include "platform/fp/manager_impl.h"

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

// Runs one member function of the manager, where there is one. A class only
// so that the manager can make it a friend.
struct Operations {
    using Impl = Manager::Impl;

    template <typename... Parameters, typename... Arguments>
    static int run(int (Impl::*operation)(Parameters...), Arguments... arguments)
    {
        return Impl::current ? (Impl::current->*operation)(arguments...) : error_not_found;
    }

    static int acl_set(void *, const vvlan_acl_desc_t *desc) { return run(&Impl::acl_set, desc); }
    static int acl_del(void *, const vvlan_acl_desc_t *desc) { return run(&Impl::acl_del, desc); }
    static int ace_set(void *, const vvlan_acl_desc_t *desc, fp_udp_ace_t *ace)
    {
        return run(&Impl::ace_set, desc, ace);
    }
    static int ace_del(void *, const vvlan_acl_desc_t *desc, uint64_t ace_id)
    {
        return run(&Impl::ace_del, desc, ace_id);
    }
    static fp_udp_ace_t *ace_alloc(uint64_t ace_id, uint32_t) { return make_ace(ace_id); }
    static int apply_set(void *, const vvlan_acl_desc_t *desc, uint8_t acl_kind, fp_udp_apply_t *apply)
    {
        return run(&Impl::apply_set, desc, acl_kind, apply ? &apply->record : nullptr);
    }
    static int apply_del(void *, const vvlan_acl_desc_t *desc, const vvlan_apply_t *record)
    {
        return run(&Impl::apply_del, desc, record);
    }
    static fp_udp_apply_t *apply_alloc(const vvlan_apply_t *record)
    {
        return record ? new (std::nothrow) fp_udp_apply{*record} : nullptr;
    }
    static void apply_free(fp_udp_apply_t *apply) { delete apply; }

    template <Kind kind> static int expire(void *, const char *app_type) { return run(&Impl::expire, kind, app_type); }
    template <Kind kind> static int del_expired(void *, const char *app_type)
    {
        return run(&Impl::del_expired, kind, app_type);
    }

    static const fp_udp_mgr_ops_t table;

    static int set_callbacks(uint32_t app, const fp_udp_acl_cb_tbl_t *callbacks)
    {
        if (!Impl::current || app != FP_UDP_APP_VVLAN || !callbacks) {
            log_line(LogLevel::error, "application " + std::to_string(app) + ": ACL callbacks not registered: " +
                                          (Impl::current ? "wrong id or no table" : "no forwarding plane"));
            return Impl::current ? error_invalid : error_not_found;
        }
        Impl::current->set_callbacks(callbacks);
        return 0;
    }

    static bool up() { return Impl::current != nullptr; }
};

const fp_udp_mgr_ops_t Operations::table = {
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

// Defined here so that whoever links the manager links these functions too:
// nobody but a module loaded later refers to them.
Manager::Manager(Plane &plane, Loop &loop) : impl_(std::make_unique<Impl>(plane, loop))
{
    assert(Impl::current == nullptr);
    Impl::current = impl_.get();
}

Manager::~Manager()
{
    Impl::current = nullptr;
}

} // namespace vvl::fp

using vvl::fp::Operations;

int fp_udp_register_acl_handler(void *, uint32_t app, const fp_udp_acl_cb_tbl_t *callbacks)
{
    return Operations::set_callbacks(app, callbacks);
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
    static fp_udp_mgr_t manager = {&Operations::table};
    return Operations::up() ? &manager : nullptr;
}
