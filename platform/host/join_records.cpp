#include "platform/host/join_records.h"

#include "p_bridge.pb-c.h"
#include "platform/base/log.h"
#include "platform/base/number.h"
#include "platform/mom/databases.h"
#include "platform/mom/messages.h"

#include <algorithm>

namespace vvl::host
{
namespace
{

constexpr const char *join_type = "u_bridge.vvlan_join";
constexpr const char *report_type = "p_bridge.vvlan_port_auto";

// Packs the report of the port with this key (its ifx). False where the key is malformed.
bool make_report(const std::string &key, mom::Value &value)
{
    int64_t ifx = 0;
    if (!parse_integer(key, 0, UINT32_MAX, ifx)) {
        return false;
    }
    PBridge__VvlanIndex index = P_BRIDGE__VVLAN_INDEX__INIT;
    index.ifx = static_cast<uint32_t>(ifx);
    PBridge__VvlanPortAuto report = P_BRIDGE__VVLAN_PORT_AUTO__INIT;
    report.index = &index;
    report.enable = 1;
    return mom::pack(report.base, value.bytes);
}

} // namespace

void report_unreported_joins(uint32_t db, mom::Session &session)
{
    std::vector<mom::Object> joins;
    std::vector<mom::Object> reports;
    if ((db != mom::db_config && db != mom::db_plane) ||
        session.scan_now(mom::db_plane, join_type, joins) != TQ_MOM_OK ||
        session.scan_now(mom::db_config, report_type, reports) != TQ_MOM_OK) {
        return;
    }
    for (const mom::Object &join : joins) {
        mom::Value report;
        // Both have the port's ifx as their key.
        if (std::ranges::find(reports, join.key, &mom::Object::key) == reports.end() && make_report(join.key, report)) {
            log_line(LogLevel::warn, "port " + join.key + ": its join was not reported; reporting it");
            session.write({mom::db_config, report_type, join.key}, report, mom::WriteMode::replace, {}, {});
        }
    }
}

} // namespace vvl::host
