// module_seeded SEED: takes the steps of the fuzz target module_events in long
// random sequences, one for each configuration to begin with. The same seed
// repeats them. A broken rule ends the process.
#include "tests/fuzz/module_steps.h"

#include <cstdio>
#include <cstdlib>
#include <random>
#include <vector>

int main(int argc, char **argv)
{
    constexpr unsigned configuration_count = 16;
    constexpr size_t sequence_size = 32768; // bytes of decisions, some 30 a step
    const unsigned long seed = argc == 2 ? std::strtoul(argv[1], nullptr, 10) : std::random_device()();
    std::fprintf(stderr, "module_seeded %lu\n", seed);
    if (std::freopen("/dev/null", "w", stdout) == nullptr) { // where the module's dumps go
        return 2;
    }
    std::mt19937 random(static_cast<std::mt19937::result_type>(seed));
    std::vector<uint8_t> decisions(sequence_size);
    for (unsigned configuration = 0; configuration < configuration_count; configuration++) {
        for (uint8_t &decision : decisions) {
            decision = static_cast<uint8_t>(random());
        }
        decisions[0] = static_cast<uint8_t>(configuration);
        vvl::test::run_module("events", decisions);
    }
    return 0;
}
