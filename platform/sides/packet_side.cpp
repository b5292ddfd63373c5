// Traps follow the store through a subscription, and a scan each time that it
// is established. Removals that nobody was told of need no care here: the
// client delivers them when the subscription is made again.
#include "platform/sides/packet_side.h"

#include "libddm.h"
#include "platform/base/log.h"

#include "s_bridge.pb-c.h"
#include "u_bridge.pb-c.h"

namespace vvl::sides
{
namespace
{

constexpr uint32_t db_trap = TQ_MOM_UDP_DB;
constexpr uint32_t db_notification = 0;

// The client context belongs to the side; its host word leads back to it.
PacketSide *side_of(void *ctx)
{
    return static_cast<PacketSide *>(static_cast<tq_global_t *>(ctx)->host);
}

int ignore_connected(void *, void *)
{
    return 0;
}

} // namespace

PacketSide::PacketSide(mom::Store &store, Loop &loop, fp::Plane &plane) : plane_(plane), store_(store), loop_(loop)
{
    client_.host = this;
}

PacketSide::~PacketSide()
{
    while (!traps_.empty()) {
        clear_trap(traps_.begin()->first);
    }
    if (attached_) {
        mom::detach(&client_);
    }
}

bool PacketSide::start(std::string &why)
{
    int rv = mom::attach(&client_, store_, loop_, "packet side");
    if (rv != 0) {
        why = "packet side: store client refused (" + std::to_string(rv) + ")";
        return false;
    }
    attached_ = true;
    tq_mom_client_set_reconnect_cb(&client_, db_trap, on_reconnected, nullptr);
    rv = tq_mom_client_connect(&client_, db_notification, ignore_connected, nullptr);
    uint32_t db = db_notification;
    if (rv == 0) {
        db = db_trap;
        rv = tq_mom_client_connect(&client_, db_trap, on_connected, this);
    }
    if (rv != 0) {
        why = "packet side: cannot connect to database " + std::to_string(db) + " (" + std::to_string(rv) + ")";
        mom::detach(&client_);
        attached_ = false;
        return false;
    }
    return true;
}

int PacketSide::on_connected(void *, void *user)
{
    static_cast<PacketSide *>(user)->subscribe();
    return 0;
}

int PacketSide::on_reconnected(void *ctx, uint32_t, int32_t type)
{
    if (type == mom::reconnect_missed) {
        side_of(ctx)->subscribe();
    }
    return 0;
}

void PacketSide::subscribe()
{
    UBridge__VvlanIndex index = U_BRIDGE__VVLAN_INDEX__INIT;
    UBridge__VvlanPortCfg tmpl = U_BRIDGE__VVLAN_PORT_CFG__INIT;
    tmpl.index = &index;
    int rv = tq_mom_subscribe(&client_, db_trap, &tmpl.base, TQ_MOM_MATCH_ALL, on_trap_object, this);
    if (rv != 0) {
        log_line(LogLevel::error, "packet side: cannot subscribe to trap objects (" + std::to_string(rv) + ")");
    }
}

void PacketSide::scan()
{
    UBridge__VvlanIndex index = U_BRIDGE__VVLAN_INDEX__INIT;
    UBridge__VvlanPortCfg tmpl = U_BRIDGE__VVLAN_PORT_CFG__INIT;
    tmpl.index = &index;
    int rv = tq_mom_scan(&client_, db_trap, &tmpl.base, TQ_MOM_MATCH_ALL, on_trap_object, this);
    if (rv != 0) {
        log_line(LogLevel::error, "packet side: cannot scan trap objects (" + std::to_string(rv) + ")");
    }
}

int PacketSide::on_trap_object(void *, tq_mom_record_t *record, void *user)
{
    auto *side = static_cast<PacketSide *>(user);
    if (record->error != 0) {
        log_line(LogLevel::error, "packet side: trap object unreadable (" + std::to_string(record->error) + ")");
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
        log_line(LogLevel::warn, "packet side: trap object of unknown port " + std::to_string(ifx));
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
    int rv = plane_.set_trap(phyid, true);
    if (rv != 0) {
        log_line(LogLevel::error, "packet side: plane refused the trap of port " + std::to_string(ifx) + " (" +
                                      std::to_string(rv) + ")");
        return;
    }
    traps_.emplace(phyid, 0);
}

void PacketSide::clear_trap(uint32_t phyid)
{
    if (traps_.erase(phyid) == 0) {
        return;
    }
    int rv = plane_.set_trap(phyid, false);
    if (rv != 0) {
        log_line(LogLevel::error, "packet side: plane kept the trap of physical port " + std::to_string(phyid) + " (" +
                                      std::to_string(rv) + ")");
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
    if (mom::publish(&client_, db_notification, &notification.base) != 0) {
        // Still armed: the port must join once the store is back.
        counters_.publish_failed++;
        return;
    }
    counters_.published++;
    found->second = loop_.now_us() + renotify_interval_us;
}

} // namespace vvl::sides
