// How a scenario is played.
#pragma once

#include "platform/mom/store.h"

#include <functional>
#include <memory>
#include <string>

namespace vvl::sim
{

enum class SimColor { automatic, always, never }; // automatic: where standard output is a terminal

struct SimOptions {
    std::string scenario;    // path of the scenario
    std::string module;      // path of the module's shared object
    std::string capture_out; // path of a capture for the frames that leave; empty: none
    SimColor color = SimColor::automatic;
    // Makes the object store, or returns null with the reason in why. Empty: a store in this process.
    std::function<std::unique_ptr<mom::Store>(std::string &why)> make_store = {};
};

} // namespace vvl::sim
