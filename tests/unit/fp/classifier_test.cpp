// The classifier against a naive model: the same rules, tried one by one.
#include "platform/fp/classifier.h"

#include "fp_udp.h"
#include "tests/fuzz/plane_rules.h"

#include <algorithm>
#include <bit>
#include <gtest/gtest.h>
#include <random>

namespace vvl::fp
{
namespace
{

bool matches_mac(const Rule &rule, const Mac &mac)
{
    return ((to_u64(mac.data()) ^ to_u64(rule.mac.data())) & to_u64(rule.mask.data())) == 0;
}

int mask_bits(const Rule &rule)
{
    return std::popcount(to_u64(rule.mask.data()));
}

// The id of the rule that acts, or 0.
uint64_t find_naively(const std::vector<Rule> &rules, const Mac &mac, uint16_t vid, uint8_t form)
{
    const Rule *best = nullptr;
    for (const Rule &rule : rules) { // ascending ids, so the first of equal masks stays
        const bool matches = matches_mac(rule, mac) && (vid & rule.vid_mask) == (rule.vid & rule.vid_mask) &&
                             (form & rule.form_mask) == (rule.form & rule.form_mask);
        if (matches && (!best || vvl::test::precedes(rule, *best))) {
            best = &rule;
        }
    }
    return best ? best->id : 0;
}

struct Dice {
    std::mt19937_64 random;
    unsigned below(unsigned limit) { return static_cast<unsigned>(random() % limit); }

    // Few distinct bytes, so that addresses meet under many masks.
    Mac mac()
    {
        Mac mac;
        std::generate(mac.begin(), mac.end(), [&] { return static_cast<uint8_t>(below(3)); });
        return mac;
    }

    std::vector<Rule> rules()
    {
        static const unsigned lengths[] = {0, 24, 28, 36, 48};
        std::vector<Rule> rules(below(FP_UDP_ACE_COUNT_MAX + 1));
        const bool prefixes = below(2) == 0;
        for (Rule &rule : rules) {
            rule.id = (&rule == rules.data() ? 0 : (&rule - 1)->id) + 1 + below(3);
            rule.mac = mac();
            rule.mask = prefix_mask(lengths[below(5)]);
            rule.mask[below(mac_size)] ^= static_cast<uint8_t>(prefixes ? 0 : below(256));
            rule.vid = static_cast<uint16_t>(below(4));
            rule.vid_mask = below(2) ? 0xffff : static_cast<uint16_t>(below(4));
            rule.form = static_cast<uint8_t>(below(3));
            rule.form_mask = below(2) ? 3 : 0;
        }
        return rules;
    }
};

TEST(Classifier, AgreesWithTryingEveryRule)
{
    const uint64_t seed = std::random_device{}();
    SCOPED_TRACE("seed " + std::to_string(seed));
    Dice dice{std::mt19937_64(seed)};
    for (int round = 0; round < 150; round++) {
        const std::vector<Rule> rules = dice.rules();
        const Classifier classifier(rules);
        for (int i = 0; i < 150; i++) {
            const Mac mac = dice.mac();
            const auto vid = static_cast<uint16_t>(dice.below(5));
            const auto form = static_cast<uint8_t>(dice.below(3));
            const Rule *found = classifier.find(to_u64(mac.data()), vid, form);
            ASSERT_EQ(find_naively(rules, mac, vid, form), found ? found->id : 0) << to_text(mac) << " vid " << vid;
            const bool named = std::any_of(rules.begin(), rules.end(), [&](const Rule &rule) {
                return mask_bits(rule) > 0 && matches_mac(rule, mac);
            });
            ASSERT_EQ(named, classifier.names_mac(to_u64(mac.data()))) << to_text(mac);
        }
    }
}

} // namespace
} // namespace vvl::fp
