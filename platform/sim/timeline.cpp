// Each followed type is a row: its database, and the text for a change of it. The
// text for a removal is made from the object as it was last seen, since a removal
// names only the key.
#include "platform/sim/timeline.h"

#include "platform/mom/databases.h"
#include "platform/mom/keys.h"
#include "platform/operator/command.h"
#include "platform/sim/objects.h"

#include "p_bridge.pb-c.h"
#include "u_bridge.pb-c.h"

#include <cstdio>
#include <cstring>

namespace vvl::sim
{
namespace
{

struct FollowRow {
    const char *type;
    uint32_t db;
    LineKind kind;
    std::string (*describe)(const ProtobufCMessage &object, bool present);
};

// A generated message begins with its ProtobufCMessage; the descriptor's name
// has been compared before.
template <typename Message> const Message &as(const ProtobufCMessage &object)
{
    return *static_cast<const Message *>(static_cast<const void *>(&object));
}

std::string mac_of(const PLibpub__Mac *part)
{
    Mac mac{};
    if (part == nullptr || part->data.len != mac.size()) {
        return "(no address)";
    }
    std::memcpy(mac.data(), part->data.data, mac.size());
    return to_text(mac);
}

std::string oui_of(const PLibpub__Mac *mac, const PLibpub__Mac *mask)
{
    Mac bytes[2]{};
    const PLibpub__Mac *parts[2] = {mac, mask};
    for (size_t i = 0; i < 2; i++) {
        if (parts[i] == nullptr || parts[i]->data.len != mac_size) {
            return "(no address)";
        }
        std::memcpy(bytes[i].data(), parts[i]->data.data, mac_size);
    }
    return oper::oui_text(bytes[0], bytes[1]);
}

std::string describe_trap(const ProtobufCMessage &object, bool present)
{
    const auto &trap = as<UBridge__VvlanPortCfg>(object);
    return "port " + std::to_string(trap.index->ifx) +
           (present ? ": waiting, voice frames are trapped" : ": trap removed");
}

std::string describe_join(const ProtobufCMessage &object, bool present)
{
    const auto &join = as<PBridge__VvlanPortAuto>(object);
    return "port " + std::to_string(join.index->ifx) + (present ? ": joined the voice VLAN" : ": left the voice VLAN");
}

std::string describe_oui(const ProtobufCMessage &object, bool present)
{
    const auto &oui = as<UBridge__VvlanOuiCfg>(object);
    return "OUI " + (oui.oui != nullptr ? oui_of(oui.oui->mac, oui.oui->mask) : "(no address)") + " " +
           (present ? "installed" : "record removed") + " (ACE " + std::to_string(oui.index->ace_id) + ")";
}

std::string describe_mac(const ProtobufCMessage &object, bool present)
{
    const auto &noti = as<UBridge__MacVidRegNoti>(object);
    return "port " + std::to_string(noti.port_id) + ": " + mac_of(noti.index->t_mac) +
           (present ? " learned in VLAN " : " gone from VLAN ") + std::to_string(noti.index->t_fid);
}

std::string describe_error(const ProtobufCMessage &object, bool)
{
    const auto &event = as<PBridge__VvlanErrEvent>(object);
    switch (event.msg_type) {
    case P_BRIDGE__VVLAN_ERR_TYPE__VVLAN_SET_ENABLE:
        return "error event: voice VLAN " + std::to_string(event.vid) + " could not be switched on";
    case P_BRIDGE__VVLAN_ERR_TYPE__VVLAN_SET_PORT_ENABLE:
        return "error event: port " + std::to_string(event.ifx) + " could not be configured";
    case P_BRIDGE__VVLAN_ERR_TYPE__VVLAN_SET_OUI_CONFIG:
        return "error event: OUI " + (event.oui != nullptr ? oui_of(event.oui->mac, event.oui->mask) : "") +
               " could not be installed";
    case P_BRIDGE__VVLAN_ERR_TYPE__VVLAN_SET_QOS_CONFIG:
        return "error event: priority could not be changed";
    case P_BRIDGE__VVLAN_ERR_TYPE__VVLAN_SET_SECURITY_MOD:
        return "error event: security mode could not be changed";
    default:
        return "error event of type " + std::to_string(event.msg_type);
    }
}

constexpr FollowRow rows[] = {
    {"u_bridge.vvlan_oui_cfg", mom::db_plane, LineKind::event, describe_oui},
    {"u_bridge.vvlan_port_cfg", mom::db_plane, LineKind::event, describe_trap},
    {"p_bridge.vvlan_port_auto", mom::db_config, LineKind::event, describe_join},
    {"u_bridge.mac_vid_reg_noti", mom::db_address, LineKind::event, describe_mac},
    {"p_bridge.vvlan_err_event", mom::db_config, LineKind::alarm, describe_error},
};

const char *color_of(LineKind kind)
{
    switch (kind) {
    case LineKind::command:
        return "\033[1m";
    case LineKind::event:
        return "\033[32m";
    case LineKind::alarm:
        return "\033[31m";
    case LineKind::note:
        return "\033[2m";
    }
    return "";
}

int count_record(void *, tq_mom_record_t *record, void *user)
{
    if (record->object != nullptr) {
        ++*static_cast<size_t *>(user);
    }
    return 0;
}

} // namespace

std::string time_text(uint64_t time_us)
{
    const uint64_t seconds = time_us / 1'000'000;
    char text[64];
    std::snprintf(text, sizeof text, "%llud %02u:%02u:%02u.%06u", static_cast<unsigned long long>(seconds / 86'400),
                  static_cast<unsigned>(seconds / 3'600 % 24), static_cast<unsigned>(seconds / 60 % 60),
                  static_cast<unsigned>(seconds % 60), static_cast<unsigned>(time_us % 1'000'000));
    return text;
}

void Timeline::add(LineKind kind, const std::string &text)
{
    const char *begin = color_ ? color_of(kind) : "";
    const char *end = color_ ? "\033[0m" : "";
    std::printf("%s  %s%s%s%s\n", time_text(loop_.now_us()).c_str(), begin, kind == LineKind::command ? "> " : "  ",
                text.c_str(), end);
}

void Timeline::print(const std::string &text)
{
    std::printf("%s\n", text.c_str());
}

bool Observer::start(std::string &why)
{
    int rv = 0;
    for (uint32_t db : mom::databases_in_use) {
        rv = rv == 0 ? client_.connect_now(db) : rv;
    }
    follows_.resize(std::size(rows));
    for (size_t i = 0; i < std::size(rows) && rv == 0; i++) {
        follows_[i] = {this, i, {}};
        const mom::MessagePtr tmpl = mom::make_message(*mom::find_type(rows[i].type)->descriptor);
        rv = tq_mom_subscribe(client_.ctx(), rows[i].db, tmpl.get(), TQ_MOM_MATCH_ALL, on_change, &follows_[i]);
    }
    if (rv != 0) {
        why = "observer: the store refused it (" + std::to_string(rv) + ")";
        return false;
    }
    return true;
}

int Observer::on_change(void *, tq_mom_record_t *record, void *user)
{
    auto &follow = *static_cast<Follow *>(user);
    const FollowRow &row = rows[follow.row];
    const mom::ObjectType &type = *mom::find_type(row.type);
    const auto *object = static_cast<const ProtobufCMessage *>(record->object);
    if (record->operate == TQ_MOM_HSET && record->object != nullptr) {
        object = static_cast<const tq_mom_hash_t *>(record->object)->message;
    }
    if (record->error != 0 || object == nullptr) {
        return 0;
    }
    std::string key;
    mom::encode_key(type, *object, key);
    Timeline &timeline = follow.observer->timeline_;
    if (record->operate == TQ_MOM_DEL) {
        if (auto known = follow.objects.extract(key)) {
            timeline.add(row.kind, row.describe(*mom::unpack(type, known.mapped()), false));
        }
    } else if (record->operate == TQ_MOM_HSET) {
        timeline.add(row.kind, row.describe(*object, true));
    } else if (std::string packed; record->operate == TQ_MOM_SET && !key.empty() && mom::pack(*object, packed)) {
        std::string &known = follow.objects[key];
        if (known != packed) {
            known = packed;
            timeline.add(row.kind, row.describe(*object, true));
        }
    }
    return 0;
}

bool Observer::has_object(const NamedType &type, const std::string &key)
{
    const mom::MessagePtr wanted = make_keyed(type, key);
    ProtobufCMessage *found =
        wanted != nullptr ? tq_mom_get_sync(client_.ctx(), type.db, wanted.get(), nullptr) : nullptr;
    tq_mom_tq_obj_free(found);
    return found != nullptr;
}

size_t Observer::count_objects(const NamedType &type)
{
    size_t count = 0;
    const mom::MessagePtr tmpl = mom::make_message(*mom::find_type(type.name)->descriptor);
    tq_mom_scan_sync(client_.ctx(), type.db, tmpl.get(), TQ_MOM_MATCH_ALL, count_record, &count);
    return count;
}

int Observer::last_error_event()
{
    PBridge__VvlanErrEvent key = P_BRIDGE__VVLAN_ERR_EVENT__INIT;
    ProtobufCMessage *found = tq_mom_get_sync(client_.ctx(), mom::db_config, &key.base, nullptr);
    const int type = found != nullptr ? static_cast<int>(as<PBridge__VvlanErrEvent>(*found).msg_type) : -1;
    tq_mom_tq_obj_free(found);
    return type;
}

} // namespace vvl::sim
