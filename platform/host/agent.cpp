// Loading the module and taking it out again.
//
// The order of unloading matters: first everything that could still call the
// module's code is removed (store deliveries, timers, debug commands, reports of
// the plane), then the code. dlclose does not promise that the code is gone, and
// a module that stays in memory would keep its state through a "restart", so
// this is checked.
#include "platform/host/agent.h"

#include "platform/base/log.h"
#include "platform/host/join_records.h"
#include "platform/host/services.h"

#include <dlfcn.h>
#include <filesystem>

#include <optional>

namespace vvl::host
{
namespace
{

constexpr const char *client_name = "udp_vvlan";

// The module's entry points, in the order in which they are called.
struct EntryPoints {
    int (*global_init)(void *global) = nullptr;
    int (*zlog_init)() = nullptr;
    int (*at_init)(void *a0, void *module, void *a2, void *a3) = nullptr;
    int (*rdnd_aware_callback)(...) = nullptr;
};

std::string dl_reason()
{
    const char *text = dlerror();
    return text != nullptr ? text : "unknown error";
}

// dlopen searches the system's folders for a name without a slash; a module is
// always named by its path.
std::string loader_path(const std::string &module)
{
    return module.find('/') == std::string::npos ? "./" + module : module;
}

template <typename Function> bool find_symbol(void *library, const char *name, Function *&function, std::string &why)
{
    void *symbol = dlsym(library, name);
    if (symbol == nullptr) {
        why = "it has no function " + std::string(name);
        return false;
    }
    function = reinterpret_cast<Function *>(symbol);
    return true;
}

bool find_entry_points(void *library, EntryPoints &entry, std::string &why)
{
    return find_symbol(library, "udp_vvlan_global_init", entry.global_init, why) &&
           find_symbol(library, "udp_vvlan_zlog_init", entry.zlog_init, why) &&
           find_symbol(library, "udp_vvlan_at_init", entry.at_init, why) &&
           find_symbol(library, "udp_vvlan_rdnd_aware_callback", entry.rdnd_aware_callback, why);
}

bool succeeded(const char *step, int result, std::string &why)
{
    if (result != 0) {
        why = std::string(step) + " failed with " + std::to_string(result);
    }
    return result == 0;
}

} // namespace

struct Agent::Impl {
    Impl(Loop &l, mom::Store &s, fp::Manager &m, const std::string &path)
        : loop(l), store(s), manager(m), module(loader_path(path))
    {
    }

    bool open(std::string &why);
    bool call_entry_points(const EntryPoints &entry, std::string &why);
    void close();
    void close_library();

    Loop &loop;
    mom::Store &store;
    fp::Manager &manager;
    std::string module;
    std::optional<HostContext> context; // a fresh one for each load
    void *library = nullptr;
};

bool Agent::Impl::open(std::string &why)
{
    context.emplace(loop);
    if (!succeeded("attaching it to the store",
                   mom::attach(&context->global, store, loop, client_name, report_unreported_joins), why)) {
        return false;
    }
    library = dlopen(module.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (library == nullptr) {
        why = dl_reason();
        return false;
    }
    EntryPoints entry;
    return find_entry_points(library, entry, why) && call_entry_points(entry, why);
}

bool Agent::Impl::call_entry_points(const EntryPoints &entry, std::string &why)
{
    return succeeded("udp_vvlan_global_init", entry.global_init(&context->global), why) &&
           succeeded("udp_vvlan_zlog_init", entry.zlog_init(), why) &&
           succeeded("udp_vvlan_at_init", entry.at_init(&context->global, this, nullptr, nullptr), why) &&
           succeeded("udp_vvlan_rdnd_aware_callback", entry.rdnd_aware_callback(), why);
}

void Agent::Impl::close()
{
    if (context) {
        mom::detach(&context->global);
        context->master.cancel_all();
    }
    host::debug_commands().clear();
    manager.forget_module();
    if (library != nullptr) {
        close_library();
    }
    context.reset();
}

void Agent::Impl::close_library()
{
    if (dlclose(library) != 0) {
        log_line(LogLevel::error, "module '" + module + "': " + dl_reason());
    }
    library = nullptr;
    if (void *still = dlopen(module.c_str(), RTLD_NOW | RTLD_NOLOAD); still != nullptr) {
        dlclose(still);
        log_line(LogLevel::error, "module '" + module + "': still in memory after unloading");
    }
}

std::string default_module_path()
{
    std::error_code error;
    const auto self = std::filesystem::read_symlink("/proc/self/exe", error);
    return (self.parent_path().parent_path() / "lib" / "libudp_vvlan.so").string();
}

bool check_module(const std::string &module, std::string &why)
{
    void *library = dlopen(loader_path(module).c_str(), RTLD_NOW | RTLD_LOCAL);
    EntryPoints entry;
    std::string reason = library == nullptr ? dl_reason() : "";
    const bool good = library != nullptr && find_entry_points(library, entry, reason);
    if (library != nullptr) {
        dlclose(library);
    }
    if (!good) {
        why = "module '" + loader_path(module) + "': " + reason;
    }
    return good;
}

Agent::Agent(Loop &loop, mom::Store &store, fp::Manager &manager, std::span<const PortId> ports,
             const std::string &module)
    : impl_(std::make_unique<Impl>(loop, store, manager, module))
{
    if (!set_port_map(ports)) {
        log_line(LogLevel::error, "port map: an ifx or a phyid occurs twice; the map is not used");
    }
}

Agent::~Agent()
{
    unload();
    set_port_map({});
}

bool Agent::load(std::string &why)
{
    if (loaded()) {
        why = "module '" + impl_->module + "': it is already loaded";
        return false;
    }
    if (!impl_->open(why)) {
        impl_->close();
        why = "module '" + impl_->module + "': " + why;
        return false;
    }
    return true;
}

void Agent::unload()
{
    if (loaded()) {
        impl_->close();
    }
}

bool Agent::loaded() const
{
    return impl_->library != nullptr;
}

namespace
{

bool accepted(uint32_t db, int result, std::string &why)
{
    if (result != 0) {
        why = "database " + std::to_string(db) + ": the store refused with " + std::to_string(result);
    }
    return result == 0;
}

} // namespace

bool Agent::set_store_link(uint32_t db, bool up, std::string &why)
{
    if (!loaded()) {
        why = "database " + std::to_string(db) + ": the module is not loaded";
        return false;
    }
    return accepted(db, mom::set_link(&impl_->context->global, db, up), why);
}

bool Agent::refuse_store_request(uint32_t db, uint32_t number, std::string &why)
{
    if (!loaded()) {
        why = "database " + std::to_string(db) + ": the module is not loaded";
        return false;
    }
    return accepted(db, mom::refuse_request(&impl_->context->global, db, number), why);
}

bool Agent::run_debug_command(const std::string &name, const std::string &argument, std::string &why)
{
    return host::debug_commands().run(name, argument, why);
}

std::vector<std::pair<std::string, std::string>> Agent::debug_commands() const
{
    return host::debug_commands().list();
}

} // namespace vvl::host
