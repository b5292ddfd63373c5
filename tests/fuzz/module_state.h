// The module's state between and after a fuzzer's steps: brought to the same
// beginning for every input, and checked against the rules that hold whenever
// no call of the module is under way.
#pragma once

#include <cstdint>
#include <vector>

namespace vvl::test
{

// Starts the module in its platform, once per process; from then on empties its
// tables and sets every setting to its default.
void reset_module();

// Ends the run with a finding where a rule is broken: the hash tables' counts,
// marks and ways; every learned address in its port's list and in no other;
// the OUIs in their buckets, each with an ACE id of its own.
void check_module();

// The settings, tables and lists as they are, one after the other.
std::vector<uint64_t> module_values();

} // namespace vvl::test
