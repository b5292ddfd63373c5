#include "platform/host/join_records.h"

#include "platform/base/log.h"

#include <algorithm>

namespace vvl::host
{
namespace
{

constexpr uint32_t config_db = 4;
constexpr const char *join_type = "u_bridge.vvlan_join";
constexpr const char *report_type = "p_bridge.vvlan_port_auto";

} // namespace

void remove_unreported_joins(uint32_t db, mom::Session &session)
{
    std::vector<mom::Object> joins;
    std::vector<mom::Object> reports;
    if ((db != config_db && db != TQ_MOM_UDP_DB) || session.scan_now(TQ_MOM_UDP_DB, join_type, joins) != TQ_MOM_OK ||
        session.scan_now(config_db, report_type, reports) != TQ_MOM_OK) {
        return;
    }
    for (const mom::Object &join : joins) {
        // Both have the port's ifx as their key.
        if (std::ranges::find(reports, join.key, &mom::Object::key) == reports.end()) {
            log_line(LogLevel::warn,
                     "port " + join.key + ": its join was not reported; it waits for its telephone's next frame");
            session.remove({TQ_MOM_UDP_DB, join_type, join.key}, {}, {});
        }
    }
}

} // namespace vvl::host
