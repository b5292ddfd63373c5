// Header reading and rewriting on raw bytes. The IPv4 checksum is updated from
// the one word that changes instead of being recomputed, so that a checksum
// that was wrong on arrival leaves wrong: a switch must not repair what the
// receiver is meant to discard.
#include "platform/fp/soft/frame.h"

#include <iterator>

namespace vvl::fp
{
namespace
{

constexpr size_t tag_offset = 2 * mac_size;
constexpr size_t tag_size = 4;
constexpr size_t type_size = 2;
constexpr uint8_t tags_max = 2;

constexpr uint16_t type_ctag = 0x8100;       // IEEE 802.1Q customer tag
constexpr uint16_t type_stag = 0x88a8;       // IEEE 802.1Q service tag
constexpr uint16_t type_stag_older = 0x9100; // in use before the service tag had a number
constexpr uint16_t type_ipv4 = 0x0800;
constexpr uint16_t type_ipv6 = 0x86dd;

constexpr size_t ipv4_header_min = 20;
constexpr size_t ipv6_header = 40;

uint16_t read_u16(const uint8_t *bytes)
{
    return static_cast<uint16_t>(bytes[0] << 8 | bytes[1]);
}

void write_u16(uint8_t *bytes, uint32_t value)
{
    bytes[0] = static_cast<uint8_t>(value >> 8);
    bytes[1] = static_cast<uint8_t>(value);
}

bool is_tag(uint16_t type, bool outer)
{
    return type == type_ctag || type == type_stag || (outer && type == type_stag_older);
}

bool set_ipv4_dscp(std::span<uint8_t> packet, uint8_t dscp)
{
    if (packet.size() < ipv4_header_min || packet[0] >> 4 != 4) {
        return false;
    }
    const size_t header_size = size_t{4} * (packet[0] & 0x0f);
    if (header_size < ipv4_header_min || header_size > packet.size()) {
        return false;
    }
    const uint16_t before = read_u16(packet.data());
    const uint16_t after = static_cast<uint16_t>((before & 0xff03u) | dscp << 2);
    if (after == before) {
        // Equation 3 of RFC 1624 would turn a checksum of 0xffff into 0.
        return true;
    }
    // RFC 1624, equation 3: HC' = ~(~HC + ~m + m'). The older form of RFC 1141
    // is wrong where the sum is zero.
    uint32_t sum = (~read_u16(&packet[10]) & 0xffffu) + (~before & 0xffffu) + after;
    sum = (sum & 0xffff) + (sum >> 16);
    sum = (sum & 0xffff) + (sum >> 16);
    write_u16(&packet[0], after);
    write_u16(&packet[10], ~sum);
    return true;
}

bool set_ipv6_dscp(std::span<uint8_t> packet, uint8_t dscp)
{
    if (packet.size() < ipv6_header || packet[0] >> 4 != 6) {
        return false;
    }
    // Version, traffic class and flow label share a word; the DSCP is bits 11 to 6.
    write_u16(packet.data(), (read_u16(packet.data()) & 0xf03fu) | static_cast<uint32_t>(dscp) << 6);
    return true;
}

} // namespace

VlanForm FrameHeader::form() const
{
    if (!in_tagged_vlan()) {
        return VlanForm::untagged;
    }
    return tag_count == 2 && outer_vid != 0 ? VlanForm::double_tagged : VlanForm::tagged;
}

bool read_header(std::span<const uint8_t> frame, FrameHeader &header)
{
    if (frame.size() < tag_offset + type_size) {
        return false;
    }
    header = {};
    header.destination = to_u64(frame.data());
    header.source = to_u64(frame.data() + mac_size);
    size_t at = tag_offset;
    uint16_t type = read_u16(&frame[at]);
    while (header.tag_count < tags_max && is_tag(type, header.tag_count == 0)) {
        if (frame.size() < at + tag_size + type_size) {
            return false;
        }
        const uint16_t vid = read_u16(&frame[at + 2]) & 0x0fff;
        header.outer_vid = header.tag_count == 0 ? vid : header.outer_vid;
        header.vid = header.vid == 0 ? vid : header.vid;
        header.tag_count++;
        at += tag_size;
        type = read_u16(&frame[at]);
    }
    header.ethertype = type;
    header.payload = at + type_size;
    return true;
}

void add_tag(std::vector<uint8_t> &frame, FrameHeader &header, uint16_t vid)
{
    if (header.tag_count == 0) {
        uint8_t tag[tag_size];
        write_u16(tag, type_ctag);
        write_u16(tag + 2, vid);
        frame.insert(frame.begin() + tag_offset, std::begin(tag), std::end(tag));
        header.tag_count = 1;
        header.payload += tag_size;
    } else {
        write_u16(&frame[tag_offset + 2], (read_u16(&frame[tag_offset + 2]) & 0xf000u) | vid);
    }
    header.vid = header.outer_vid = vid;
}

bool set_cos(std::span<uint8_t> frame, const FrameHeader &header, uint8_t cos)
{
    if (header.tag_count == 0) {
        return false;
    }
    uint8_t &first = frame[tag_offset + 2];
    first = static_cast<uint8_t>((first & 0x1f) | cos << 5);
    return true;
}

bool set_dscp(std::span<uint8_t> frame, const FrameHeader &header, uint8_t dscp)
{
    std::span<uint8_t> packet = frame.subspan(header.payload);
    if (header.ethertype == type_ipv4) {
        return set_ipv4_dscp(packet, dscp);
    }
    return header.ethertype == type_ipv6 && set_ipv6_dscp(packet, dscp);
}

} // namespace vvl::fp
