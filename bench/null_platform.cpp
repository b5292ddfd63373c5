// The allocator is replaced as a whole: malloc and its relatives count and pass
// on to those of glibc under their other names. The module finds them in the
// executable, like the platform functions.
#include "bench/null_platform.h"

#include "fp_udp.h"
#include "libddm.h"
#include "ssat.h"
#include "tq_zlog.h"

#include <cstdlib>
#include <cstring>
#include <malloc.h>

namespace vvl::bench
{
namespace
{

constinit NullPlatform platform;
constinit HeapState heap; // malloc is called before static initialisation is over

int ask(Request::Kind kind, const ProtobufCMessage *message, tq_mom_callback_t callback, void *user)
{
    if (callback != nullptr) {
        platform.requests.push_back({kind, message->descriptor->name, callback, user});
    }
    return TQ_MOM_OK;
}

int count_write()
{
    platform.writes++;
    return TQ_MOM_OK;
}

void *count_in(void *memory)
{
    if (memory != nullptr) {
        heap.allocations++;
        heap.live_bytes += malloc_usable_size(memory);
    }
    return memory;
}

void count_out(void *memory)
{
    if (memory != nullptr) {
        heap.live_bytes -= malloc_usable_size(memory);
    }
}

} // namespace

NullPlatform &null_platform()
{
    return platform;
}

void reset_null_platform(size_t request_count)
{
    platform = {};
    platform.requests.reserve(request_count);
    platform.global.master = reinterpret_cast<tq_thread_master *>(&platform); // never looked into
}

HeapState heap_state()
{
    return heap;
}

} // namespace vvl::bench

using vvl::bench::ask;
using vvl::bench::count_in;
using vvl::bench::count_out;
using vvl::bench::count_write;
using vvl::bench::platform;
using vvl::bench::Request;

// ---- The heap --------------------------------------------------------------

extern "C" {

void *__libc_malloc(size_t size);
void *__libc_calloc(size_t count, size_t size);
void *__libc_realloc(void *memory, size_t size);
void __libc_free(void *memory);

void *malloc(size_t size)
{
    return count_in(__libc_malloc(size));
}

void *calloc(size_t count, size_t size)
{
    return count_in(__libc_calloc(count, size));
}

void *realloc(void *memory, size_t size)
{
    count_out(memory);
    return count_in(__libc_realloc(memory, size));
}

void free(void *memory)
{
    count_out(memory);
    __libc_free(memory);
}
}

// ---- Object store ----------------------------------------------------------

int tq_mom_client_connect_sync(void *, uint32_t)
{
    return TQ_MOM_OK;
}

int tq_mom_client_connect(void *, uint32_t, tq_mom_connect_cb_t callback, void *user)
{
    platform.connect = callback;
    platform.connect_users.push_back(user);
    return TQ_MOM_OK;
}

int tq_mom_client_set_disconnect_cb(void *, uint32_t, tq_mom_disconnect_cb_t, void *)
{
    return TQ_MOM_OK;
}

int tq_mom_client_set_reconnect_cb(void *, uint32_t, tq_mom_reconnect_cb_t, void *)
{
    return TQ_MOM_OK;
}

int tq_mom_set(void *, uint32_t, const ProtobufCMessage *, tq_mom_callback_t, void *)
{
    return count_write();
}

int tq_mom_del(void *, uint32_t, const ProtobufCMessage *, tq_mom_callback_t, void *)
{
    return count_write();
}

int tq_mom_setow(void *, uint32_t, const ProtobufCMessage *, tq_mom_callback_t, void *, uint64_t)
{
    return count_write();
}

int tq_mom_del_ow(void *, uint32_t, const ProtobufCMessage *, tq_mom_callback_t, void *, uint64_t)
{
    return count_write();
}

int tq_mom_clear_expire(void *, uint32_t, const ProtobufCMessage *, tq_mom_callback_t, void *)
{
    return count_write();
}

ProtobufCMessage *tq_mom_get_sync(void *, uint32_t, const ProtobufCMessage *, uint32_t *out)
{
    if (out != nullptr) {
        *out = 0;
    }
    return nullptr;
}

void tq_mom_tq_obj_free(ProtobufCMessage *) {}

int tq_mom_scan(void *, uint32_t, const ProtobufCMessage *tmpl, uint32_t, tq_mom_callback_t callback, void *user)
{
    return ask(Request::Kind::scan, tmpl, callback, user);
}

int tq_mom_scan_sync(void *, uint32_t, const ProtobufCMessage *, uint32_t, tq_mom_callback_t, void *)
{
    return TQ_MOM_OK;
}

int tq_mom_subscribe(void *, uint32_t, const ProtobufCMessage *tmpl, uint32_t, tq_mom_callback_t callback, void *user)
{
    return ask(Request::Kind::subscription, tmpl, callback, user);
}

int tq_mom_unsubscribe(void *, uint32_t, const ProtobufCMessage *, uint32_t, tq_mom_callback_t, void *)
{
    return TQ_MOM_OK;
}

