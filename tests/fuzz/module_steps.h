// The steps of a fuzzed module: records for its entrances, and events of its
// host.
#pragma once

#include <cstdint>
#include <span>
#include <string_view>

namespace vvl::test
{

// Resets the module, gives it a small configuration that the input chooses, and
// takes the step of this name until the input ends, with a check after each.
// "events" is any step at a time.
void run_module(std::string_view name, std::span<const uint8_t> input);

} // namespace vvl::test
