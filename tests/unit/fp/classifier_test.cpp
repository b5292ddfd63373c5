// The classifier against a naive model: the same rules, tried one by one.
#include "platform/fp/classifier.h"

#include "tests/unit/fp/dice.h"

#include <algorithm>
#include <bit>
#include <gtest/gtest.h>

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

TEST(Classifier, AgreesWithTryingEveryRule)
{
    const uint64_t seed = std::random_device{}();
    SCOPED_TRACE("seed " + std::to_string(seed));
    test::Dice dice(seed);
    for (int round = 0; round < 150; round++) {
        const std::vector<Rule> rules = dice.rules();
        const Classifier classifier(rules);
        for (int i = 0; i < 50; i++) {
            const Mac mac = dice.address();
            const auto vid = dice.one_of<uint16_t>({100, 1, 0, 4095, 7});
            const auto form = static_cast<uint8_t>(dice.below(4));
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
