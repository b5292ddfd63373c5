// The C functions of platform/include for the module's fuzz targets.
// at_snprintf is the host's own, since it reads what the module gives it.
#include "tests/fuzz/null_platform.h"

#include "fp_udp.h"
#include "libddm.h"
#include "ssat.h"
#include "tq_mom.h"
#include "tq_thread.h"
#include "tq_zlog.h"

#include <cstdlib>
#include <cstring>
#include <string>

namespace vvl::test
{

NullPlatform &null_platform()
{
    static NullPlatform platform;
    return platform;
}

bool NullPlatform::fails()
{
    calls++;
    if (fail_in == 0) {
        return false;
    }
    if (fail_in > 1) {
        fail_in--;
        return false;
    }
    fail_in = fail_on ? 1 : 0;
    return true;
}

namespace
{

int answer()
{
    return null_platform().fails() ? TQ_MOM_E_UNREACHABLE : TQ_MOM_OK;
}

// Reads every part of the message.
int answer(const ProtobufCMessage *message)
{
    std::string bytes(protobuf_c_message_get_packed_size(message), '\0');
    protobuf_c_message_pack(message, reinterpret_cast<uint8_t *>(bytes.data()));
    return answer();
}

void remember_entry(const ProtobufCMessage *tmpl, void *user)
{
    if (user != nullptr) {
        null_platform().entries.push_back({tmpl->descriptor->name, user});
    }
}

// ---- Forwarding plane ----

struct PlaneObject {
    fp_udp_ace_t ace; // first, so that the ACE is the object
    fp_udp_fields_t fields;
};

fp_udp_field_t make_field(const char *name, uint32_t, const void *value, uint32_t length)
{
    fp_udp_field_t field{};
    const size_t name_size = std::strlen(name) + 1;
    std::memcpy(field.opaque, name, name_size);
    std::memcpy(field.opaque + name_size, value, length);
    return field;
}

void add_field(fp_udp_fields_t *, fp_udp_field_t) {}

const fp_udp_fields_ops_t fields_ops = {make_field, add_field};

fp_udp_ace_t *alloc_ace(uint64_t id, uint32_t)
{
    if (null_platform().fails()) {
        return nullptr;
    }
    auto *object = static_cast<PlaneObject *>(std::calloc(1, sizeof(PlaneObject)));
    object->fields.ops = &fields_ops;
    object->ace = {id, &object->fields};
    return &object->ace;
}

fp_udp_apply_t *alloc_apply(const vvlan_apply_t *record)
{
    if (null_platform().fails()) {
        return nullptr;
    }
    void *copy = std::malloc(sizeof *record);
    std::memcpy(copy, record, sizeof *record);
    return static_cast<fp_udp_apply_t *>(copy);
}

const fp_udp_mgr_ops_t mgr_ops = {
    .acl_set = [](void *, const vvlan_acl_desc_t *) { return answer(); },
    .acl_del = [](void *, const vvlan_acl_desc_t *) { return answer(); },
    .acl_expire = [](void *, const char *) { return answer(); },
    .acl_del_expired = [](void *, const char *) { return answer(); },
    .slot4 = nullptr,
    .slot5 = nullptr,
    .ace_set = [](void *, const vvlan_acl_desc_t *, fp_udp_ace_t *) { return answer(); },
    .ace_del = [](void *, const vvlan_acl_desc_t *, uint64_t) { return answer(); },
    .ace_expire = [](void *, const char *) { return answer(); },
    .ace_del_expired = [](void *, const char *) { return answer(); },
    .ace_alloc = alloc_ace,
    .ace_free = [](fp_udp_ace_t *ace) { std::free(ace); },
    .slot12 = nullptr,
    .slot13 = nullptr,
    .apply_set = [](void *, const vvlan_acl_desc_t *, uint8_t, fp_udp_apply_t *) { return answer(); },
    .apply_del = [](void *, const vvlan_acl_desc_t *, const vvlan_apply_t *) { return answer(); },
    .apply_expire = [](void *, const char *) { return answer(); },
    .apply_del_expired = [](void *, const char *) { return answer(); },
    .apply_alloc = alloc_apply,
    .apply_free = [](fp_udp_apply_t *apply) { std::free(apply); },
};

} // namespace
} // namespace vvl::test

using namespace vvl::test;

