// The daemon: a configuration made into a running switch.
#pragma once

#include <string>

namespace vvl::host
{

// Exit codes of the commands.
constexpr int exit_good = 0;
constexpr int exit_failed = 1;  // what was asked for could not be done
constexpr int exit_refused = 2; // the input was wrong, and nothing was done

// Runs the switch of a configuration file until SIGTERM or SIGINT. A failure
// before that is one line on standard error. Returns an exit code.
int run_daemon(const std::string &config_file);

// Checks a configuration file, with its start-up file, and says on standard output that it is good, or
// on standard error what is wrong. Returns an exit code.
int check_config(const std::string &config_file);

} // namespace vvl::host
