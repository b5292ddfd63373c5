// The simulator: plays a scenario against a whole switch on the virtual clock.
//
// A scenario is a text file with one command per line: configuration as an
// operator would write it, captures that enter a port, time that passes, and
// expectations. A day takes milliseconds, and the same scenario gives the same
// output byte for byte.
#pragma once

#include "platform/sim/options.h"

namespace vvl::sim
{

// Plays the scenario. The timeline goes to standard output; a failure is one
// line on standard error, "FILE:LINE: reason". Returns exit_refused for a
// scenario that cannot be read, exit_failed where an expectation, a capture or
// the start failed. One at a time in a process, and not beside a Switch.
int run_sim(const SimOptions &options);

// Prints every command with its arguments, from the table that also parses them.
void print_sim_commands();

} // namespace vvl::sim
