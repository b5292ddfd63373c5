// The recorder itself, and the platform's store, host and log functions. Those
// of the forwarding plane are in recording_plane.cpp.
#include "tests/support/recording_platform.h"

#include "libddm.h"
#include "tq_zlog.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <regex>

namespace vvl::test
{

static std::unique_ptr<RecordingPlatform> current;

RecordingPlatform &platform()
{
    return *current;
}

void reset_platform()
{
    current = std::make_unique<RecordingPlatform>();
    current->global.master = reinterpret_cast<tq_thread_master *>(current.get());
}

int RecordingPlatform::call(const std::string &line)
{
    lines.push_back(line);
    if (echo) {
        fprintf(stderr, "%s\n", line.c_str());
    }
    const int code = fault_of(line);
    if (code == 0 && on_call) {
        on_call(line);
    }
    return code;
}

int RecordingPlatform::fault_of(const std::string &line)
{
    for (Fault &fault : faults) {
        if (line.rfind(fault.prefix, 0) == 0 && fault.count != 0 && fault.skip-- <= 0) {
            fault.skip = 0;
            fault.count -= fault.count > 0;
            return fault.code;
        }
    }
    return 0;
}

int RecordingPlatform::deliver(const std::string &key, tq_mom_record_t record)
{
    const Subscriber subscriber = subscribers.at(key);
    return subscriber.function(&global, &record, subscriber.user);
}

} // namespace vvl::test

using namespace vvl::test;

namespace
{

std::string with_number(const char *name, uint64_t number)
{
    return number != 0 ? std::string(" ") + name + "=" + std::to_string(number) : "";
}

// A user argument that is a number rather than an address.
std::string user_text(const void *user)
{
    const auto number = reinterpret_cast<uintptr_t>(user);
    return number < 0x10000 ? with_number("user", number) : "";
}

std::string at(uint32_t db)
{
    return " " + std::to_string(db);
}

int note(const char *name, const void *ctx, uint32_t db, const ProtobufCMessage *message, const std::string &rest)
{
    return platform().call(name + at(db) + " " + to_text(message) + rest + platform().at(ctx));
}

// A write, of which the module wants no answer.
int note_write(const char *name, void *ctx, uint32_t db, const ProtobufCMessage *object, tq_mom_callback_t callback,
               void *user, uint64_t ow = 0)
{
    return note(name, ctx, db, object,
                with_number("ow", ow) + (callback != nullptr || user != nullptr ? " answer!" : ""));
}

// A call that is answered later.
int note_request(const char *name, void *ctx, uint32_t db, const ProtobufCMessage *tmpl, uint32_t flags,
                 tq_mom_callback_t callback, void *user)
{
    platform().subscribers[std::string(name) + " " + tmpl->descriptor->name] = {callback, user};
    return note(name, ctx, db, tmpl, with_number("flags", flags) + user_text(user));
}

// The begin of a cycle, whose flags do not matter.
int note_cycle(const char *name, void *ctx, uint32_t db, const ProtobufCMessage *tmpl, uint32_t, uint64_t expiry,
               tq_mom_callback_t callback = nullptr, void *user = nullptr, uint64_t ow = 0)
{
    platform().subscribers[std::string(name) + " " + tmpl->descriptor->name] = {callback, user};
    return note(name, ctx, db, tmpl, with_number("expiry", expiry) + with_number("ow", ow));
}

// A step of a connection. What it leaves in the platform is in the row.
int note_link(const char *name, void *ctx, uint32_t db)
{
    return platform().call(name + at(db) + platform().at(ctx));
}

int note_connect(const char *name, void *ctx, uint32_t db, tq_mom_connect_cb_t callback, void *user)
{
    platform().connect_cb = callback;
    platform().connect_users[db] = user;
    return note_link(name, ctx, db);
}

template <auto callback_member, typename Callback>
int note_callback(const char *name, void *ctx, uint32_t db, Callback callback, void *)
{
    platform().*callback_member = callback;
    return note_link(name, ctx, db);
}

} // namespace

// ---- Object store ----------------------------------------------------------

