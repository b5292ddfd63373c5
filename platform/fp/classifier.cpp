// Classification by sets of rules as bits. Each of the twelve hexadecimal
// digits of an address selects the set of the rules that agree with it; the
// rules that match are in all twelve sets. Bits are in the order of
// precedence, so the first one that is left is the rule, once it agrees with
// the VLAN and the form as well.
//
// A hash table per distinct mask is as fast where the masks are the prefixes of
// few vendors, and slower than a plain scan where eight masks have nothing in
// common. The sets cost the same for any masks, in 3 kB, with hardly a branch.
#include "platform/fp/classifier.h"

#include <algorithm>
#include <bit>
#include <tuple>

namespace vvl::fp
{
namespace
{

constexpr uint16_t vid_bits = 0xfff; // of a tag's control information (IEEE 802.1Q)

// Digit 0 is the first one in text.
unsigned digit_of(uint64_t mac, size_t digit)
{
    return static_cast<unsigned>(mac >> (44 - 4 * digit)) & 15u;
}

// The module takes an OUI of 24 bits for a device before any other, and knows no
// masks but prefixes; the planes must name the same winner. Greater comes first.
int precedence_of(uint64_t mask)
{
    constexpr int assigned = 24; // bits of an OUI that IEEE assigns
    const int length = std::popcount(mask);
    const bool is_prefix = std::countr_zero(mask) + length == 8 * static_cast<int>(mac_size);
    return !is_prefix ? 0 : length == assigned ? 8 * static_cast<int>(mac_size) + 1 : length;
}

// The best rule first.
std::vector<Rule> by_rank(std::span<const Rule> rules)
{
    const auto key_of = [](const Rule &rule) {
        const uint64_t mask = to_u64(rule.mask.data());
        return std::tuple(-precedence_of(mask), -std::popcount(mask), rule.id);
    };
    std::vector<Rule> ranked(rules.begin(), rules.end());
    std::ranges::sort(ranked, {}, key_of);
    return ranked;
}

uint16_t vlan_of(std::span<const Rule> rules)
{
    const Rule *first = nullptr;
    for (const Rule &rule : rules) {
        const bool is_whole = rule.vid != 0 && (rule.vid_mask & vid_bits) == vid_bits;
        first = is_whole && (first == nullptr || rule.id < first->id) ? &rule : first;
    }
    return first != nullptr ? first->vid : 0;
}

} // namespace

Classifier::Classifier(std::span<const Rule> rules) : vlan_(vlan_of(rules)), rules_(by_rank(rules))
{
    for (size_t rank = 0; rank < rules_.size(); rank++) {
        const Rule &rule = rules_[rank];
        vlans_.push_back({vlan_word(rule.vid, rule.form), vlan_word(rule.vid_mask, rule.form_mask)});
        const uint64_t mac = to_u64(rule.mac.data());
        const uint64_t mask = to_u64(rule.mask.data());
        const uint64_t bit = uint64_t{1} << (rank % 64);
        const auto add_if = [&](RuleSet &set, bool member) { set[rank / 64] |= member ? bit : 0; };
        add_if(naming_, mask != 0);
        for (size_t digit = 0; digit < digit_count; digit++) {
            for (unsigned value = 0; value < 16; value++) {
                add_if(agreeing_[digit][value], ((value ^ digit_of(mac, digit)) & digit_of(mask, digit)) == 0);
            }
        }
    }
}

inline Classifier::RuleSet Classifier::rules_for(uint64_t mac) const
{
    RuleSet set = agreeing_[0][digit_of(mac, 0)];
    for (size_t digit = 1; digit < digit_count; digit++) {
        const RuleSet &agreeing = agreeing_[digit][digit_of(mac, digit)];
        for (size_t word = 0; word < set.size(); word++) {
            set[word] &= agreeing[word];
        }
    }
    return set;
}

const Rule *Classifier::find(uint64_t mac, uint16_t vid, uint8_t form) const
{
    const uint32_t vlan = vlan_word(vid, form);
    auto [low, high] = rules_for(mac);
    while ((low | high) != 0) {
        // Arithmetic instead of a branch, which would be guessed wrong half the time.
        const uint64_t use_high = low == 0;
        const uint64_t word = low | (high & -use_high);
        const size_t rank = 64 * use_high + static_cast<size_t>(std::countr_zero(word));
        if (((vlans_[rank].value ^ vlan) & vlans_[rank].mask) == 0) {
            return &rules_[rank];
        }
        // Strikes this rank out, of the word that it is in.
        high &= (high - 1) | (use_high - 1);
        low &= low - 1;
    }
    return nullptr;
}

bool Classifier::names_mac(uint64_t mac) const
{
    const RuleSet set = rules_for(mac);
    return ((set[0] & naming_[0]) | (set[1] & naming_[1])) != 0;
}

} // namespace vvl::fp