int tq_mom_subscribe_field(void *, uint32_t, const ProtobufCMessage *tmpl, uint32_t, const uint32_t *,
                           const tq_mom_callback_t *callbacks, void *const *users, uint32_t count)
{
    for (uint32_t i = 0; i < count; i++) {
        ask(Request::Kind::subscription, tmpl, callbacks[i], users[i]);
    }
    return TQ_MOM_OK;
}

int tq_mom_dsbegin_sync(void *, uint32_t, const ProtobufCMessage *, uint32_t, uint64_t)
{
    return TQ_MOM_OK;
}

int tq_mom_dsbegin(void *, uint32_t, const ProtobufCMessage *tmpl, uint32_t, uint64_t, tq_mom_callback_t callback,
                   void *user)
{
    return ask(Request::Kind::cycle, tmpl, callback, user);
}

int tq_mom_dsbegin_ow(void *, uint32_t, const ProtobufCMessage *object, uint32_t, uint64_t, tq_mom_callback_t callback,
                      void *user, uint64_t)
{
    return ask(Request::Kind::cycle, object, callback, user);
}

int tq_mom_dsend(void *, uint32_t, const ProtobufCMessage *tmpl, uint32_t, tq_mom_callback_t callback, void *user)
{
    return ask(Request::Kind::cycle_end, tmpl, callback, user);
}

int tq_mom_dsend_ow(void *, uint32_t, const ProtobufCMessage *object, uint32_t, tq_mom_callback_t callback, void *user,
                    uint64_t)
{
    return ask(Request::Kind::cycle_end, object, callback, user);
}

// ---- Host ------------------------------------------------------------------

void tq_global_finish(void *) {}

tq_thread_t *tq_thread_add_timer_timeval_withname(tq_thread_master *, tq_thread_func_t func, void *, const timeval *,
                                                  const char *)
{
    static tq_thread_t thread = {};
    platform.timer = func;
    return &thread;
}

void *tq_zlog_init(const char *)
{
    return &platform;
}

void tqdf_zlog(void *, const char *, size_t, const char *, size_t, long, int, const char *, ...) {}

int at_snprintf(char *buf, size_t size, const char *, ...)
{
    if (size > 0) {
        buf[0] = '\0';
    }
    return 0;
}

int ssat_lib_init(void *, void *, void *, void *)
{
    return 0;
}

int ssat_reg_mod_cmd(void *, const char *, uint32_t, const char *, ssat_handler_t)
{
    return 0;
}

int libddm_init(void *, const char *)
{
    return 0;
}

int libddm_get_phyid_by_ifx(uint32_t ifx, uint32_t *phyid)
{
    *phyid = ifx;
    return 0;
}

int libddm_get_ifx_by_phyid(uint32_t phyid, uint32_t *ifx)
{
    *ifx = phyid;
    return 0;
}

// ---- Forwarding plane ------------------------------------------------------

struct fp_udp_apply {
    vvlan_apply_t record;
};

namespace
{

const fp_udp_fields_ops_t fields_ops = {
    [](const char *, uint32_t, const void *, uint32_t) { return fp_udp_field_t{}; },
    [](fp_udp_fields_t *, fp_udp_field_t) {},
};
fp_udp_fields_t fields = {&fields_ops};
fp_udp_ace_t ace = {0, &fields};
fp_udp_apply_t apply = {};

int ignore_app_type(void *, const char *)
{
    return 0;
}

// By position, as the header numbers them.
const fp_udp_mgr_ops_t manager_ops = {
    [](void *, const vvlan_acl_desc_t *) { return count_write(); },
    [](void *, const vvlan_acl_desc_t *) { return count_write(); },
    ignore_app_type,
    ignore_app_type,
    nullptr,
    nullptr,
    [](void *, const vvlan_acl_desc_t *, fp_udp_ace_t *) { return count_write(); },
    [](void *, const vvlan_acl_desc_t *, uint64_t) { return count_write(); },
    ignore_app_type,
    ignore_app_type,
    [](uint64_t, uint32_t) { return &ace; },
    [](fp_udp_ace_t *) {},
    nullptr,
    nullptr,
    [](void *, const vvlan_acl_desc_t *, uint8_t, fp_udp_apply_t *) { return count_write(); },
    [](void *, const vvlan_acl_desc_t *, const vvlan_apply_t *) { return count_write(); },
    ignore_app_type,
    ignore_app_type,
    [](const vvlan_apply_t *) { return &apply; },
    [](fp_udp_apply_t *) {},
};
fp_udp_mgr_t manager = {&manager_ops};

} // namespace

int fp_udp_register_acl_handler(void *, uint32_t, const fp_udp_acl_cb_tbl_t *)
{
    return 0;
}

int fp_udp_cgst_register(void *, uint32_t, const char *)
{
    return 0;
}

fp_udp_mgr_t *fp_udp_get_mgr()
{
    return &manager;
}
