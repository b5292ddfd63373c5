// Random rules, and decisions about frames for them.
#pragma once

#include "tests/fuzz/plane_rules.h"

#include <random>

namespace vvl::fp::test
{

class Dice
{
  public:
    explicit Dice(uint64_t seed) : random_(seed) {}
    unsigned below(unsigned count) { return static_cast<unsigned>(random_() % count); }
    template <typename T, size_t count> T one_of(const T (&values)[count]) { return values[below(count)]; }
    std::vector<uint8_t> bytes(size_t size)
    {
        std::vector<uint8_t> out(size);
        std::generate(out.begin(), out.end(), [&] { return static_cast<uint8_t>(random_()); });
        return out;
    }

    Mac address()
    {
        const std::vector<uint8_t> input = bytes(8);
        vvl::test::ByteReader reader(input);
        return vvl::test::read_address(reader);
    }

    // As many as an ACL may hold, or fewer.
    std::vector<Rule> rules()
    {
        const std::vector<uint8_t> input = bytes(below(2500));
        vvl::test::ByteReader reader(input);
        std::vector<Rule> rules;
        std::string why;
        for (const Rule &rule : vvl::test::read_rules(reader)) {
            rules.push_back(rule);
            if (!check_rules(rules, why)) {
                rules.pop_back();
            }
        }
        return rules;
    }

  private:
    std::mt19937_64 random_;
};

} // namespace vvl::fp::test