// Defines a function of the platform: its arguments go to one of the above,
// behind the name that the line begins with. The dynamic linker asks the
// resolver for the function, so that its parameters need not be repeated here.
#define RECORD(function, name, note)                                                                                   \
    extern "C" decltype(&(function)) resolve_##function()                                                              \
    {                                                                                                                  \
        return [](auto... arguments) { return note(name, arguments...); };                                             \
    }                                                                                                                  \
    extern "C" decltype(function) function __attribute__((ifunc("resolve_" #function)))

RECORD(tq_mom_client_connect_sync, "connect_sync", note_link);
RECORD(tq_mom_client_connect, "connect", note_connect);
RECORD(tq_mom_client_set_disconnect_cb, "set_disconnect_cb", note_callback<&RecordingPlatform::disconnect_cb>);
RECORD(tq_mom_client_set_reconnect_cb, "set_reconnect_cb", note_callback<&RecordingPlatform::reconnect_cb>);
RECORD(tq_mom_set, "set", note_write);
RECORD(tq_mom_del, "del", note_write);
RECORD(tq_mom_clear_expire, "clear_expire", note_write);
RECORD(tq_mom_setow, "setow", note_write);
RECORD(tq_mom_del_ow, "del_ow", note_write);
RECORD(tq_mom_scan, "scan", note_request);
RECORD(tq_mom_subscribe, "subscribe", note_request);
RECORD(tq_mom_unsubscribe, "unsubscribe", note_request);
RECORD(tq_mom_dsend, "dsend", note_request);
RECORD(tq_mom_dsbegin_sync, "dsbegin_sync", note_cycle);
RECORD(tq_mom_dsbegin, "dsbegin", note_cycle);
RECORD(tq_mom_dsbegin_ow, "dsbegin_ow", note_cycle);

int tq_mom_dsend_ow(void *ctx, uint32_t db, const ProtobufCMessage *object, uint32_t, tq_mom_callback_t callback,
                    void *user, uint64_t ow)
{
    return note_write("dsend_ow", ctx, db, object, callback, user, ow);
}

ProtobufCMessage *tq_mom_get_sync(void *ctx, uint32_t db, const ProtobufCMessage *key, uint32_t *)
{
    return note("get_sync", ctx, db, key, "") != 0 ? nullptr : platform().stored;
}

void tq_mom_tq_obj_free(ProtobufCMessage *object)
{
    platform().call(object != nullptr ? "free" : "free null");
}

int tq_mom_scan_sync(void *ctx, uint32_t db, const ProtobufCMessage *tmpl, uint32_t flags, tq_mom_callback_t callback,
                     void *user)
{
    const int rv = note("scan_sync", ctx, db, tmpl, with_number("flags", flags));
    for (tq_mom_record_t record : platform().sync_records) {
        callback(ctx, &record, user);
    }
    return rv;
}

int tq_mom_subscribe_field(void *ctx, uint32_t db, const ProtobufCMessage *tmpl, uint32_t flags, const uint32_t *fields,
                           const tq_mom_callback_t *callbacks, void *const *users, uint32_t count)
{
    std::string rest = with_number("flags", flags);
    for (uint32_t i = 0; i < count; i++) {
        rest += at(fields[i]);
        const std::string key = std::string("subscribe ") + tmpl->descriptor->name + "/" + std::to_string(fields[i]);
        platform().subscribers[key] = {callbacks[i], users[i]};
    }
    return note("subscribe_field", ctx, db, tmpl, rest);
}

// ---- Host services ---------------------------------------------------------

void tq_global_finish(void *ctx)
{
    platform().call("global.finish" + platform().at(ctx));
}

tq_thread_t *tq_thread_add_timer_timeval_withname(tq_thread_master *master, tq_thread_func_t func, void *arg,
                                                  const timeval *interval, const char *name)
{
    platform().timer = func;
    platform().call("timer " + std::to_string(interval->tv_sec) + "." + std::to_string(interval->tv_usec) + "s " +
                    name + (master == platform().global.master && arg == nullptr ? "" : " @other"));
    return nullptr;
}

void *tq_zlog_init(const char *category)
{
    return platform().call(std::string("zlog.init ") + category) != 0 ? nullptr : &platform();
}

void tqdf_zlog(void *category, const char *file, size_t filelen, const char *func, size_t funclen, long line, int level,
               const char *format, ...)
{
    va_list args;
    va_start(args, format);
    const std::string text = va_arg(args, const char *);
    va_end(args);
    const char *const names[] = {"debug ", "info ", "notice! ", "warn ", "error "};
    const bool whole = category == &platform() && filelen == strlen(file) && funclen == strlen(func) && line > 0 &&
                       strcmp(format, "%s") == 0;
    platform().logs.push_back((whole ? "" : "malformed! ") + std::string(names[level / 20 - 1]) +
                              std::regex_replace(text, std::regex("\n"), "\\n"));
    if (platform().echo) {
        fprintf(stderr, "%s\n", platform().logs.back().c_str());
    }
}

int ssat_lib_init(void *a0, void *module, void *a2, void *a3)
{
    return platform().call("ssat.init" + user_text(a0) + user_text(module) + user_text(a2) + user_text(a3));
}

int ssat_reg_mod_cmd(void *module, const char *name, uint32_t flags, const char *argdesc, ssat_handler_t handler)
{
    platform().commands[name] = handler;
    return platform().call(std::string(name) + "|" + argdesc + with_number("flags", flags) + user_text(module));
}

// Ports have physical id 0x100 + ifx.
int libddm_init(void *ctx, const char *name)
{
    return platform().call(std::string("ddm.init ") + name + platform().at(ctx));
}

int libddm_get_phyid_by_ifx(uint32_t ifx, uint32_t *phyid)
{
    *phyid = 0x100 + ifx;
    return platform().call("ddm.phyid_of " + std::to_string(ifx));
}

int libddm_get_ifx_by_phyid(uint32_t phyid, uint32_t *ifx)
{
    *ifx = phyid - 0x100;
    return platform().call("ddm.ifx_of " + std::to_string(phyid));
}
