// The daemon's life: read everything, start everything, wait for a signal, stop
// everything in the opposite order. Where the module cannot continue, it ends the
// process itself, with its own exit code; the service manager starts it again.
#include "platform/host/run.h"

#include "platform/base/exit.h"
#include "platform/host/logging.h"
#include "platform/host/plane_choice.h"
#include "platform/host/uv_loop.h"
#include "platform/mom/databases.h"
#include "platform/mom/local/store_local.h"
#include "platform/mom/owned_client.h"
#include "platform/mom/redis/store_redis.h"
#include "platform/operator/operator.h"
#include "platform/operator/script.h"

#include <net/if.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <exception>
#include <filesystem>
#include <functional>
#include <set>
#include <utility>

namespace vvl::host
{
namespace
{

constexpr const char *program = "vvland";

constexpr uint64_t store_first_line_us = 1'000'000; // of waiting
constexpr uint64_t store_line_us = 10'000'000;      // between the lines after that

// A hang-up without a handler would end the process, so the signal waits until
// there is one, and from when it is gone.
void mask_hangup(int how)
{
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGHUP);
    pthread_sigmask(how, &set, nullptr);
}

class Signals
{
  public:
    // loop outlives it. reload: what SIGHUP does.
    Signals(UvLoop &loop, std::function<void()> reload) : loop_(loop), reload_(std::move(reload)) {}
    ~Signals() { mask_hangup(SIG_BLOCK); }
    Signals(const Signals &) = delete;
    Signals &operator=(const Signals &) = delete;

    bool handle(std::string &why)
    {
        auto stop = [this] {
            stopped_ = true;
            loop_.stop();
        };
        const std::pair<int, std::function<void()>> handlers[] = {{SIGTERM, stop}, {SIGINT, stop}, {SIGHUP, reload_}};
        for (const auto &[signal, handler] : handlers) {
            if (loop_.on_signal(signal, handler) != 0) {
                why = "signal " + std::to_string(signal) + ": cannot set a handler";
                return false;
            }
        }
        mask_hangup(SIG_UNBLOCK);
        return true;
    }

    bool stopped() const { return stopped_; }

