// Rules from a stream of decisions, for the fuzz target and the differential test of the planes.
#pragma once

#include "fp_udp.h"
#include "platform/fp/rule.h"
#include "tests/fuzz/byte_reader.h"

#include <bit>
#include <vector>

namespace vvl::test
{

// Addresses that agree in most of their bits, so that rules overlap.
inline Mac read_address(ByteReader &in)
{
    Mac mac = {0, 4, 0x76, 0, 0, 0};
    const uint8_t choice = in.u8();
    mac[choice % mac_size] ^= static_cast<uint8_t>(choice >> 3);
    return mac;
}

inline Mac read_mask(ByteReader &in)
{
    const uint8_t choice = in.u8();
    if (choice < 0xc0) {
        return prefix_mask(choice % 49);
    }
    Mac mask{};
    const auto any = in.bytes(mac_size);
    std::copy(any.begin(), any.end(), mask.begin());
    return mask;
}

inline fp::Rule read_rule(ByteReader &in, uint64_t id)
{
    fp::Rule rule;
    rule.id = id;
    rule.mac = read_address(in);
    rule.mask = read_mask(in);
    rule.vid = static_cast<uint16_t>(in.one_of({100, 100, 1, 0, 4095}));
    rule.vid_mask = static_cast<uint16_t>(in.one_of({0xffff, 0, 0xfff}));
    rule.form = in.u8() % 4;
    rule.form_mask = in.u8() % 4;
    const uint8_t actions = in.u8();
    rule.drop = (actions & 0xe0) == 0xe0;
    rule.set_cos = (actions & 1) != 0;
    rule.set_dscp = (actions & 2) != 0;
    rule.set_prio = (actions & 4) != 0;
    rule.add_tag = (actions & 8) != 0;
    rule.cos = rule.prio = in.u8() % 9;
    rule.dscp = in.u8() % 65;
    rule.tag_vid = static_cast<uint16_t>(in.one_of({100, 100, 1, 4094, 0}));
    return rule;
}

// Which of two matching rules acts, ids apart, as the module finds an OUI: 24
// bits, 48, then the longest prefix. It takes no other masks; those come last.
inline bool precedes(const fp::Rule &rule, const fp::Rule &other)
{
    const auto place = [](const fp::Rule &one) {
        unsigned order = 0;
        for (unsigned length = 49; length > 0; length--, order++) {
            if (one.mask == prefix_mask(length == 49 ? 24 : length)) {
                break;
            }
        }
        return order;
    };
    const auto bits = [](const fp::Rule &one) { return std::popcount(to_u64(one.mask.data())); };
    return place(rule) != place(other) ? place(rule) < place(other) : bits(rule) > bits(other);
}

inline std::vector<fp::Rule> read_rules(ByteReader &in)
{
    std::vector<fp::Rule> rules(in.below(FP_UDP_ACE_COUNT_MAX + 2));
    uint64_t id = 0;
    for (fp::Rule &rule : rules) {
        id += in.at_end() ? 1 : in.below(16) == 0 ? in.below(8) : 1;
        rule = read_rule(in, id);
    }
    return rules;
}

} // namespace vvl::test
