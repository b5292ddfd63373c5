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

// Runs the switch of a configuration file until SIGTERM or SIGINT. A failure
// before that is one line on standard error. Returns an exit code.
int run_daemon(const RunOptions &options);

// The store of a configuration. Null with the reason in why.
std::unique_ptr<mom::Store> make_store(const HostConfig &config, std::string &why);

// Checks a configuration file and its start-up file. Prints to standard output
// that they are good, or to standard error what is wrong. Returns an exit code.
int check_config(const std::string &config_file);

} // namespace vvl::host
