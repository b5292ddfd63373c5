// Resynchronisation and single changes run the same code: opening a cycle
// marks all notifications stale, each registration that the scan then lists
// writes its VLAN's entries (which clears their marks), and closing the cycle
// removes the rest. This file does not look for withdrawals that were missed:
// the client delivers them when the subscription is made again.
#include "platform/sides/bridge_side.h"

#include "libddm.h"
#include "platform/base/log.h"
#include "platform/mom/databases.h"

#include "u_bridge.pb-c.h"

namespace vvl::sides
{
namespace
{

constexpr uint64_t cycle_expiry = 1000; // the store keeps it for information only
constexpr uint32_t vlan_id_max = 4094;  // 0 and 4095 are reserved by IEEE 802.1Q

const UBridge__MacVidReg any_registration = U_BRIDGE__MAC_VID_REG__INIT;
const UBridge__MacVidRegNoti any_notification = U_BRIDGE__MAC_VID_REG_NOTI__INIT;

bool is_vlan(uint32_t vid)
{
    return vid >= 1 && vid <= vlan_id_max;
}

// Group addresses are never a source (IEEE 802, I/G bit); all zeros is no station.
bool is_station(const Mac &mac)
{
    return (mac[0] & 1) == 0 && mac != Mac{};
}

// A notification with its sub-messages, for the time of one store call.
struct Notification {
    Mac mac;
    PLibpub__Mac data = P_LIBPUB__MAC__INIT;
    UBridge__UdpL2addrBaseIndex index = U_BRIDGE__UDP_L2ADDR_BASE_INDEX__INIT;
    UBridge__MacVidRegNoti message = U_BRIDGE__MAC_VID_REG_NOTI__INIT;

