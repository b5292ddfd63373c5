// Numbers as operators and configuration files write them.
#pragma once

#include <cstdint>
#include <string_view>

namespace vvl
{

// Reads a decimal number, or a hexadecimal one after 0x, with an optional '-'
// before it. The whole text must be the number, and it must lie from min to
// max. Returns false and leaves value alone otherwise.
bool parse_integer(std::string_view text, int64_t min, int64_t max, int64_t &value);

} // namespace vvl
