// The two records of a port's join. The module reads u_bridge.vvlan_join back
// when it starts, and tells the control side with p_bridge.vvlan_port_auto. They
// are written one after the other into two databases, so an agent that is killed,
// or loses its store, between the two writes leaves the first one alone. The
// module would put such a port back into the voice VLAN and never report it.
#pragma once

#include "platform/mom/store.h"

namespace vvl::host
{

// Removes each join record whose port is not reported as joined: that port waits,
// and joins with both records when its telephone sends its next frame.
//
// Call it before the module hears that database db is connected; it acts on the
// two databases concerned and ignores the others. The session is the module's,
// so that what it asks for next comes after the removals. Where one of the two
// databases cannot be read, nothing is removed.
void remove_unreported_joins(uint32_t db, mom::Session &session);

} // namespace vvl::host
