// A long run of mixed events on a started module, to see what it does over time.
#pragma once

#include "bench/module_setup.h"

#include <algorithm>
#include <cstdint>
#include <vector>

namespace vvl::bench
{

// Whether a device that has gone comes back, or another one in its place.
enum class Visitors { returning, never_seen };

// A switch in its daily life: devices that are seen again, that move, come and
// go; strangers; voice frames; OUIs that are changed; minutes that pass.
class DailyLife
{
  public:
    DailyLife(Bench &bench, Visitors visitors)
        : bench_(bench), visitors_(visitors), devices_(bench.known), last_oui_(bench.addresses.ouis().back())
    {
        const auto absent = spread(bench.addresses.make_known(devices_.size() / 4), bench.port_count, bench.random);
        devices_.insert(devices_.end(), absent.begin(), absent.end());
    }

    void run(uint32_t event_count)
    {
        for (uint32_t i = 0; i < event_count; i++) {
            const uint64_t number = bench_.random();
            run_event(number % 1000, number >> 10);
        }
    }

    // The devices of the beginning are there, and no others.
    void settle()
    {
        bench_.forget_all(devices_);
        bench_.learn_all(bench_.known);
        std::copy(bench_.known.begin(), bench_.known.end(), devices_.begin());
    }

    uint64_t records() const { return records_; } // that the module had to make

  private:
    // kind: 0 to 999, so the limits are parts of a thousand.
    void run_event(uint64_t kind, uint64_t number)
    {
        LearnedMac &device = devices_[number % devices_.size()];
        const auto ifx = static_cast<uint32_t>(1 + number / devices_.size() % bench_.port_count);
        if (kind < 600) {
            learn(device);
        } else if (kind < 650) {
            device.ifx = ifx; // moved
            learn(device);
        } else if (kind < 800) {
            bench_.driver.forget(device.mac, device.ifx);
            if (visitors_ == Visitors::never_seen) {
                renumber(device);
            }
        } else if (kind < 949) {
            const LearnedMac &other = bench_.other[number % bench_.other.size()];
            learn(other);
        } else if (kind < 998) {
            bench_.driver.report_voice(ifx);
        } else if (kind == 998) {
            bench_.driver.run_aging_timer();
        } else {
            bench_.driver.remove_oui(last_oui_);
            bench_.driver.add_oui(last_oui_);
            records_++;
        }
    }

    void learn(const LearnedMac &device)
    {
        const uint32_t before = bench_.driver.mac_count();
        bench_.driver.learn(device.mac, device.ifx);
        records_ += bench_.driver.mac_count() - before;
    }

    // Another device of the same vendor.
    void renumber(LearnedMac &device)
    {
        const uint32_t number = ++device_number_;
        for (size_t i = 0; i < 3; i++) {
            device.mac[3 + i] = static_cast<uint8_t>(number >> (8 * i));
        }
    }

    Bench &bench_;
    Visitors visitors_;
    std::vector<LearnedMac> devices_; // those that may be there
    Oui last_oui_;
    uint32_t device_number_ = 0;
    uint64_t records_ = 0;
};

} // namespace vvl::bench
