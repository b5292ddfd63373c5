// A switch in one process: the object store, the forwarding plane with its
// manager, the packet and bridge sides, and the agent that holds the module.
// Where the store is a separate process, agent and sides can be so too.
//
// Only this file puts the parts together, so the daemon on the real clock and
// the simulator on the virtual clock run the same switch.
#pragma once

#include "platform/base/loop.h"
#include "platform/fp/manager.h"
#include "platform/fp/plane.h"
#include "platform/host/agent.h"
#include "platform/operator/command.h"

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
    std::string interface = {}; // network interface, where the plane gets its frames from one; unique
};

struct SwitchConfig {
    std::string module; // path of the module's shared object
    std::vector<SwitchPort> ports;
    bool has_agent = true; // the module and the plane's manager
    bool has_sides = true; // packet and bridge side
    // The plane learns of ports by attach_port(), when their interfaces appear.
    bool ports_follow_interfaces = false;
};

// What an operator may name of these ports.
oper::OperatorPorts operator_ports(const std::vector<SwitchPort> &ports);

class Switch
{
  public:
    // Adds the ports to the plane, unless they follow their interfaces; nothing
    // runs yet. The loop outlives the switch. One at a time in a process.
    // config: ifx and phyid unique. store and plane: those that the process chose.
    Switch(SwitchConfig config, Loop &loop, std::unique_ptr<mom::Store> store, std::unique_ptr<fp::DataPlane> plane);
    ~Switch(); // stops

    Switch(const Switch &) = delete;
    Switch &operator=(const Switch &) = delete;

    // Starts the sides, then loads the module; the loop does the rest of the
    // start-up. On failure why names the step and the reason, and nothing runs.
    bool start(std::string &why);

    // Unloads the module and stops the sides. The store and the plane keep their
    // contents. Must not be called from a callback of the module.
    void stop();

    // Tells the plane that the link of a port went down or came up; with the link
    // the learned addresses of the port go. False where no port has this ifx.
    bool set_port_link(uint32_t ifx, bool up);

    // The interface of a port has appeared: adds the port to the plane. On failure
    // why names the port and the reason.
    bool attach_port(uint32_t ifx, std::string &why);

    // The interface of a port is gone: removes the port from the plane, and its
    // learned addresses. False where no port has this ifx.
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
