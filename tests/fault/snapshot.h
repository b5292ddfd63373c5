// All that the module answers for, as text: its objects in the store, its
// tables as its debug commands list them, and what it has asked of the
// forwarding plane. Two snapshots are compared line by line.
#pragma once

#include "platform/host/switch.h"

#include <map>
#include <string>
#include <vector>

namespace vvl::fault
{

// Subject ("u_bridge.vvlan_join", "dump_all_port", "plane bindings") to its
// lines, sorted: the order of a listing is the order of arrival, and means nothing.
using Snapshot = std::map<std::string, std::vector<std::string>>;

// A switch whose module is not loaded has no tables.
Snapshot take_snapshot(host::Switch &network_switch);

// The subjects that differ, with the lines that only one of the two has,
// marked by "-" (expected) and "+" (found).
std::map<std::string, std::string> differences(const Snapshot &expected, const Snapshot &found);

// The endings, in the order in which they are tried; each comes on top of the
// one before it. What a restart alone repairs is not compared before it.
enum class Ending {
    reinitialisation, // every database was lost and is back
    restart,          // the module was unloaded and loaded again
    next_calls,       // every device was silent for so long that its port left, and has then called again
};

// Takes out of both what the module's contract allows to differ after this ending.
void remove_allowed_differences(Ending ending, Snapshot &expected, Snapshot &found);

} // namespace vvl::fault
