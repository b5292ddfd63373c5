// The operator's commands about the forwarding plane in the kernel.
#pragma once

#include <string>

namespace vvl::host
{

// Whose plane: the configuration file's, with the pin folder over its word.
struct PlaneCommandOptions {
    std::string config_file; // empty: none, and the plane's defaults
    std::string pin_folder;  // empty: the file's
};

// Prints what the plane needs of this machine and whether it is there, then one
// line that sums it up. Returns exit_good where the plane can run, else
// exit_failed; exit_refused for a configuration that is wrong.
int check_plane(const PlaneCommandOptions &options);

// Takes the plane off the interfaces of this network namespace and prints one
// line for each thing removed. Exit codes as above, with the reason of a
// failure on standard error; what was removed before it is printed all the same.
int detach_plane(const PlaneCommandOptions &options);

// Prints the plane's counters: one line per port, one per ACE that has acted.
// Exit codes as above; exit_failed where no plane is there.
int show_counters(const PlaneCommandOptions &options);

} // namespace vvl::host
