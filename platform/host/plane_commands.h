// The operator's commands about the forwarding plane in the kernel.
#pragma once

#include <string>

namespace vvl::host
{

// Which plane: that of the configuration file; the pin folder overrides the file.
struct PlaneCommandOptions {
    std::string config_file; // empty: none, and the plane's defaults
    std::string pin_folder;  // empty: the file's
};

// Prints what the plane needs of this machine and whether it is there, then one
// line that sums it up. Returns exit_good where the plane can run, else
// exit_failed; exit_refused for a configuration that is wrong.
int check_plane(const PlaneCommandOptions &options);

// Removes the plane from the interfaces of this network namespace and prints a
// line for each thing that it removed, also before a failure. Exit codes as
// above, with the reason of a failure on standard error.
int detach_plane(const PlaneCommandOptions &options);

// Prints the plane's counters: one line per port, one per ACE that has acted.
// Exit codes as above; exit_failed where there is no plane.
int show_counters(const PlaneCommandOptions &options);

} // namespace vvl::host
