// Attaches a switch's ports to their network interfaces, which come and go while
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

// Attaches the ports whose interface exists, and follows all interfaces from now
// on. target: with SwitchConfig::ports_follow_interfaces; outlives the result.
// A port that cannot be attached, or that has lost the plane's programs, is logged
// and tried again: at the next change of its link or its filters, and once a
// second. Null with the reason in why where links cannot be followed.
std::unique_ptr<PortLinks> follow_links(Switch &target, std::string &why);

} // namespace vvl::host