  private:
    UvLoop &loop_;
    const std::function<void()> reload_;
    bool stopped_ = false;
};

// Waits until every database answers: at boot the server may start after the
// agent, and the module would end the process at once. Ends early at a signal.
bool wait_for_store(mom::Store &store, UvLoop &loop, std::string &why)
{
    std::set<uint32_t> missing = {mom::db_config, mom::db_status, mom::db_address, mom::db_plane};
    mom::OwnedClient client(store, loop, "start");
    for (const uint32_t db : std::set(missing)) {
        auto found = [&, db] {
            missing.erase(db);
            if (missing.empty()) {
                loop.stop();
            }
        };
        if (const int result = client.connect(db, found); result != 0) {
            why = "database " + std::to_string(db) + ": the store refused with " + std::to_string(result);
            return false;
        }
    }
    LoopId timer = 0;
    std::function<void()> tell = [&] {
        log_line(LogLevel::warn, "waiting for the store: " + std::to_string(missing.size()) + " databases are missing");
        timer = loop.add_timer(store_line_us, tell);
    };
    timer = loop.add_timer(store_first_line_us, tell);
    loop.run();
    loop.cancel_timer(timer);
    return true;
}

// Reads the configuration and the start-up file that it names. Null with the
// reason in why where one of them is wrong.
std::unique_ptr<oper::Script> read_input(const std::string &config_file, HostConfig &config, std::string &why)
{
    if (!read_config(config_file, config, why)) {
        return nullptr;
    }
    if (config.network.ports.empty()) {
        why = config_file + ": no section '[port N]', so nothing would be served";
        return nullptr;
    }
    auto startup = std::make_unique<oper::Script>(operator_ports(config.network.ports));
    if (!config.startup.empty() && !startup->read(config.startup, why)) {
        return nullptr;
    }
    return startup;
}

bool take_plane_options(const RunOptions &options, HostConfig &config, std::string &why)
{
    if (!options.fp.empty()) {
        config.plane = options.fp == "ebpf" ? PlaneKind::ebpf : PlaneKind::soft;
    }
    if (!options.pin_folder.empty()) {
        config.ebpf.pin_folder = options.pin_folder;
    }
    const SwitchPort *port = port_without_interface(config);
    if (config.plane == PlaneKind::ebpf && port != nullptr) {
        why = options.config_file + ": section '[port " + std::to_string(port->ifx) +
              "]' lacks 'interface', which --fp ebpf needs";
        return false;
    }
    return true;
}

// The command line overrides the file.
bool take_options(const RunOptions &options, HostConfig &config, std::string &why)
{
    if (!options.store.empty()) {
        config.store = options.store == "local" ? StoreKind::local : StoreKind::redis;
        config.redis.address = options.store;
    }
    if (!options.prefix.empty()) {
        config.redis.prefix = options.prefix;
    }
    if (!options.credentials.empty()) {
        config.redis.credentials = options.credentials;
    }
    config.network.has_agent = options.role != "sides";
    config.network.has_sides = options.role != "agent";
    const bool is_whole = config.network.has_agent && config.network.has_sides;
    if (!is_whole && config.store == StoreKind::local) {
        why = "role " + options.role + ": the local store works in one process only; a separate role needs --store";
        return false;
    }
    return take_plane_options(options, config, why);
}

bool check_log_file(const std::string &file, std::string &why)
{
    const std::filesystem::path path(file);
    if (file.empty() || access(file.c_str(), W_OK) == 0 ||
        (errno == ENOENT && access((path.has_parent_path() ? path.parent_path() : ".").c_str(), W_OK | X_OK) == 0)) {
        return true;
    }
    why = "log file " + file + ": " + std::strerror(errno);
    return false;
}

// What the plane needs of this machine and of this process.
bool check_plane_features(const HostConfig &config, std::string &why)
{
    std::vector<fp::EbpfFeature> features;
    if (!plane_has_interfaces(config)) {
        return true;
    }
    if (!list_ebpf_features(config.ebpf, features, why)) {
        return false;
    }
    for (const fp::EbpfFeature &feature : features) {
        if (!feature.available) {
            why = "ebpf plane: " + feature.name + ": " + feature.detail;
            return false;
        }
    }
    return true;
}

// Everything that a run would fail with, as far as it can be known beforehand. What
// a server has is not known, so its present configuration is not compared.
bool check_run(const HostConfig &config, const oper::Script &startup, std::string &why)
{
    return check_module(config.network.module, why) && make_store(config, why) != nullptr &&
           (config.store != StoreKind::local || startup.check(oper::PresentConfig{}, why)) &&
           check_log_file(config.log_file, why) && check_plane_features(config, why);
}

// Carries the start-up file out and runs until a signal. Returns an exit code,
// with the reason in why where it is not exit_good.
int run_until_stopped(Switch &target, UvLoop &loop, const Signals &signals, const oper::Script &startup,
                      std::string &why)
{
    if (!wait_for_store(target.store(), loop, why)) {
        return exit_failed;
    }
    oper::Operator writer(target.store(), loop); // as long as its writes are under way
    if (!signals.stopped()) {
        if (!writer.connect(why)) {
            return exit_failed;
        }
        if (!startup.check(writer, why)) {
            return exit_refused;
        }
        if (!target.start(why) || !startup.run(writer, why)) {
            return exit_failed;
        }
        log_line(LogLevel::info, "running, " + std::to_string(target.config().ports.size()) + " ports");
        loop.run();
    }
    log_line(LogLevel::info, "stopping");
    target.stop();
    return exit_good;
}

int run_switch(const HostConfig &config, const oper::Script &startup, const std::function<void()> &reload,
               std::string &why)
{
    UvLoop loop;
    auto store = make_store(config, why);
    if (store == nullptr) {
        return exit_failed;
    }
    auto plane = make_plane(config, loop, why);
    if (plane == nullptr) {
        return exit_failed;
    }
    SwitchConfig network = config.network;
    network.ports_follow_interfaces = plane_has_interfaces(config);
    Switch target(network, loop, std::move(store), std::move(plane));
    std::unique_ptr<PortLinks> links;
    if (network.ports_follow_interfaces && (links = follow_plane_interfaces(target, why)) == nullptr) {
        return exit_failed;
    }
    Signals signals(loop, reload);
    return signals.handle(why) ? run_until_stopped(target, loop, signals, startup, why) : exit_failed;
}

// What SIGHUP does: the log is opened again, with the configuration's level.
// Everything else in the file takes a restart.
void reload(const std::string &config_file, LogConfig &log, Logging &logging)
{
    HostConfig config;
    std::string why;
    LogConfig wanted = log;
    if (read_config(config_file, config, why)) {
        wanted.level = config.log_level;
        wanted.file = config.log_file;
    } else {
        log_line(LogLevel::error, why + "; the configuration stays as it is");
    }
    if (!logging.reopen(wanted, why)) {
        log_line(LogLevel::error, why + "; the log stays as it is");
        return;
    }
    log = wanted;
    log_line(LogLevel::info, "log opened again");
}

} // namespace

std::unique_ptr<mom::Store> make_store(const HostConfig &config, std::string &why)
{
    return config.store == StoreKind::local ? mom::make_local_store() : mom::make_redis_store(config.redis, why);
}

int run_daemon(const RunOptions &options)
{
    mask_hangup(SIG_BLOCK);
    std::signal(SIGPIPE, SIG_IGN); // whoever read the log may be gone
    HostConfig config;
    std::string why;
    const auto startup = read_input(options.config_file, config, why);
    if (startup == nullptr || !take_options(options, config, why)) {
        return fail(program, exit_refused, why);
    }
    LogConfig log{config.log_level, config.log_file, journal_is_listening()};
    const auto logging = Logging::open(log, why);
    if (logging == nullptr) {
        return fail(program, exit_failed, why);
    }
    try {
        const int code = run_switch(
            config, *startup, [&] { reload(options.config_file, log, *logging); }, why);
        if (code != exit_good) {
            log_line(LogLevel::error, why);
        }
        return code;
    } catch (const std::exception &error) {
        log_line(LogLevel::error, error.what());
        return exit_failed;
    }
}

int check_config(const std::string &config_file)
{
    HostConfig config;
    std::string why;
    const auto startup = read_input(config_file, config, why);
    if (startup == nullptr) {
        return fail(program, exit_refused, why);
    }
    if (!check_run(config, *startup, why)) {
        return fail(program, exit_refused, config_file + ": " + why);
    }
    for (const SwitchPort &port : config.network.ports) {
        if (plane_has_interfaces(config) && if_nametoindex(port.interface.c_str()) == 0) {
            std::printf("port %u (%s): no such interface yet; the port is served when it appears\n", port.ifx,
                        port.interface.c_str());
        }
    }
    std::printf("%s: good, %zu ports\n", config_file.c_str(), config.network.ports.size());
    return exit_good;
}

} // namespace vvl::host
