// The classifier against a plain scan over the rules: the same rule for every
// address, VLAN and form, among them those that rules are about.
#include "platform/fp/classifier.h"
#include "tests/fuzz/plane_rules.h"

#include <bit>

namespace vvl::test
{
namespace
{

bool matches(const fp::Rule &rule, uint64_t mac, uint16_t vid, uint8_t form)
{
    return ((to_u64(rule.mac.data()) ^ mac) & to_u64(rule.mask.data())) == 0 &&
           ((rule.vid ^ vid) & rule.vid_mask) == 0 && ((rule.form ^ form) & rule.form_mask) == 0;
}

const fp::Rule *scan(const std::vector<fp::Rule> &rules, uint64_t mac, uint16_t vid, uint8_t form)
{
    const fp::Rule *best = nullptr;
    int best_bits = -1;
    for (const fp::Rule &rule : rules) { // by ascending id: the first of equals is the lowest
        const int bits = std::popcount(to_u64(rule.mask.data()));
        if (bits > best_bits && matches(rule, mac, vid, form)) {
            best = &rule;
            best_bits = bits;
        }
    }
    return best;
}

void look_up(const fp::Classifier &classifier, const std::vector<fp::Rule> &rules, ByteReader &in)
{
    const uint64_t mac = to_u64(read_address(in).data());
    const auto vid = static_cast<uint16_t>(in.one_of({100, 1, 0, 4095}));
    const uint8_t form = in.u8() % 3;
    const fp::Rule *found = classifier.find(mac, vid, form);
    const fp::Rule *wanted = scan(rules, mac, vid, form);
    require((found != nullptr) == (wanted != nullptr), "a rule is found where one matches");
    require(found == nullptr || *found == *wanted, "the rule that is found is the one that acts");
    bool named = false;
    for (const fp::Rule &rule : rules) {
        const uint64_t mask = to_u64(rule.mask.data());
        named |= mask != 0 && ((to_u64(rule.mac.data()) ^ mac) & mask) == 0;
    }
    require(classifier.names_mac(mac) == named, "an address is named where a rule names it");
}

} // namespace
} // namespace vvl::test

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    using namespace vvl::test;
    ByteReader in({data, size});
    const auto rules = read_rules(in);
    std::string why;
    if (!vvl::fp::check_rules(rules, why)) {
        require(!why.empty(), "a refusal has a reason");
        return 0;
    }
    const vvl::fp::Classifier classifier(rules);
    do {
        look_up(classifier, rules, in);
    } while (!in.at_end());
    return 0;
}
