// Negative results of the forwarding plane, with the values that the
// platform's other interfaces use for the same reasons.
#pragma once

namespace vvl::fp
{

constexpr int error_invalid = -4;   // malformed or out of range
constexpr int error_not_found = -7; // no such ACL
constexpr int error_exists = -17;   // its place is taken
constexpr int error_full = -28;     // a table's limit is reached

} // namespace vvl::fp
