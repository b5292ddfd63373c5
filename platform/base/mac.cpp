#include "platform/base/mac.h"

#include <charconv>
#include <cstdio>

namespace vvl
{

std::string to_text(const Mac &mac)
{
    char text[3 * mac_size];
    std::snprintf(text, sizeof text, "%02x:%02x:%02x:%02x:%02x:%02x", mac[0], mac[1], mac[2], mac[3], mac[4], mac[5]);
    return text;
}

bool parse_mac(std::string_view text, Mac &mac)
{
    if (text.size() != 3 * mac_size - 1) {
        return false;
    }
    Mac parsed{};
    for (size_t i = 0; i < mac_size; i++) {
        const char *digits = text.data() + 3 * i;
        auto [end, error] = std::from_chars(digits, digits + 2, parsed[i], 16);
        if (error != std::errc{} || end != digits + 2 || (i + 1 < mac_size && digits[2] != ':' && digits[2] != '-')) {
            return false;
        }
    }
    mac = parsed;
    return true;
}

Mac prefix_mask(unsigned bits)
{
    Mac mask{};
    for (unsigned i = 0; i < bits && i < 8 * mac_size; i++) {
        mask[i / 8] |= static_cast<uint8_t>(0x80 >> (i % 8));
    }
    return mask;
}

} // namespace vvl