    explicit Notification(const Mac &address) : mac(address)
    {
        data.data = {mac.size(), mac.data()};
        index.t_mac = &data;
        message.index = &index;
    }
    Notification(const Notification &) = delete;
    Notification &operator=(const Notification &) = delete;
};

// Writes no line where rv is 0.
void log_failure(const std::string &step, int rv)
{
    if (rv != 0) {
        log_line(LogLevel::error, "bridge side: cannot " + step + " (" + std::to_string(rv) + ")");
    }
}

} // namespace

BridgeSide::BridgeSide(mom::Store &store, Loop &loop, fp::Plane &plane, uint64_t age_us)
    : plane_(plane), loop_(loop), age_us_(age_us), client_(store, loop, "bridge side")
{
}

BridgeSide::~BridgeSide()
{
    loop_.cancel_timer(aging_timer_);
}

bool BridgeSide::start(std::string &why)
{
    const int rv = client_.connect(mom::db_address, [this] { subscribe(); });
    if (rv != 0) {
        why = "bridge side: cannot connect to database " + std::to_string(mom::db_address) + " (" + std::to_string(rv) +
              ")";
        client_.close();
    }
    return rv == 0;
}

void BridgeSide::link_lost(uint32_t phyid)
{
    for (auto entry = learned_.begin(); entry != learned_.end();) {
        if (entry->second.phyid == phyid) {
            counters_.lost++;
            entry = remove(entry);
        } else {
            ++entry;
        }
    }
}

void BridgeSide::mac_seen(uint16_t vlan, const Mac &mac, uint32_t phyid)
{
    uint32_t ifx = 0;
    if (!is_vlan(vlan) || !is_station(mac) || libddm_get_ifx_by_phyid(phyid, &ifx) != 0) {
        counters_.refused++;
        return;
    }
    const Key key{vlan, mac};
    auto found = learned_.find(key);
    if (found == learned_.end()) {
        if (!learn(key, phyid, ifx)) {
            counters_.full++;
        }
        return;
    }
    Entry &entry = found->second;
    entry.seen_us = loop_.now_us();
    by_age_.splice(by_age_.end(), by_age_, entry.place);
    if (entry.phyid != phyid) {
        entry.phyid = phyid;
        entry.ifx = ifx;
        counters_.moved++;
        write(key, entry, true);
    }
}

// ---- The store ------------------------------------------------------------

int BridgeSide::on_registration(void *, tq_mom_record_t *record, void *user)
{
    auto *side = static_cast<BridgeSide *>(user);
    if (record->error != 0) {
        log_failure("read a registration", record->error);
        return record->error;
    }
    if (record->operate == TQ_MOM_ESTABLISHED) {
        side->open_cycle();
    } else if (record->phase == TQ_MOM_CYCLE_OPEN || record->phase == TQ_MOM_CYCLE_OPEN2) {
        side->scan();
    } else if (record->phase == TQ_MOM_SCAN_OVER) {
        side->close_cycle();
    } else if (record->object != nullptr) {
        const auto *object = static_cast<const UBridge__MacVidReg *>(record->object);
        const uint32_t vid = object->index != nullptr ? object->index->vid : 0;
        if (record->operate == TQ_MOM_SET) {
            side->register_vlan(vid);
        } else if (record->operate == TQ_MOM_DEL) {
            side->withdraw_vlan(vid);
        }
    }
    return 0;
}

void BridgeSide::subscribe()
{
    const int rv = tq_mom_subscribe(client_.ctx(), mom::db_address, &any_registration.base, TQ_MOM_MATCH_ALL,
                                    on_registration, this);
    log_failure("subscribe to registrations", rv);
}

void BridgeSide::open_cycle()
{
    const int rv = tq_mom_dsbegin(client_.ctx(), mom::db_address, &any_notification.base, TQ_MOM_MATCH_ALL,
                                  cycle_expiry, on_registration, this);
    log_failure("open a cycle over the notifications", rv);
}

void BridgeSide::scan()
{
    const int rv =
        tq_mom_scan(client_.ctx(), mom::db_address, &any_registration.base, TQ_MOM_MATCH_ALL, on_registration, this);
    log_failure("scan the registrations", rv);
}

void BridgeSide::close_cycle()
{
    const int rv =
        tq_mom_dsend(client_.ctx(), mom::db_address, &any_notification.base, TQ_MOM_MATCH_ALL, nullptr, nullptr);
    log_failure("close the cycle over the notifications", rv);
}

void BridgeSide::register_vlan(uint32_t vid)
{
    if (!is_vlan(vid)) {
        counters_.refused++;
        log_line(LogLevel::warn,
                 "bridge side: registration of VLAN " + std::to_string(vid) + ", which is not 1 to 4094");
        return;
    }
    const auto vlan = static_cast<uint16_t>(vid);
    // This includes a VLAN that is registered already: when a scan lists it, its
    // notifications must be written again to lose their stale marks.
    vlans_.insert(vlan);
    write_vlan(vlan, true);
}

void BridgeSide::withdraw_vlan(uint32_t vid)
{
    if (is_vlan(vid) && vlans_.erase(static_cast<uint16_t>(vid)) != 0) {
        write_vlan(static_cast<uint16_t>(vid), false);
    }
}

void BridgeSide::write_vlan(uint16_t vlan, bool present)
{
    for (auto entry = learned_.lower_bound(Key{vlan, Mac{}}); entry != learned_.end() && entry->first.vlan == vlan;
         ++entry) {
        write(entry->first, entry->second, present);
    }
}

void BridgeSide::write(const Key &key, const Entry &entry, bool present)
{
    if (present && !registered(key.vlan)) {
        return;
    }
    Notification notification(key.mac);
    notification.index.t_fid = key.vlan;
    notification.message.port_id = entry.ifx;
    const ProtobufCMessage *object = &notification.message.base;
    int rv = present ? tq_mom_set(client_.ctx(), mom::db_address, object, nullptr, nullptr)
                     : tq_mom_del(client_.ctx(), mom::db_address, object, nullptr, nullptr);
    if (rv != 0) {
        counters_.write_failed++;
    }
}

// ---- The table --------------------------------------------------------------

bool BridgeSide::learn(const Key &key, uint32_t phyid, uint32_t ifx)
{
    if (learned_.size() >= learned_count_max) {
        return false;
    }
    const auto place = by_age_.insert(by_age_.end(), key);
    const auto entry = learned_.emplace(key, Entry{phyid, ifx, loop_.now_us(), place}).first;
    counters_.learned++;
    write(key, entry->second, true);
    if (aging_timer_ == 0) {
        arm_aging();
    }
    return true;
}

BridgeSide::Table::iterator BridgeSide::remove(Table::iterator entry)
{
    if (registered(entry->first.vlan)) {
        write(entry->first, entry->second, false);
    }
    plane_.forget(entry->first.vlan, entry->first.mac);
    by_age_.erase(entry->second.place);
    return learned_.erase(entry);
}

void BridgeSide::arm_aging()
{
    if (by_age_.empty()) {
        return;
    }
    const uint64_t due_us = learned_.at(by_age_.front()).seen_us + age_us_;
    const uint64_t now_us = loop_.now_us();
    aging_timer_ = loop_.add_timer(due_us > now_us ? due_us - now_us : 0, [this] { age(); });
}

// An address that is seen moves to the end of the list, so those that are due
// are at its front.
void BridgeSide::age()
{
    aging_timer_ = 0;
    while (!by_age_.empty()) {
        auto oldest = learned_.find(by_age_.front());
        if (oldest->second.seen_us + age_us_ > loop_.now_us()) {
            break;
        }
        counters_.aged++;
        remove(oldest);
    }
    arm_aging();
}

} // namespace vvl::sides
