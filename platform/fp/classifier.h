// Finds the rule that acts on a frame, in a time that depends neither on the
// number of rules nor on their masks.
//
// Limits: FP_UDP_ACE_COUNT_MAX rules. Built once per change of an ACL and then
// only read; a lookup allocates nothing.
#pragma once

#include "fp_udp.h"
#include "platform/fp/rule.h"

#include <array>
#include <cstdint>
#include <span>
#include <vector>

namespace vvl::fp
{

class Classifier
{
  public:
    // rules: such that check_rules accepts them; copied.
    explicit Classifier(std::span<const Rule> rules = {});

    // The rule that acts on a frame with this source MAC (as of to_u64), VLAN
    // id and VlanForm, or null. Lives as long as the classifier.
    const Rule *find(uint64_t mac, uint16_t vid, uint8_t form) const;

    // Whether a rule names this source MAC, whatever else it asks for. Rules
    // for any source MAC do not count.
    bool names_mac(uint64_t mac) const;

    // The VLAN that the rules are for: the id, 1 to 4094, that the rule with the
    // lowest ACE id of those that ask for a whole one asks for; 0 where none does.
    uint16_t vlan() const { return vlan_; }

    static constexpr size_t digit_count = 2 * mac_size; // hexadecimal digits of an address

    // A set of rules by their ranks, of which the lowest wins: bit n of word 0 is
    // the rule of rank n, bit n of word 1 that of rank 64 + n. An array, so that
    // the compiler joins two sets in one step where the processor can.
    using RuleSet = std::array<uint64_t, 2>;
    static_assert(FP_UDP_ACE_COUNT_MAX <= 128);

    // Per digit of the address and value of that digit: the rules that agree with it.
    using DigitSets = std::array<std::array<RuleSet, 16>, digit_count>;

    // What a lookup works from, for a plane that does it elsewhere.
    const DigitSets &agreeing() const { return agreeing_; }
    const RuleSet &naming() const { return naming_; }       // the rules with a MAC mask
    std::span<const Rule> ranked() const { return rules_; } // by rank

    // VLAN id in the low 16 bits, the form above.
    static uint32_t vlan_word(uint16_t vid, uint8_t form) { return static_cast<uint32_t>(form) << 16 | vid; }

  private:
    // What a rule asks of the VLAN id (low 16 bits) and the form (above), kept
    // apart from the rules so that a lookup touches little memory.
    struct VlanMatch {
        uint32_t value;
        uint32_t mask;
    };

    RuleSet rules_for(uint64_t mac) const;

    DigitSets agreeing_{};
    RuleSet naming_{};
    uint16_t vlan_ = 0;
    std::vector<VlanMatch> vlans_; // by rank
    std::vector<Rule> rules_;      // by rank
};

} // namespace vvl::fp
