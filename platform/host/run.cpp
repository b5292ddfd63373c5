// The daemon's life: read everything, start everything, wait for a signal, take
// everything down in the opposite order. The module may also end the process
// itself, with its own exit code, where it cannot go on; the service manager
// starts it again.
#include "platform/host/run.h"

#include "platform/host/config.h"
#include "platform/host/logging.h"
#include "platform/host/startup.h"
#include "platform/host/uv_loop.h"

#include <csignal>
#include <cstdio>
#include <exception>

namespace vvl::host
{
namespace
{

int fail(int code, const std::string &why)
{
    std::fprintf(stderr, "vvland: %s\n", why.c_str());
    return code;
}

bool stop_on_signals(UvLoop &loop, std::string &why)
{
    for (int signal : {SIGTERM, SIGINT}) {
        if (loop.on_signal(signal, [&loop] { loop.stop(); }) != 0) {
            why = "signal " + std::to_string(signal) + ": no handler can be set";
            return false;
        }
    }
    return true;
}

// Reads the configuration and the start-up file that it names.
bool read_input(const std::string &config_file, HostConfig &config, Startup &startup, std::string &why)
{
    return read_config(config_file, config, why) &&
           (config.startup.empty() || startup.read(config.startup, config.network.ports, why));
}

// Runs until it is told to stop; false where it could not start.
bool run_switch(const HostConfig &config, const Startup &startup, std::string &why)
{
    UvLoop loop;
    Switch target(config.network, loop);
    if (!stop_on_signals(loop, why) || !target.start(why)) {
        return false;
    }
    const auto client = startup.run(target, why);
    if (client == nullptr) {
        return false;
    }
    log_line(LogLevel::info, "running, " + std::to_string(config.network.ports.size()) + " ports");
    loop.run();
    log_line(LogLevel::info, "stopping");
    target.stop();
    return true;
}

} // namespace

int run_daemon(const std::string &config_file)
{
    HostConfig config;
    Startup startup;
    std::string why;
    if (!read_input(config_file, config, startup, why)) {
        return fail(exit_refused, why);
    }
    const auto logging = Logging::open({config.log_level, config.log_file, journal_is_listening()}, why);
    if (logging == nullptr) {
        return fail(exit_failed, why);
    }
    try {
        if (!run_switch(config, startup, why)) {
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
    Startup startup;
    std::string why;
    if (!read_input(config_file, config, startup, why)) {
        return fail(exit_refused, why);
    }
    std::printf("%s: good, %zu ports\n", config_file.c_str(), config.network.ports.size());
    return exit_good;
}

} // namespace vvl::host
