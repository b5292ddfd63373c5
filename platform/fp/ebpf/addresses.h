// The addresses that the kernel's programs have seen, in their map, and the
// time that these programs count in.
#pragma once

#include "platform/fp/ebpf/layout.h"

#include <cstdint>
#include <functional>

namespace vvl::fp
{

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
    void forget_if(const std::function<bool(const vv_seen &)> &leaves);
    void begin_epoch() { __atomic_add_fetch(&shared_.epoch, 1, __ATOMIC_RELAXED); }

    int map_;
    vv_shared &shared_;
};

} // namespace vvl::fp
