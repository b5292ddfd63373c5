// The addresses that the kernel's programs have seen, in their map, how many there
// are of each port, and the time that the programs count in. The programs count
// what they add, the agent what it removes; what an agent that was killed did not
// count is counted again.
#pragma once

#include "platform/fp/ebpf/layout.h"
#include "platform/fp/fill.h"

#include <cstdint>
#include <functional>
#include <map>
#include <string>

namespace vvl::fp
{

// Which ports, and whether the whole table, have come near their limits.
class AddressFill
{
  public:
    // Logs what has changed since the last look.
    void look(const vv_shared &shared);

  private:
    struct Marks {
        FillMark others;
        FillMark voice;
    };

    void look(Marks &marks, const std::string &name, const vv_share &others, const vv_share &voice);

    std::map<uint32_t, Marks> ports_; // by index
    Marks all_;
};

// Sets how many addresses a port may have.
void limit_addresses(vv_shared &shared, uint32_t index, bool uplink);

class Addresses
{
  public:
    // map: of struct vv_seen; not owned. shared outlives this.
    Addresses(int map, vv_shared &shared) : map_(map), shared_(shared) {}

    // Forgets an address (as of to_u64) of a VLAN, in whatever form its frames came in.
    void forget(uint16_t vlan, uint64_t mac);

    // Forgets what was seen on a port, given by its index.
    void forget_port(uint32_t port);

    // To be called once a second: addresses are reported again, and now and then
    // the ones that are long silent are forgotten.
    void count_tick();

  private:
    void count_again(); // makes the numbers of addresses those of the map
    void walk(const std::function<void(uint64_t key, const vv_seen &)> &visit) const;
    void remove(uint64_t key, const vv_seen &seen);
    void forget_if(const std::function<bool(const vv_seen &)> &leaves);
    void begin_epoch() { __atomic_add_fetch(&shared_.epoch, 1, __ATOMIC_RELAXED); }

    int map_;
    vv_shared &shared_;
    bool is_counted_ = false; // since this agent's start
    AddressFill fill_;
};

} // namespace vvl::fp
