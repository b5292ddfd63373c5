// The two records of a port's join. The module reads u_bridge.vvlan_join back
// when it starts, and tells the control side with p_bridge.vvlan_port_auto. It
// writes one after the other into two databases, so an agent that is killed, or
// whose second write is refused, leaves the first one alone. The module puts
// such a port back into the voice VLAN, and never reports it.
#pragma once

#include "platform/mom/store.h"

namespace vvl::host
{

// Writes the report of each join that has none. The join stands, so a call on the
// port is not disturbed; a report of a port that is no longer automatic is swept
// by the module like any other.
//
// Call it before the module hears that database db is connected; it acts on the
// two databases concerned and ignores the others. The session is the module's,
// so that what it asks for next comes after the reports. Where one of the two
// databases cannot be read, nothing is written.
void report_unreported_joins(uint32_t db, mom::Session &session);

} // namespace vvl::host
