// The forwarding states in the shared map: what the kernel's programs work from.
//
// A change fills a state that is not in force and puts it into force with one
// store; a change of one port alone is one store into the state in force. A
// state is filled again only when no program can still be reading it: each
// program runs in an RCU read section, and membarrier() waits for those that
// have begun.
#pragma once

#include "platform/fp/ebpf/layout.h"
#include "platform/fp/plane.h"
#include "platform/fp/rule.h"

#include <cstdint>
#include <functional>
#include <map>
#include <span>
#include <string>
#include <vector>

namespace vvl::fp
{

// Records how the operator knows the port; every command that reads the pins names it so.
void name_port(vv_port &entry, const PlanePort &port);
std::string name_of(const vv_port &entry);
inline bool is_configured(const vv_port &entry)
{
    return (entry.flags & VV_PORT_USED) != 0 && entry.interface[0] != '\0';
}

class States
{
  public:
    // shared and rules (VV_RULES_MAX) outlive this.
    States(vv_shared *shared, vv_rule *rules);

    // The index of a physical port; VV_PORTS_MAX where there is none.
    uint32_t find_port(uint32_t phyid);
    // The same; makes a port that is new. VV_PORTS_MAX where all are in use. One
    // process at a time makes ports; see take_turn. Where there is no room, takes
    // the place of a port without an interface, bindings and trap, unless
    // is_needed names it.
    using IsNeeded = std::function<bool(uint32_t phyid)>;
    uint32_t port_for(uint32_t phyid, const IsNeeded &is_needed);

    // Puts a state into force in one step; writes only what differs from the
    // one that is. check_state() accepts it, and all its ports were made before.
    // Returns 0, or a negative system error with nothing changed.
    int install(const PlaneState &state);
    void set_pvid(uint32_t port, uint16_t pvid, bool uplink);
    PlaneState installed() const; // read from the map

    // Makes this interface the port's only one. Returns false where other
    // interfaces have all places that it may stand in.
    bool place_interface(uint32_t port, uint32_t ifindex);
    void remove_interface(uint32_t port);

  private:
    uint32_t find_place(const IsNeeded &is_needed) const;
    // How each port is bound (VV_PORTS_MAX acl_bit() sets, by index).
    using Bound = std::vector<uint8_t>;
    std::vector<Rule> rules_in_force(size_t acl) const;
    int switch_state(const PlaneState &state, const Bound &bound);
    vv_state &active() const { return shared_->states[shared_->active % VV_STATES]; }
    void store_bind(uint32_t port, uint64_t of_port, uint8_t acls);
    uint32_t next_generation();

    vv_shared *shared_;
    vv_rule *rules_; // by VV_RULE_INDEX
    std::map<uint32_t, uint32_t> port_by_phyid_;
    uint32_t free_states_ = 0; // that no program can be reading any more
};

} // namespace vvl::fp
