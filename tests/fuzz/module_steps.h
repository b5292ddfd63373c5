// One step of a fuzzed module: a record for one of its entrances, or an event
// of its host.
#pragma once

#include "tests/fuzz/records.h"

#include <string_view>

namespace vvl::test
{

// What an entrance answered.
struct StepResult {
    int rv = 0;
    bool decoded = false; // -4 and -20 mean: refused, nothing changed
};

using Step = StepResult (*)(ByteReader &in, Records &records);

// The step of this name, or null.
Step find_step(std::string_view name);

// Resets the module, gives it a small configuration that the input chooses,
// and takes steps until the input ends, with a check after each.
void run_module(Step step, std::span<const uint8_t> input);

} // namespace vvl::test
