// The databases of a switch's objects, and the fields that clients write by number.
#pragma once

#include "tq_mom.h"

#include <cstdint>

namespace vvl::mom
{

constexpr uint32_t db_status = 0;            // notifications of the packet side, service registration
constexpr uint32_t db_config = 4;            // configuration, and the agent's reports to the control side
constexpr uint32_t db_address = 6;           // the bridge's learned addresses
constexpr uint32_t db_plane = TQ_MOM_UDP_DB; // the agent's own objects, such as traps
constexpr uint32_t databases_in_use[] = {db_status, db_config, db_address, db_plane};

// Field numbers of p_bridge.vvlan_glb_cfg, whose settings are written one by one (set_fields of client.h).
constexpr uint32_t glb_cfg_switch = 5;
constexpr uint32_t glb_cfg_security = 6;
constexpr uint32_t glb_cfg_age = 7;
constexpr uint32_t glb_cfg_qos = 8;

} // namespace vvl::mom
