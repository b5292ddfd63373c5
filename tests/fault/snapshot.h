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

} // namespace vvl::fault
