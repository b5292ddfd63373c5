// What the classifier gains over a plain linear scan, at the full size of an
// ACL: 127 addresses under one mask, and under eight. Hits and misses are
// measured apart, since they end differently on both sides.
//
// All of it runs in one process with interleaved repetitions, so that a change
// of the machine's speed meets both sides; the ratios are of medians. The peer
// compares each (address, mask) pair as two 64-bit words and stops at the first
// match, its entries being in the order of precedence. It does not look at
// VLAN and form, which the classifier does.
#include "bench/times.h"
#include "fp_udp.h"
#include "platform/fp/classifier.h"

#include <algorithm>
#include <benchmark/benchmark.h>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <random>
#include <string>
#include <vector>

namespace
{

using vvl::Mac;
using vvl::bench::Times;
using vvl::fp::Classifier;
using vvl::fp::Rule;

constexpr size_t address_count = 8192; // a power of two: more than a branch predictor remembers

struct Pair {
    uint64_t mac;
    uint64_t mask;
};

struct Setup {
    Classifier classifier;
    std::vector<Pair> pairs;      // the same rules, best first
    std::vector<uint64_t> hits;   // addresses that a rule names
    std::vector<uint64_t> misses; // addresses that none names
};

// The index of the first pair that matches, or -1.
[[gnu::noinline]] int find_linear(const std::vector<Pair> &pairs, uint64_t mac)
{
    for (size_t i = 0; i < pairs.size(); i++) {
        if (((mac ^ pairs[i].mac) & pairs[i].mask) == 0) {
            return static_cast<int>(i);
        }
    }
    return -1;
}

Mac mac_of(uint64_t value)
{
    Mac mac;
    for (size_t i = 0; i < mac.size(); i++) {
        mac[i] = static_cast<uint8_t>(value >> (40 - 8 * i));
    }
    return mac;
}

// Masks are prefixes of 24 bits, as those of vendors, and longer ones.
Setup make_setup(unsigned mask_count, uint64_t seed)
{
    std::mt19937_64 random(seed);
    const auto address = [&] { return random() & 0xfeffffffffff; };
    Setup setup;
    std::vector<Rule> rules;
    for (unsigned i = 0; i < FP_UDP_ACE_COUNT_MAX; i++) {
        Rule rule;
        rule.id = i + 1;
        rule.mask = vvl::prefix_mask(24 + i % mask_count * 3);
        rule.mac = mac_of(address());
        rule.vid = 100;
        rule.vid_mask = 0xffff;
        rules.push_back(rule);
        const uint64_t mask = vvl::to_u64(rule.mask.data());
        setup.pairs.push_back({vvl::to_u64(rule.mac.data()) & mask, mask});
    }
    std::stable_sort(setup.pairs.begin(), setup.pairs.end(),
                     [](const Pair &a, const Pair &b) { return a.mask > b.mask; });
    setup.classifier = Classifier(rules);
    while (setup.hits.size() < address_count) {
        const Pair &pair = setup.pairs[random() % setup.pairs.size()];
        setup.hits.push_back(pair.mac | (random() & ~pair.mask & 0xffffffffffff));
    }
    while (setup.misses.size() < address_count) {
        if (const uint64_t mac = address(); find_linear(setup.pairs, mac) < 0) {
            setup.misses.push_back(mac);
        }
    }
    return setup;
}

void run_linear(benchmark::State &state, const Setup &setup, const std::vector<uint64_t> &addresses)
{
    size_t next = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(find_linear(setup.pairs, addresses[next++ % address_count]));
    }
}

void run_classifier(benchmark::State &state, const Setup &setup, const std::vector<uint64_t> &addresses)
{
    size_t next = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(setup.classifier.find(addresses[next++ % address_count], 100, 1));
    }
}

void register_pair(const std::string &name, const Setup &setup, const std::vector<uint64_t> &addresses)
{
    benchmark::RegisterBenchmark(("linear/" + name).c_str(), run_linear, std::cref(setup), std::cref(addresses));
    benchmark::RegisterBenchmark(("classifier/" + name).c_str(), run_classifier, std::cref(setup),
                                 std::cref(addresses));
}

double worse_ratio(const Times &times, const std::string &setup)
{
    return std::max(times.ratio("classifier/" + setup + "/hit", "linear/" + setup + "/hit"),
                    times.ratio("classifier/" + setup + "/miss", "linear/" + setup + "/miss"));
}

} // namespace

int main(int argc, char **argv)
{
    const uint64_t seed = std::random_device{}();
    std::printf("seed %llu\n", static_cast<unsigned long long>(seed));
    const Setup one = make_setup(1, seed);
    const Setup eight = make_setup(8, seed + 1);
    register_pair("1 mask/hit", one, one.hits);
    register_pair("1 mask/miss", one, one.misses);
    register_pair("8 masks/hit", eight, eight.hits);
    register_pair("8 masks/miss", eight, eight.misses);
    Times times;
    if (!vvl::bench::run_all(times, argc, argv)) {
        return 2;
    }
    vvl::bench::print_bar("classify.vs_linear_127", worse_ratio(times, "1 mask"));
    vvl::bench::print_bar("classify.vs_linear_127_8masks", worse_ratio(times, "8 masks"));
    return 0;
}
