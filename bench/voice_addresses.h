// OUI tables and addresses for benchmarks: tables that are hard in different
// ways, and for each of them addresses of known and of other devices.
//
// No OUI begins with two zero bits, so an address that does is no voice
// device's, whatever the table.
#pragma once

#include "bench/module_driver.h"

#include <random>
#include <vector>

namespace vvl::bench
{

constexpr size_t oui_count_max = 127;

// How the OUIs of a table are made.
enum class OuiTable {
    vendors,    // 24 bits each
    one_bucket, // 24 bits each, all with the same byte sum, as the addresses of make_other
    mixed,      // 1 to 48 bits, two or three of each length
};

class VoiceAddresses
{
  public:
    VoiceAddresses(OuiTable table, uint64_t seed);

    const std::vector<Oui> &ouis() const { return ouis_; } // oui_count_max, distinct; the last has 24 bits

    // So many distinct addresses that the last OUI does not cover: of OUIs of
    // 24 bits; that only the shortest OUIs cover (tables with mixed lengths);
    // of no OUI.
    std::vector<MacBytes> make_known(size_t count);
    std::vector<MacBytes> make_known_late(size_t count);
    std::vector<MacBytes> make_other(size_t count);

  private:
    uint64_t random_address() { return random_() >> 16; }
    uint64_t make_oui(unsigned length);

    OuiTable table_;
    std::mt19937_64 random_;
    struct Prefix {
        uint64_t address;
        unsigned length; // bits
    };
    std::vector<Prefix> prefixes_;
    std::vector<Oui> ouis_;
};

} // namespace vvl::bench