extern "C" {

// ---- Host ----

void tq_global_finish(void *) {}

tq_thread_t *tq_thread_add_timer_timeval_withname(struct tq_thread_master *, tq_thread_func_t, void *,
                                                  const struct timeval *, const char *)
{
    static tq_thread_t timer;
    return null_platform().fails() ? nullptr : &timer;
}

void *tq_zlog_init(const char *)
{
    return &null_platform();
}

void tqdf_zlog(void *, const char *, size_t, const char *, size_t, long, int, const char *, ...) {}

int ssat_lib_init(void *, void *, void *, void *)
{
    return answer();
}

int ssat_reg_mod_cmd(void *, const char *, uint32_t, const char *, ssat_handler_t)
{
    return answer();
}

int libddm_init(void *, const char *)
{
    return answer();
}

int libddm_get_phyid_by_ifx(uint32_t ifx, uint32_t *phyid)
{
    if (ifx >= null_port_count) {
        return -7;
    }
    *phyid = ifx + null_phyid_base;
    return 0;
}

int libddm_get_ifx_by_phyid(uint32_t phyid, uint32_t *ifx)
{
    if (phyid - null_phyid_base >= null_port_count) {
        return -7;
    }
    *ifx = phyid - null_phyid_base;
    return 0;
}

int fp_udp_register_acl_handler(void *, uint32_t, const fp_udp_acl_cb_tbl_t *)
{
    return answer();
}

int fp_udp_cgst_register(void *, uint32_t, const char *)
{
    return answer();
}

fp_udp_mgr_t *fp_udp_get_mgr(void)
{
    static fp_udp_mgr_t manager = {&mgr_ops};
    return &manager;
}

// ---- Object store ----

int tq_mom_client_connect_sync(void *, uint32_t)
{
    return 0;
}

int tq_mom_client_connect(void *, uint32_t, tq_mom_connect_cb_t, void *)
{
    return 0;
}

int tq_mom_client_set_disconnect_cb(void *, uint32_t, tq_mom_disconnect_cb_t, void *)
{
    return 0;
}

int tq_mom_client_set_reconnect_cb(void *, uint32_t, tq_mom_reconnect_cb_t, void *)
{
    return 0;
}

int tq_mom_set(void *, uint32_t, const ProtobufCMessage *object, tq_mom_callback_t, void *)
{
    return answer(object);
}

int tq_mom_del(void *, uint32_t, const ProtobufCMessage *object, tq_mom_callback_t, void *)
{
    return answer(object);
}

ProtobufCMessage *tq_mom_get_sync(void *, uint32_t, const ProtobufCMessage *key, uint32_t *)
{
    if (answer(key) != 0 || !null_platform().has_join) {
        return nullptr;
    }
    return protobuf_c_message_unpack(key->descriptor, nullptr, 0, nullptr);
}

void tq_mom_tq_obj_free(ProtobufCMessage *object)
{
    protobuf_c_message_free_unpacked(object, nullptr);
}

int tq_mom_scan(void *, uint32_t, const ProtobufCMessage *tmpl, uint32_t, tq_mom_callback_t, void *)
{
    return answer(tmpl);
}

int tq_mom_scan_sync(void *, uint32_t, const ProtobufCMessage *tmpl, uint32_t, tq_mom_callback_t, void *)
{
    return answer(tmpl);
}

int tq_mom_subscribe(void *, uint32_t, const ProtobufCMessage *tmpl, uint32_t, tq_mom_callback_t, void *user)
{
    remember_entry(tmpl, user);
    return answer(tmpl);
}

int tq_mom_unsubscribe(void *, uint32_t, const ProtobufCMessage *tmpl, uint32_t, tq_mom_callback_t, void *)
{
    return answer(tmpl);
}

int tq_mom_subscribe_field(void *, uint32_t, const ProtobufCMessage *tmpl, uint32_t, const uint32_t *,
                           const tq_mom_callback_t *, void *const *users, uint32_t count)
{
    for (uint32_t i = 0; i < count; i++) {
        remember_entry(tmpl, users[i]);
    }
    return answer(tmpl);
}

int tq_mom_clear_expire(void *, uint32_t, const ProtobufCMessage *key, tq_mom_callback_t, void *)
{
    return answer(key);
}

int tq_mom_dsbegin_sync(void *, uint32_t, const ProtobufCMessage *tmpl, uint32_t, uint64_t)
{
    return answer(tmpl);
}

int tq_mom_dsbegin(void *, uint32_t, const ProtobufCMessage *tmpl, uint32_t, uint64_t, tq_mom_callback_t, void *)
{
    return answer(tmpl);
}

int tq_mom_dsend(void *, uint32_t, const ProtobufCMessage *tmpl, uint32_t, tq_mom_callback_t, void *)
{
    return answer(tmpl);
}

int tq_mom_setow(void *, uint32_t, const ProtobufCMessage *object, tq_mom_callback_t, void *, uint64_t)
{
    return answer(object);
}

int tq_mom_del_ow(void *, uint32_t, const ProtobufCMessage *object, tq_mom_callback_t, void *, uint64_t)
{
    return answer(object);
}

int tq_mom_dsbegin_ow(void *, uint32_t, const ProtobufCMessage *object, uint32_t, uint64_t, tq_mom_callback_t, void *,
                      uint64_t)
{
    return answer(object);
}

int tq_mom_dsend_ow(void *, uint32_t, const ProtobufCMessage *object, uint32_t, tq_mom_callback_t, void *, uint64_t)
{
    return answer(object);
}

} // extern "C"
