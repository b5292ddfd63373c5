#include "bench/voice_addresses.h"

#include <algorithm>
#include <set>

namespace vvl::bench
{
namespace
{

constexpr unsigned address_bits = 48;
constexpr unsigned vendor_bits = 24;
constexpr uint64_t first_bit = uint64_t{1} << (address_bits - 1);
constexpr uint64_t late_bits = uint64_t{7} << (address_bits - 3); // only OUIs of one or two bits have all of these
constexpr unsigned bucket_count = 16;

uint64_t mask_of(unsigned length)
{
    return ~uint64_t{0} << (address_bits - length) & 0xffffffffffff;
}

MacBytes bytes_of(uint64_t address)
{
    MacBytes mac;
    for (size_t i = 0; i < mac.size(); i++) {
        mac[i] = static_cast<uint8_t>(address >> (address_bits - 8 - 8 * i));
    }
    return mac;
}

// The byte sum that the module's OUI table goes by becomes a multiple of its
// bucket count, by way of the third byte.
uint64_t move_to_bucket_0(uint64_t address)
{
    const MacBytes mac = bytes_of(address);
    const unsigned sum = mac[0] + mac[1] + (mac[2] & ~(bucket_count - 1));
    const uint64_t low = (bucket_count - sum % bucket_count) % bucket_count;
    return (address & ~(uint64_t{bucket_count - 1} << vendor_bits)) | low << vendor_bits;
}

template <typename Make> std::vector<MacBytes> make_distinct(size_t count, Make make)
{
    std::set<uint64_t> taken;
    std::vector<MacBytes> macs;
    while (macs.size() < count) {
        if (const uint64_t address = make(); taken.insert(address).second) {
            macs.push_back(bytes_of(address));
        }
    }
    return macs;
}

} // namespace

VoiceAddresses::VoiceAddresses(OuiTable table, uint64_t seed) : table_(table), random_(seed)
{
    std::set<std::pair<unsigned, uint64_t>> taken;
    while (prefixes_.size() < oui_count_max) {
        const auto index = static_cast<unsigned>(prefixes_.size());
        unsigned length = vendor_bits;
        if (table == OuiTable::mixed && index + 1 < oui_count_max) {
            length = index == 0 ? 1 : 2 + (index - 1) % (address_bits - 1);
        }
        const uint64_t address = make_oui(length);
        if (taken.emplace(length, address).second) {
            prefixes_.push_back({address, length});
            ouis_.push_back({bytes_of(address), bytes_of(mask_of(length))});
        }
    }
}

uint64_t VoiceAddresses::make_oui(unsigned length)
{
    uint64_t address = random_address();
    if ((address & mask_of(2)) == 0 || length == 1) {
        address |= first_bit;
    }
    if (length > 2 && (address & late_bits) == late_bits) {
        address &= ~(first_bit >> 2);
    }
    if (table_ == OuiTable::one_bucket) {
        address = move_to_bucket_0(address);
    }
    return address & mask_of(length);
}

std::vector<MacBytes> VoiceAddresses::make_known(size_t count)
{
    std::vector<uint64_t> vendors;
    for (const Prefix &prefix : prefixes_) {
        if (prefix.length == vendor_bits && prefix.address != prefixes_.back().address) {
            vendors.push_back(prefix.address);
        }
    }
    return make_distinct(
        count, [&] { return vendors[random_() % vendors.size()] | (random_address() & ~mask_of(vendor_bits)); });
}

std::vector<MacBytes> VoiceAddresses::make_known_late(size_t count)
{
    return make_distinct(count, [&] { return random_address() | late_bits; });
}

std::vector<MacBytes> VoiceAddresses::make_other(size_t count)
{
    return make_distinct(count, [&] {
        const uint64_t address = random_address() & ~mask_of(2);
        return table_ == OuiTable::one_bucket ? move_to_bucket_0(address) : address;
    });
}

} // namespace vvl::bench
