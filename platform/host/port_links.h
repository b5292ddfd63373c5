// Keeps a switch's ports with their network interfaces, which come and go while
// the switch runs.
#pragma once

#include "platform/host/switch.h"

#include <memory>
#include <string>

namespace vvl::host
{

// While it lives, the ports of a switch follow their interfaces.
class PortLinks
{
  public:
    virtual ~PortLinks() = default;
};

// Attaches the ports whose interface is there and follows all of them from now
// on. target: with SwitchConfig::ports_follow_interfaces; outlives the result.
// A port that cannot be attached is logged, and tried again with the next
// change of its link. Null with the reason in why where nothing can be followed.
std::unique_ptr<PortLinks> follow_links(Switch &target, std::string &why);

} // namespace vvl::host
