// The forwarding plane's operations stand in a table, so they are wrapped where
// the module asks for it. What was not installed, or not removed, is made good
// by the reconciliation that a restart begins.
#include "tests/fault/calls.h"

#include "tq_global.h"

#include <utility>

namespace vvl::fault
{
namespace
{

Decider decider;
bool finish_request = false;

fp_udp_mgr_ops_t plane_ops;
fp_udp_mgr_t plane_manager = {&plane_ops};
const fp_udp_mgr_ops_t *real_ops;

// One operation in front of the real one of the same place in the table.
template <auto operation> struct Refusing;

template <typename... Parameters, int (*fp_udp_mgr_ops_t::*operation)(Parameters...)> struct Refusing<operation> {
    static inline const char *name = nullptr;

    static int call(Parameters... parameters)
    {
        return fault_fails({name, no_memory, Answer::lasts_in_plane}) ? no_memory
                                                                      : (real_ops->*operation)(parameters...);
    }
};

template <auto operation> void refuse(const char *name)
{
    Refusing<operation>::name = name;
    plane_ops.*operation = Refusing<operation>::call;
}

void wrap_plane(const fp_udp_mgr_ops_t &real)
{
    real_ops = &real;
    plane_ops = real;
    plane_ops.ace_alloc = [](uint64_t ace_id, uint32_t zero) {
        return fault_fails({"ace_alloc", no_object, Answer::goes_on}) ? nullptr : real_ops->ace_alloc(ace_id, zero);
    };
    plane_ops.apply_alloc = [](const vvlan_apply_t *record) {
        return fault_fails({"apply_alloc", no_object, Answer::goes_on}) ? nullptr : real_ops->apply_alloc(record);
    };
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

void set_decider(Decider next)
{
    decider = std::move(next);
}

bool take_finish_request()
{
    return std::exchange(finish_request, false);
}

} // namespace vvl::fault

using namespace vvl::fault;

bool fault_fails(const Call &call)
{
    return decider && decider(call);
}

fp_udp_mgr_t *fault_fp_udp_get_mgr()
{
    const fp_udp_mgr_t *real = fp_udp_get_mgr();
    if (real == nullptr || fault_fails({"fp_udp_get_mgr", unavailable, Answer::ends_process})) {
        return nullptr;
    }
    wrap_plane(*real->ops);
    return &plane_manager;
}

void fault_tq_global_finish(void *ctx)
{
    finish_request = true;
    tq_global_finish(ctx);
}
