// Traps follow the store through a subscription, and a scan each time that the
// subscription is established. This file does not look for removals that were
// missed: the client delivers them when the subscription is made again.
#include "platform/sides/packet_side.h"

#include "libddm.h"
#include "platform/base/log.h"
#include "platform/mom/databases.h"

#include "s_bridge.pb-c.h"
#include "u_bridge.pb-c.h"

namespace vvl::sides
{
namespace
{

const UBridge__VvlanPortCfg any_trap = U_BRIDGE__VVLAN_PORT_CFG__INIT;

// Writes no line where rv is 0.
void log_failure(const std::string &step, int rv)
{
    if (rv != 0) {
        log_line(LogLevel::error, "packet side: cannot " + step + " (" + std::to_string(rv) + ")");
    }
}

} // namespace
PacketSide::PacketSide(mom::Store &store, Loop &loop, fp::Plane &plane)
    : plane_(plane), loop_(loop), client_(store, loop, "packet side")
{
}

PacketSide::~PacketSide()
{
    while (!traps_.empty()) {
        clear_trap(traps_.begin()->first);
    }
}

bool PacketSide::start(std::string &why)
{
    uint32_t db = mom::db_status;
    int rv = client_.connect(db);
    if (rv == 0) {
        db = mom::db_plane;
        rv = client_.connect(db, [this] { subscribe(); });
    }
    if (rv != 0) {
        why = "packet side: cannot connect to database " + std::to_string(db) + " (" + std::to_string(rv) + ")";
        client_.close();
    }
    return rv == 0;
}

void PacketSide::subscribe()
{
    const int rv =
        tq_mom_subscribe(client_.ctx(), mom::db_plane, &any_trap.base, TQ_MOM_MATCH_ALL, on_trap_object, this);
    log_failure("subscribe to the trap objects", rv);
}

void PacketSide::scan()
{
    const int rv = tq_mom_scan(client_.ctx(), mom::db_plane, &any_trap.base, TQ_MOM_MATCH_ALL, on_trap_object, this);
    log_failure("scan the trap objects", rv);
}

int PacketSide::on_trap_object(void *, tq_mom_record_t *record, void *user)
{
    auto *side = static_cast<PacketSide *>(user);
    if (record->error != 0) {
        log_failure("read a trap object", record->error);
        return record->error;
    }
    if (record->operate == TQ_MOM_ESTABLISHED) {
        side->scan();
    } else if (record->object != nullptr && (record->operate == TQ_MOM_SET || record->operate == TQ_MOM_DEL)) {
        const auto *object = static_cast<const UBridge__VvlanPortCfg *>(record->object);
        side->set_trap(object->index != nullptr ? object->index->ifx : 0, record->operate == TQ_MOM_SET);
    }
    return 0;
}

void PacketSide::set_trap(uint32_t ifx, bool on)
{
    uint32_t phyid = 0;
    if (libddm_get_phyid_by_ifx(ifx, &phyid) != 0) {
        counters_.port_unknown++;
        log_line(LogLevel::warn, "packet side: a trap object names the unknown port " + std::to_string(ifx));
        return;
    }
    if (!on) {
        clear_trap(phyid);
        return;
    }
    if (auto found = traps_.find(phyid); found != traps_.end()) {
        found->second = 0;
        return;
    }
    if (traps_.size() >= trap_count_max) {
        counters_.full++;
        log_line(LogLevel::warn, "packet side: no room to trap port " + std::to_string(ifx));
        return;
    }
    const int rv = plane_.set_trap(phyid, true);
    log_failure("set the trap of port " + std::to_string(ifx), rv);
    if (rv == 0) {
        traps_.emplace(phyid, 0);
    }
}

void PacketSide::clear_trap(uint32_t phyid)
{
    if (traps_.erase(phyid) != 0) {
        log_failure("remove the trap of physical port " + std::to_string(phyid), plane_.set_trap(phyid, false));
    }
}

void PacketSide::voice_trapped(uint32_t phyid, const Mac &, std::span<const uint8_t>)
{
    auto found = traps_.find(phyid);
    if (found == traps_.end() || loop_.now_us() < found->second) {
        return;
    }
    SBridge__VvlanIndex index = S_BRIDGE__VVLAN_INDEX__INIT;
    SBridge__VvlanPortNoty notification = S_BRIDGE__VVLAN_PORT_NOTY__INIT;
    index.phyid = phyid;
    notification.index = &index;
    if (mom::publish(client_.ctx(), mom::db_status, &notification.base) != 0) {
        // Still armed: the port must join once the store is back.
        counters_.publish_failed++;
        return;
    }
    counters_.published++;
    found->second = loop_.now_us() + renotify_interval_us;
}

} // namespace vvl::sides
