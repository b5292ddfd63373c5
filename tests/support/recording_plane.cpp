// The recorder's forwarding plane. An ACE's line lists its fields with their
// bytes, "if" for what it matches and "do" for its actions: "ace_set 101 1
// if:vid=6400ffff do:cos=060000000000". A binding's line has the ACL's id and
// the port's physical id. Objects that the plane hands out are counted until
// they are released.
#include "tests/support/recording_platform.h"

#include <cstdio>
#include <cstring>

struct fp_udp_apply {
    vvlan_apply_t record;
};

namespace
{

using namespace vvl::test;

struct Ace : fp_udp_ace_t, fp_udp_fields_t {
    std::string text; // of its fields
};

int note(const char *name, const void *handle, const vvlan_acl_desc_t *desc, const std::string &rest)
{
    static const uint8_t zero[sizeof desc->reserved] = {};
    const bool whole = desc->acl_kind == FP_UDP_ACL_KIND_VVLAN && memcmp(desc->reserved, zero, sizeof zero) == 0;
    return platform().call(std::string(name) + " " + std::to_string(desc->acl_id) + " " + rest +
                           (whole ? "" : " descriptor!") + platform().at(handle));
}

std::string port_text(const vvlan_acl_desc_t *desc, const vvlan_apply_t &record)
{
    const bool whole = memcmp(desc->app_type, record.app_type, sizeof record.app_type) == 0 && record.reserved == 0;
    return std::to_string(record.phyid) + (record.apply_opt != 0 ? " opt" : "") + (whole ? "" : " record!");
}

fp_udp_field_t field_make(const char *name, uint32_t kind, const void *value, uint32_t length)
{
    const char *const kinds[] = {"?", "if", "do"};
    fp_udp_field_t field = {};
    snprintf(reinterpret_cast<char *>(field.opaque), sizeof field.opaque, " %s:%s=%s", kinds[kind % 3], name,
             to_hex(static_cast<const uint8_t *>(value), length).c_str());
    return field;
}

void field_add(fp_udp_fields_t *fields, fp_udp_field_t record)
{
    static_cast<Ace *>(fields)->text += reinterpret_cast<const char *>(record.opaque);
}

constexpr fp_udp_fields_ops_t fields_ops = {field_make, field_add};

fp_udp_ace_t *ace_alloc(uint64_t ace_id, uint32_t)
{
    if (platform().fault_of("ace_alloc " + std::to_string(ace_id)) != 0) {
        return nullptr;
    }
    platform().objects_live++;
    auto *ace = new Ace{{ace_id, nullptr}, {&fields_ops}, {}};
    ace->fields = ace;
    return ace;
}

fp_udp_apply_t *apply_alloc(const vvlan_apply_t *record)
{
    if (platform().fault_of(std::string("apply_alloc ") + record->app_type) != 0) {
        return nullptr;
    }
    platform().objects_live++;
    return new fp_udp_apply{*record};
}

template <typename Whole, typename Object> void release(Object *object)
{
    platform().objects_live--;
    delete static_cast<Whole *>(object);
}

int apply_set(void *handle, const vvlan_acl_desc_t *desc, uint8_t acl_kind, fp_udp_apply_t *apply)
{
    return note("bind", handle, desc, port_text(desc, apply->record) + (acl_kind == desc->acl_kind ? "" : " kind!"));
}

template <const char *name> int by_app_type(void *ctx, const char *app_type)
{
    return platform().call(std::string(name) + " " + app_type + platform().at(ctx));
}

constexpr char acl_mark[] = "acl_expire", acl_sweep[] = "acl_del_expired";
constexpr char ace_mark[] = "ace_expire", ace_sweep[] = "ace_del_expired";
constexpr char apply_mark[] = "apply_expire", apply_sweep[] = "apply_del_expired";

using Handle = void *;
using Desc = const vvlan_acl_desc_t *;
constexpr fp_udp_mgr_ops_t manager_ops = {
    [](Handle handle, Desc desc) { return note("acl_set", handle, desc, desc->app_type); },
    [](Handle handle, Desc desc) { return note("acl_del", handle, desc, desc->app_type); },
    by_app_type<acl_mark>,
    by_app_type<acl_sweep>,
    nullptr,
    nullptr,
    [](Handle handle, Desc desc, fp_udp_ace_t *ace) {
        return note("ace_set", handle, desc, std::to_string(ace->id) + static_cast<Ace *>(ace)->text);
    },
    [](Handle handle, Desc desc, uint64_t id) { return note("ace_del", handle, desc, std::to_string(id)); },
    by_app_type<ace_mark>,
    by_app_type<ace_sweep>,
    ace_alloc,
    release<Ace, fp_udp_ace_t>,
    nullptr,
    nullptr,
    apply_set,
    [](Handle handle, Desc desc, const vvlan_apply_t *record) {
        return note("unbind", handle, desc, port_text(desc, *record));
    },
    by_app_type<apply_mark>,
    by_app_type<apply_sweep>,
    apply_alloc,
    release<fp_udp_apply, fp_udp_apply>};

} // namespace

int fp_udp_register_acl_handler(void *ctx, uint32_t app, const fp_udp_acl_cb_tbl_t *)
{
    return platform().call("fp.register " + std::to_string(app) + platform().at(ctx));
}

int fp_udp_cgst_register(void *ctx, uint32_t app, const char *name)
{
    return platform().call("fp.cgst_register " + std::to_string(app) + " " + name + platform().at(ctx));
}

fp_udp_mgr_t *fp_udp_get_mgr(void)
{
    platform().manager.ops = &manager_ops;
    return platform().call("fp.get_mgr") != 0 ? nullptr : &platform().manager;
}
