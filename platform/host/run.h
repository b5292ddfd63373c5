// The daemon: runs the switch that a configuration describes.
#pragma once

#include "platform/host/config.h"

#include <string>

namespace vvl::host
{

// What overrides the configuration file; empty: nothing.
struct RunOptions {
    std::string config_file;
    std::string store; // "local", or an address of RedisOptions
    std::string prefix;
    std::string credentials;
    std::string role; // "all", "agent" or "sides"
    std::string fp;   // "soft" or "ebpf"
    std::string pin_folder;
};

// Runs the switch of a configuration file until SIGTERM or SIGINT. SIGHUP opens
// the log again with the file's log level. SIGPIPE is ignored from then on. Waits
// for a store server that is not up yet. A failure
// before that is one line on standard error. Returns an exit code.
int run_daemon(const RunOptions &options);

// The store of a configuration. Null with the reason in why.
std::unique_ptr<mom::Store> make_store(const HostConfig &config, std::string &why);

// Checks a configuration file, its start-up file and what else run_daemon() would
// fail with: module, store options, log file, and what the plane needs of this
// machine. Nothing is connected, attached or created. Prints to standard output
// that they are good, or to standard error what is wrong. Returns an exit code.
int check_config(const std::string &config_file);

} // namespace vvl::host
