// What a port is trapped for follows the store through three subscriptions, and
// a scan each time that one of them is established. This file does not look for
// removals that were missed: the client delivers them when a subscription is
// made again.
#include "platform/sides/packet_side.h"

#include "libddm.h"
#include "platform/base/log.h"
#include "platform/mom/databases.h"

#include "p_bridge.pb-c.h"
#include "s_bridge.pb-c.h"
#include "u_bridge.pb-c.h"

namespace vvl::sides
{
namespace
{

const UBridge__VvlanPortCfg any_trap = U_BRIDGE__VVLAN_PORT_CFG__INIT;
const PBridge__VvlanPortCfg any_port = P_BRIDGE__VVLAN_PORT_CFG__INIT;
const PBridge__VvlanGlbCfg any_global = P_BRIDGE__VVLAN_GLB_CFG__INIT;

// Writes no line where rv is 0.
void log_failure(const std::string &step, int rv)
{
    if (rv != 0) {
        log_line(LogLevel::error, "packet side: cannot " + step + " (" + std::to_string(rv) + ")");
    }
}

} // namespace

struct PacketSide::Subjects {
    struct Subject {
        uint32_t db;
        const ProtobufCMessage &any; // template of all objects of the type
        const char *name;            // of these objects, in log lines
        void (PacketSide::*take)(const tq_mom_record_t &record);
    };
    static constexpr Subject trap{mom::db_plane, any_trap.base, "trap objects", &PacketSide::take_trap};
    static constexpr Subject port{mom::db_config, any_port.base, "port configurations", &PacketSide::take_port};
    static constexpr Subject global{mom::db_config, any_global.base, "global configuration", &PacketSide::take_global};
};

PacketSide::PacketSide(mom::Store &store, Loop &loop, fp::Plane &plane)
    : plane_(plane), loop_(loop), client_(store, loop, "packet side")
{
}

PacketSide::~PacketSide()
{
    for (auto &[phyid, port] : ports_) {
        if (port.trapped) {
            put_trap(phyid, port, false);
        }
    }
}

bool PacketSide::start(std::string &why)
{
    uint32_t db = mom::db_status;
    int rv = client_.connect(db);
    if (rv == 0) {
        db = mom::db_config;
        rv = client_.connect(db, [this] {
            subscribe<Subjects::global>();
            subscribe<Subjects::port>();
        });
    }
    if (rv == 0) {
        db = mom::db_plane;
        rv = client_.connect(db, [this] { subscribe<Subjects::trap>(); });
    }
    if (rv != 0) {
        why = "packet side: cannot connect to database " + std::to_string(db) + " (" + std::to_string(rv) + ")";
        client_.close();
    }
    return rv == 0;
}

// ---- The store ------------------------------------------------------------

template <const auto &subject> void PacketSide::subscribe()
{
    const int rv =
        tq_mom_subscribe(client_.ctx(), subject.db, &subject.any, TQ_MOM_MATCH_ALL, on_record<subject>, this);
    log_failure(std::string("subscribe to the ") + subject.name, rv);
}

template <const auto &subject> int PacketSide::on_record(void *ctx, tq_mom_record_t *record, void *user)
{
    if (record->error != 0) {
        log_failure(std::string("read one of the ") + subject.name, record->error);
        return record->error;
    }
    if (record->operate == TQ_MOM_ESTABLISHED) {
        const int rv = tq_mom_scan(ctx, subject.db, &subject.any, TQ_MOM_MATCH_ALL, on_record<subject>, user);
        log_failure(std::string("scan the ") + subject.name, rv);
    } else if (record->object != nullptr) {
        (static_cast<PacketSide *>(user)->*subject.take)(*record);
    }
    return 0;
}

void PacketSide::take_trap(const tq_mom_record_t &record)
{
    const auto *object = static_cast<const UBridge__VvlanPortCfg *>(record.object);
    if (object->index != nullptr && (record.operate == TQ_MOM_SET || record.operate == TQ_MOM_DEL)) {
        set_fact(object->index->ifx, &Port::requested, record.operate == TQ_MOM_SET);
    }
}

void PacketSide::take_port(const tq_mom_record_t &record)
{
    const auto *object = static_cast<const PBridge__VvlanPortCfg *>(record.object);
    if (object->index != nullptr && (record.operate == TQ_MOM_SET || record.operate == TQ_MOM_DEL)) {
        const bool automatic = (object->enable & object->mode & 1) != 0; // the agent looks at the lowest bits, too
        set_fact(object->index->ifx, &Port::automatic, automatic && record.operate == TQ_MOM_SET);
    }
}

// As the agent does: switching another VLAN off is ignored, and so is the
// removal of the configuration.
void PacketSide::take_global(const tq_mom_record_t &record)
{
    if (record.operate != TQ_MOM_HSET) {
        return;
    }
    const auto *hash = static_cast<const tq_mom_hash_t *>(record.object);
    log_failure("read the global configuration", hash->error);
    const auto *object = reinterpret_cast<const PBridge__VvlanGlbCfg *>(hash->message);
    if (hash->error != 0 || object == nullptr || object->glb_switch == nullptr) {
        return;
    }
    const PBridge__VvlanEn &wanted = *object->glb_switch;
    if (wanted.enable == 0 && wanted.vlan != voice_vlan_) {
        return;
    }
    voice_vlan_ = wanted.enable != 0 ? wanted.vlan : 0;
    for (auto &[phyid, port] : ports_) {
        settle(phyid, port);
    }
}

// ---- Ports ----------------------------------------------------------------

void PacketSide::set_fact(uint32_t ifx, bool Port::*fact, bool holds)
{
    uint32_t phyid = 0;
    if (libddm_get_phyid_by_ifx(ifx, &phyid) != 0) {
        counters_.port_unknown++;
        log_line(LogLevel::warn, "packet side: an object names the unknown port " + std::to_string(ifx));
        return;
    }
    auto found = ports_.find(phyid);
    if (found == ports_.end()) {
        if (!holds) {
            return;
        }
        if (ports_.size() >= packet_port_count_max) {
            counters_.full++;
            log_line(LogLevel::warn, "packet side: no room to trap port " + std::to_string(ifx));
            return;
        }
        found = ports_.try_emplace(phyid).first;
    }
    Port &port = found->second;
    port.*fact = holds;
    port.silent_until_us = 0;
    settle(phyid, port);
    if (!port.requested && !port.automatic && !port.trapped) {
        ports_.erase(found);
    }
}

// Puts into the plane, or takes out of it, what the port's facts call for.
void PacketSide::settle(uint32_t phyid, Port &port)
{
    const bool on = port.requested && port.automatic && voice_vlan_ != 0;
    if (on != port.trapped) {
        put_trap(phyid, port, on);
    }
}

void PacketSide::put_trap(uint32_t phyid, Port &port, bool on)
{
    const int rv = plane_.set_trap(phyid, on);
    log_failure((on ? "set" : "remove") + std::string(" the trap of physical port ") + std::to_string(phyid), rv);
    port.trapped = on && rv == 0;
}

void PacketSide::voice_trapped(uint32_t phyid, const Mac &, std::span<const uint8_t>)
{
    auto found = ports_.find(phyid);
    if (found == ports_.end() || !found->second.trapped) {
        plane_.set_trap(phyid, false);
        return;
    }
    Port &port = found->second;
    if (loop_.now_us() < port.silent_until_us) {
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
    port.silent_until_us = loop_.now_us() + renotify_interval_us;
}

} // namespace vvl::sides
