// A module to be measured: an OUI table, ports, and the addresses of devices in
// random order, since in a switch the record of an event is seldom in the cache.
#pragma once

#include "bench/module_driver.h"
#include "bench/voice_addresses.h"

#include <algorithm>
#include <random>
#include <vector>

namespace vvl::bench
{

constexpr size_t other_count = 16'000; // addresses of no voice device

// The addresses, evenly over the ports and in random order.
inline std::vector<LearnedMac> spread(const std::vector<MacBytes> &macs, uint32_t port_count, std::mt19937_64 &random)
{
    std::vector<LearnedMac> learned;
    for (size_t i = 0; i < macs.size(); i++) {
        learned.push_back({macs[i], static_cast<uint32_t>(1 + i % port_count)});
    }
    std::shuffle(learned.begin(), learned.end(), random);
    return learned;
}

// A module, not started yet, with what its events need.
struct Bench {
    Bench(OuiTable table, uint32_t ports, uint32_t macs, uint64_t seed)
        : random(seed), addresses(table, seed), port_count(ports),
          known(spread(addresses.make_known(macs), ports, random)),
          other(spread(addresses.make_other(other_count), ports, random)), driver({ports, addresses.ouis(), known})
    {
    }

    void learn_all(const std::vector<LearnedMac> &macs)
    {
        for (const LearnedMac &learned : macs) {
            driver.learn(learned.mac, learned.ifx);
        }
    }
    void forget_all(const std::vector<LearnedMac> &macs)
    {
        for (const LearnedMac &learned : macs) {
            driver.forget(learned.mac, learned.ifx);
        }
    }

    std::mt19937_64 random;
    VoiceAddresses addresses;
    uint32_t port_count;
    std::vector<LearnedMac> known; // what the store holds when it starts
    std::vector<LearnedMac> other;
    ModuleDriver driver;
};

} // namespace vvl::bench
