// A switch in one process: the object store, the forwarding plane with its
// manager, the packet and bridge sides, and the agent that holds the module.
// Where the store is a process of its own, agent and sides can be so too.
//
// This is the only place where the parts are put together, so the daemon on
// the real clock and the simulator on the virtual one run the same switch.
#pragma once

#include "platform/base/loop.h"
#include "platform/fp/manager.h"
#include "platform/fp/plane.h"
#include "platform/host/agent.h"

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace vvl::mom
{
class Store;
}

namespace vvl::host
{

struct SwitchPort {
    uint32_t ifx = 0;           // interface index, the key of configuration; 1 to 2^31-1
    uint32_t phyid = 0;         // physical port id, the key of the plane; unique
    uint16_t pvid = 1;          // VLAN of untagged frames, 1 to 4094
    bool uplink = false;        // towards the network rather than a device
    std::string interface = {}; // network interface, for a plane that has its frames from there; unique
};

struct SwitchConfig {
    std::string module; // path of the module's shared object
    std::vector<SwitchPort> ports;
    bool has_agent = true; // the module and the plane's manager
    bool has_sides = true; // packet and bridge side
    // Whether ports become known to the plane with attach_port(), as their interfaces appear.
    bool ports_follow_interfaces = false;
};

class Switch
{
  public:
    // Makes the ports known to the plane, unless they follow their interfaces;
    // nothing runs yet. The loop outlives the switch. One at a time in a process. config: ifx and phyid unique.
    // store and plane: as the process has chosen them.
    Switch(SwitchConfig config, Loop &loop, std::unique_ptr<mom::Store> store, std::unique_ptr<fp::DataPlane> plane);
    ~Switch(); // stops

    Switch(const Switch &) = delete;
    Switch &operator=(const Switch &) = delete;

    // Starts the sides, then loads the module; the rest of the start-up comes
    // from the loop. On failure why names the step and the reason and nothing
    // is running.
    bool start(std::string &why);

    // Unloads the module and stops the sides. The store and the plane keep
    // what they hold. Not to be called from inside a callback of the module.
    void stop();

    // The link of a port goes down or comes back: for the plane and for the
    // addresses learned there. False where no port has this ifx.
    bool set_port_link(uint32_t ifx, bool up);

    // The interface of a port is there, again or for the first time: the plane
    // has the port from now on. On failure why names the port and the reason.
    bool attach_port(uint32_t ifx, std::string &why);

    // The interface of a port is gone, and with it the addresses learned there.
    // False where no port has this ifx.
    bool detach_port(uint32_t ifx);

    const SwitchPort *find_port(uint32_t ifx) const; // null where there is none

    const SwitchConfig &config() const;
    Loop &loop();
    mom::Store &store();
    fp::DataPlane &plane();
    fp::Manager &manager();
    Agent &agent();

  private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

} // namespace vvl::host
