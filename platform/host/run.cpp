// The daemon's life: read everything, start everything, wait for a signal, stop
// everything in the opposite order. Where the module cannot continue, it ends the
// process itself, with its own exit code; the service manager starts it again.
#include "platform/host/run.h"

#include "platform/base/exit.h"
#include "platform/host/logging.h"
#include "platform/host/plane_choice.h"
#include "platform/host/uv_loop.h"
#include "platform/mom/local/store_local.h"
#include "platform/mom/redis/store_redis.h"
#include "platform/operator/operator.h"
#include "platform/operator/script.h"

#include <csignal>
#include <cstdio>
#include <exception>

namespace vvl::host
{
namespace
{

constexpr const char *program = "vvland";

bool stop_on_signals(UvLoop &loop, std::string &why)
{
    for (int signal : {SIGTERM, SIGINT}) {
        if (loop.on_signal(signal, [&loop] { loop.stop(); }) != 0) {
            why = "signal " + std::to_string(signal) + ": cannot set a handler";
            return false;
        }
    }
    return true;
}

// Reads the configuration and the start-up file that it names. Null with the
// reason in why where one of them is wrong.
std::unique_ptr<oper::Script> read_input(const std::string &config_file, HostConfig &config, std::string &why)
{
    if (!read_config(config_file, config, why)) {
        return nullptr;
    }
    std::vector<uint32_t> ports;
    for (const SwitchPort &port : config.network.ports) {
        ports.push_back(port.ifx);
    }
    auto startup = std::make_unique<oper::Script>(std::move(ports));
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

// Runs until a signal stops it; false where it cannot start.
bool run_switch(const HostConfig &config, const oper::Script &startup, std::string &why)
{
    UvLoop loop;
    auto store = make_store(config, why);
    if (store == nullptr) {
        return false;
    }
    auto plane = make_plane(config, loop, why);
    if (plane == nullptr) {
        return false;
    }
    SwitchConfig network = config.network;
    network.ports_follow_interfaces = plane_has_interfaces(config);
    Switch target(network, loop, std::move(store), std::move(plane));
    std::unique_ptr<PortLinks> links;
    if (network.ports_follow_interfaces && (links = follow_plane_interfaces(target, why)) == nullptr) {
        return false;
    }
    if (!stop_on_signals(loop, why) || !target.start(why)) {
        return false;
    }
    oper::Operator writer(target.store(), loop); // as long as its writes are under way
    if (!writer.connect(why) || !startup.run(writer, why)) {
        return false;
    }
    log_line(LogLevel::info, "running, " + std::to_string(config.network.ports.size()) + " ports");
    loop.run();
    log_line(LogLevel::info, "stopping");
    target.stop();
    return true;
}

} // namespace

std::unique_ptr<mom::Store> make_store(const HostConfig &config, std::string &why)
{
    return config.store == StoreKind::local ? mom::make_local_store() : mom::make_redis_store(config.redis, why);
}

int run_daemon(const RunOptions &options)
{
    HostConfig config;
    std::string why;
    const auto startup = read_input(options.config_file, config, why);
    if (startup == nullptr || !take_options(options, config, why)) {
        return fail(program, exit_refused, why);
    }
    const auto logging = Logging::open({config.log_level, config.log_file, journal_is_listening()}, why);
    if (logging == nullptr) {
        return fail(program, exit_failed, why);
    }
    try {
        if (!run_switch(config, *startup, why)) {
            log_line(LogLevel::error, why);
            return exit_failed;
        }
    } catch (const std::exception &error) {
        log_line(LogLevel::error, error.what());
        return exit_failed;
    }
    std::fflush(stdout);
    return exit_good;
}

int check_config(const std::string &config_file)
{
    HostConfig config;
    std::string why;
    if (read_input(config_file, config, why) == nullptr) {
        return fail(program, exit_refused, why);
    }
    std::printf("%s: good, %zu ports\n", config_file.c_str(), config.network.ports.size());
    return exit_good;
}

} // namespace vvl::host
