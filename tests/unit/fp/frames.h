// Frames for tests, built from their parts, and an IPv4 checksum computed from
// scratch to judge the rewritten one by.
#pragma once

#include "platform/base/mac.h"

#include <algorithm>
#include <cstdint>
#include <initializer_list>
#include <span>
#include <vector>

namespace vvl::fp::test
{

using Bytes = std::vector<uint8_t>;

inline const Mac phone = {0x02, 0x11, 0x22, 0x33, 0x44, 0x55};
inline const Mac stranger = {0x02, 0x11, 0x23, 0x33, 0x44, 0x55}; // one bit off the phone's vendor
inline const Mac server = {0x02, 0xaa, 0xaa, 0, 0, 1};
inline const Mac broadcast = {0xff, 0xff, 0xff, 0xff, 0xff, 0xff};

inline void append(Bytes &bytes, std::initializer_list<unsigned> words)
{
    for (unsigned word : words) {
        bytes.push_back(static_cast<uint8_t>(word >> 8));
        bytes.push_back(static_cast<uint8_t>(word));
    }
}

// tags: type and tag control word, alternating, outer first.
inline Bytes ethernet(const Mac &to, const Mac &from, std::initializer_list<unsigned> tags, unsigned type,
                      const Bytes &payload)
{
    Bytes frame(2 * mac_size);
    std::copy(to.begin(), to.end(), frame.begin());
    std::copy(from.begin(), from.end(), frame.begin() + mac_size);
    append(frame, tags);
    append(frame, {type});
    frame.insert(frame.end(), payload.begin(), payload.end());
    return frame;
}

// One's complement sum of a whole IPv4 header: 0xffff where its checksum is right.
inline uint16_t ipv4_sum(std::span<const uint8_t> packet)
{
    uint32_t sum = 0;
    for (size_t i = 0; i < (packet[0] & 15u) * 4; i += 2) {
        sum += static_cast<uint32_t>(packet[i] << 8 | packet[i + 1]);
    }
    while (sum >> 16) {
        sum = (sum & 0xffff) + (sum >> 16);
    }
    return static_cast<uint16_t>(sum);
}

// An IPv4 packet with a right checksum. options: in four-byte words.
inline Bytes ipv4(unsigned tos, unsigned id = 0x1234, unsigned options = 0)
{
    Bytes packet;
    append(packet, {0x4500 + options * 0x100 + tos, 28 + options * 4, id, 0x4000, 0x4011, 0, 0x0a00, 1, 0x0a00, 2});
    for (unsigned i = 0; i < options; i++) {
        append(packet, {0x0101, 0x0101});
    }
    const unsigned checksum = ~ipv4_sum(packet) & 0xffffu;
    packet[10] = static_cast<uint8_t>(checksum >> 8);
    packet[11] = static_cast<uint8_t>(checksum);
    append(packet, {0x1388, 0x1388, 8, 0});
    return packet;
}

inline Bytes ipv6(unsigned traffic_class)
{
    Bytes packet;
    append(packet, {0x6000 | traffic_class << 4 | 0xa, 0xbcde, 0, 0x3b40});
    packet.resize(40, 0x20);
    return packet;
}

} // namespace vvl::fp::test
