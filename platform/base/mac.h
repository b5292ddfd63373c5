// MAC addresses: one type, its text forms and its packed form.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <string_view>

namespace vvl
{

constexpr size_t mac_size = 6;

using Mac = std::array<uint8_t, mac_size>; // transmission order

// "00:04:76:22:20:17"
std::string to_text(const Mac &mac);

// Reads six two-digit hexadecimal groups separated by ':' or '-', in either
// case. Nothing may follow. Returns false and leaves mac alone otherwise.
bool parse_mac(std::string_view text, Mac &mac);

// The mask of a prefix of 0 to 48 bits.
Mac prefix_mask(unsigned bits);

// The address as an integer, first byte in bits 47 to 40.
constexpr uint64_t to_u64(const uint8_t *mac)
{
    return uint64_t{mac[0]} << 40 | uint64_t{mac[1]} << 32 | uint64_t{mac[2]} << 24 | uint64_t{mac[3]} << 16 |
           uint64_t{mac[4]} << 8 | uint64_t{mac[5]};
}

// The address of such an integer; bits above 47 are ignored.
constexpr Mac mac_of(uint64_t value)
{
    Mac mac{};
    for (size_t i = 0; i < mac_size; i++) {
        mac[i] = static_cast<uint8_t>(value >> (8 * (mac_size - 1 - i)));
    }
    return mac;
}

} // namespace vvl
