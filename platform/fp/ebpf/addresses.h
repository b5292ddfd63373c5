// The addresses that the kernel's programs have seen, in their map.
#pragma once

#include "platform/fp/ebpf/layout.h"

#include <cstdint>
#include <functional>
#include <set>

namespace vvl::fp
{

class Addresses
{
  public:
    explicit Addresses(int map) : map_(map) {}

    // Forgets an address of a VLAN, in whatever form its frames came in.
    // pvids: those of all ports, since a frame without a tag is kept by its port's.
    void forget(uint16_t vlan, uint64_t mac, const std::set<uint16_t> &pvids);

    // Forgets each address of which the function says so.
    void forget_if(const std::function<bool(const vv_seen &)> &leaves);

  private:
    int map_; // not owned
};

} // namespace vvl::fp
