// The C library's functions skip leading spaces, ignore what follows the number,
// or saturate. This one refuses all of that.
#include "platform/base/number.h"

#include <charconv>
#include <limits>

namespace vvl
{

bool parse_integer(std::string_view text, int64_t min, int64_t max, int64_t &value)
{
    const bool negative = text.starts_with('-');
    std::string_view digits = text.substr(negative ? 1 : 0);
    const bool hex = digits.starts_with("0x") || digits.starts_with("0X");
    digits.remove_prefix(hex ? 2 : 0);

    // The magnitude of the lowest number does not fit the signed type.
    constexpr auto magnitude_max = static_cast<uint64_t>(std::numeric_limits<int64_t>::max());
    uint64_t magnitude = 0;
    auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), magnitude, hex ? 16 : 10);
    if (error != std::errc{} || end != digits.data() + digits.size() || magnitude > magnitude_max) {
        return false;
    }
    const auto number = negative ? -static_cast<int64_t>(magnitude) : static_cast<int64_t>(magnitude);
    if (number < min || number > max) {
        return false;
    }
    value = number;
    return true;
}

} // namespace vvl
