// The world of a walk is small, so that its things meet often: a handful of
// ports, OUIs and addresses, most of them related. Odd values are among them,
// such as VLANs out of range, OUIs that can never match and addresses that
// are none.
#include "tests/walk/events.h"

#include <algorithm>

namespace vvl::walk
{
namespace
{

struct Row {
    Kind kind; // in the order of the enumeration
    const char *name;
    uint32_t weight; // 0: chosen by other means
};

constexpr Row rows[] = {
    {Kind::set_switch, "set switch", 60},
    {Kind::set_security, "set security", 20},
    {Kind::set_age, "set age", 25},
    {Kind::set_qos, "set qos", 20},
    {Kind::set_global, "set global", 8},
    {Kind::delete_global, "delete global", 4},
    {Kind::set_oui, "set OUI", 70},
    {Kind::delete_oui, "delete OUI", 50},
    {Kind::set_port, "set port", 110},
    {Kind::delete_port, "delete port", 25},
    {Kind::set_port_noti, "set port notification", 40},
    {Kind::publish_port_noti, "publish port notification", 60},
    {Kind::delete_port_noti, "delete port notification", 20},
    {Kind::set_mac, "set MAC", 150},
    {Kind::delete_mac, "delete MAC", 100},
    {Kind::publish_mac, "publish MAC", 5},
    {Kind::set_own, "set own", 4},
    {Kind::delete_own, "delete own", 2},
    {Kind::pass_time, "pass time", 140},
    {Kind::stop, "stop", 8},
    {Kind::start, "start", 0},
    {Kind::cut, "cut", 14},
    {Kind::restore, "restore", 0},
    {Kind::flood, "flood", 0},
    {Kind::ebb, "ebb", 0},
};

constexpr bool rows_are_in_order()
{
    for (size_t i = 0; i < std::size(rows); i++) {
        if (rows[i].kind != static_cast<Kind>(i)) {
            return false;
        }
    }
    return static_cast<size_t>(Kind::ebb) + 1 == std::size(rows);
}
static_assert(rows_are_in_order());

// One in so many events.
constexpr uint32_t flood_interval = 5000;
constexpr uint32_t ebb_interval = 4;
constexpr uint32_t flood_size = 130;

constexpr uint32_t ifxs[] = {1, 2, 3, 4, 10, 1, 2, 3, 4, 10, 1, 2, 3, 4, 10, 0, 77};
constexpr uint32_t phyids[] = {257, 258, 259, 260, 266, 257, 258, 259, 260, 266, 5};
constexpr uint32_t vlans[] = {100, 100, 100, 100, 100, 200, 200, 0, 4094, 4095, 65636};
constexpr uint32_t noti_vlans[] = {100, 100, 100, 100, 200, 0};
constexpr uint32_t ages[] = {0, 1, 1, 2, 2, 3, 5, 60, 1440, 65536, 65537};
constexpr uint32_t enables[] = {1, 1, 1, 1, 0, 2, 3};
constexpr uint32_t modes[] = {1, 1, 1, 0, 0, 2, 3};
constexpr uint32_t coses[] = {0, 5, 6, 7, 8, 261};
constexpr uint32_t dscps[] = {0, 40, 46, 63, 64, 302};
constexpr uint32_t minutes[] = {1, 1, 1, 1, 2, 2, 3, 5, 60};

const MacField no_mac;

std::string bytes(std::initializer_list<int> values)
{
    return {values.begin(), values.end()};
}

const OuiObject ouis[] = {
    {bytes({0, 4, 0x76, 0, 0, 0}), bytes({255, 255, 255, 0, 0, 0})},
    {bytes({0, 4, 0x76, 0x10, 0, 0}), bytes({255, 255, 255, 255, 0, 0})},
    {bytes({0, 4, 0x76, 0x10, 0x20, 0}), bytes({255, 255, 255, 255, 255, 0})},
    {bytes({0, 4, 0x76, 0x10, 0x20, 0x30}), bytes({255, 255, 255, 255, 255, 255})},
    {bytes({0, 4, 0x76, 0x10, 0, 0}), bytes({255, 255, 255, 0xf0, 0, 0})},
    {bytes({8, 0, 0xf, 0, 0, 0}), bytes({255, 255, 255, 0, 0, 0})},
    {bytes({0x80, 0, 0, 0, 0, 0}), bytes({0x80, 0, 0, 0, 0, 0})},
    {bytes({0, 0, 0x76, 0, 0, 0}), bytes({255, 0, 255, 0, 0, 0})},      // no prefix
    {bytes({0, 4, 0x76, 1, 0, 0}), bytes({255, 255, 255, 0, 0, 0})},    // a bit outside the mask
    {bytes({0, 0, 0, 0, 0, 0}), bytes({0, 0, 0, 0, 0, 0})},             // covers everything, matches nothing
    {bytes({0, 4, 0x76, 0, 0}), bytes({255, 255, 255, 0, 0, 0})},       // too short
    {bytes({0, 4, 0x76, 0, 0, 0, 0}), bytes({255, 255, 255, 0, 0, 0})}, // too long
    {bytes({0, 4, 0x76, 0, 0, 0}), no_mac},
    {no_mac, no_mac},
};

const MacField macs[] = {
    bytes({0, 4, 0x76, 0x10, 0x20, 0x30}),
    bytes({0, 4, 0x76, 0x10, 0x20, 0x31}),
    bytes({0, 4, 0x76, 0x10, 0x21, 1}),
    bytes({0, 4, 0x76, 0x11, 0, 1}),
    bytes({0, 4, 0x76, 0x99, 0, 1}),
    bytes({8, 0, 0xf, 1, 2, 3}),
    bytes({8, 0, 0xf, 1, 2, 4}),
    bytes({0xaa, 0xbb, 0xcc, 1, 2, 3}),
    bytes({0x40, 1, 2, 3, 4, 5}),
    bytes({0, 4, 0x76, 0x10, 0x20}),
    std::string(),
    no_mac,
};

// The n-th OUI of a flood.
OuiObject flood_oui(uint32_t n)
{
    return {bytes({2, 0, static_cast<int>(n), 0, 0, 0}), bytes({255, 255, 255, 0, 0, 0})};
}

std::string digits(uint32_t value)
{
    return std::to_string(value);
}

// The settings that are written, or that differ from the default.
std::string global_text(const GlobalObject &global)
{
    std::string text;
    if (global.glb_switch) {
        text += " vlan " + digits(global.glb_switch->vlan) + " enable " + digits(global.glb_switch->enable);
    }
    if (global.fields.contains(field_security) || global.secu_mode != 0) {
        text += " security " + digits(global.secu_mode);
    }
    if (global.fields.contains(field_age) || global.age_time != 0) {
        text += " age " + digits(global.age_time);
    }
    if (global.qos) {
        text += " cos " + digits(global.qos->cos) + " dscp " + digits(global.qos->dscp);
    }
    return text;
}

} // namespace

std::vector<host::PortId> known_ports()
{
    return {{1, 257}, {2, 258}, {3, 259}, {4, 260}, {10, 266}};
}

// ---- Making ----

// SplitMix64: small, and the same on every machine.
uint64_t EventSource::random()
{
    uint64_t z = state_ += 0x9e3779b97f4a7c15;
    z = (z ^ z >> 30) * 0xbf58476d1ce4e5b9;
    z = (z ^ z >> 27) * 0x94d049bb133111eb;
    return z ^ z >> 31;
}

Kind EventSource::pick_kind(const Model &model)
{
    if (!model.loaded() && chance(4)) {
        return Kind::start;
    }
    if (cut_count_ > 0 && chance(8)) {
        return Kind::restore;
    }
    if (flooded_ ? chance(ebb_interval) : chance(flood_interval)) {
        return flooded_ ? Kind::ebb : Kind::flood;
    }
    uint32_t sum = 0;
    for (const Row &row : rows) {
        sum += row.weight;
    }
    uint32_t chosen = below(sum);
    for (const Row &row : rows) {
        if (chosen < row.weight) {
            return row.kind;
        }
        chosen -= row.weight;
    }
    return Kind::pass_time;
}

Event EventSource::next(const Model &model)
{
    Event event;
    event.kind = pick_kind(model);
    const bool needs_module = event.kind == Kind::stop || event.kind == Kind::cut;
    if (needs_module && !model.loaded()) {
        event.kind = Kind::pass_time;
    }
    fill(event);
    if (event.kind == Kind::restore || event.kind == Kind::cut) {
        choose_link(event, model);
    }
    if (event.kind == Kind::stop) {
        cut_count_ = 0; // a new start connects anew
    }
    // A cut behind a return on the way would let the module start with a
    // database that is gone, and it ends its process then.
    event.settles = event.kind == Kind::restore || !chance(6);
    return event;
}

// One of the links that are in the other state, if there is one.
void EventSource::choose_link(Event &event, const Model &model)
{
    std::vector<uint32_t> choices;
    for (const uint32_t db : databases) {
        if (model.is_cut(db) == (event.kind == Kind::restore)) {
            choices.push_back(db);
        }
    }
    if (choices.empty()) {
        event.kind = Kind::pass_time;
        event.number = 0;
        return;
    }
    event.number = choices[below(static_cast<uint32_t>(choices.size()))];
    cut_count_ += event.kind == Kind::cut ? 1 : -1;
}

GlobalObject::Switch EventSource::some_switch()
{
    const uint32_t vlan = pick(vlans);
    const bool is_on = below(3) != 0;
    return {vlan, is_on ? pick(enables) : 0};
}

void EventSource::fill_field(Event &event)
{
    GlobalObject &global = event.global;
    const bool lacks_part = chance(20);
    if (event.kind == Kind::set_switch) {
        global.fields = {field_switch};
        if (!lacks_part) {
            global.glb_switch = some_switch();
        }
    } else if (event.kind == Kind::set_security) {
        global.fields = {field_security};
        global.secu_mode = chance(2) ? 0 : 1 + 4 * below(2);
    } else if (event.kind == Kind::set_age) {
        global.fields = {field_age};
        global.age_time = pick(ages);
    } else {
        global.fields = {field_qos};
        if (!lacks_part) {
            global.qos = GlobalObject::Qos{pick(coses), pick(dscps)};
        }
    }
}

void EventSource::fill_objects(Event &event)
{
    event.oui = pick(ouis);
    event.port = {pick(ifxs), pick(enables), pick(modes)};
    event.noti = {pick(noti_vlans), chance(12) ? 1u : 0u, pick(macs), pick(ifxs)};
}

void EventSource::fill(Event &event)
{
    fill_objects(event);
    switch (event.kind) {
    case Kind::set_switch:
    case Kind::set_security:
    case Kind::set_age:
    case Kind::set_qos:
        fill_field(event);
        break;
    case Kind::set_global:
        if (!chance(4)) {
            event.global.glb_switch = some_switch();
        }
        event.global.secu_mode = below(2);
        event.global.age_time = pick(ages);
        if (!chance(4)) {
            event.global.qos = GlobalObject::Qos{pick(coses), pick(dscps)};
        }
        break;
    case Kind::set_port_noti:
    case Kind::publish_port_noti:
    case Kind::delete_port_noti:
        event.number = pick(phyids);
        break;
    case Kind::set_own:
    case Kind::delete_own:
        event.own = static_cast<Own>(below(own_count));
        event.number = pick(ifxs);
        break;
    case Kind::pass_time:
        event.number = chance(60) ? 90000 : 60 * pick(minutes) + (chance(8) ? below(60) : 0);
        break;
    case Kind::flood:
    case Kind::ebb:
        flooded_ = event.kind == Kind::flood;
        event.number = flood_size;
        break;
    default:
        break;
    }
}

// ---- Carrying out ----

namespace
{

// Each of these carries out the kinds of one group, and leaves the others.

template <typename Target> void apply_configuration(const Event &event, Target &target)
{
    switch (event.kind) {
    case Kind::set_switch:
    case Kind::set_security:
    case Kind::set_age:
    case Kind::set_qos:
        return target.set_global_fields(event.global);
    case Kind::set_global:
        return target.set_global(event.global);
    case Kind::delete_global:
        return target.delete_global();
    case Kind::set_oui:
        return target.set_oui(event.oui);
    case Kind::delete_oui:
        return target.delete_oui(event.oui);
    case Kind::set_port:
        return target.set_port(event.port);
    case Kind::delete_port:
        return target.delete_port(event.port.ifx);
    default:
        return;
    }
}

template <typename Target> void apply_notification(const Event &event, Target &target)
{
    switch (event.kind) {
    case Kind::set_port_noti:
        return target.set_port_noti(event.number);
    case Kind::publish_port_noti:
        return target.publish_port_noti(event.number);
    case Kind::delete_port_noti:
        return target.delete_port_noti(event.number);
    case Kind::set_mac:
        return target.set_mac(event.noti);
    case Kind::delete_mac:
        return target.delete_mac(event.noti);
    case Kind::publish_mac:
        return target.publish_mac(event.noti);
    case Kind::set_own:
        return target.set_own(event.own, event.number);
    case Kind::delete_own:
        return target.delete_own(event.own, event.number);
    default:
        return;
    }
}

template <typename Target> void apply_flood(const Event &event, Target &target)
{
    for (uint32_t n = 0; n < event.number; n++) {
        if (event.kind == Kind::flood) {
            target.set_oui(flood_oui(n));
        } else {
            target.delete_oui(flood_oui(n));
        }
    }
}

template <typename Target> void apply_host_event(const Event &event, Target &target)
{
    switch (event.kind) {
    case Kind::pass_time:
        return target.advance(event.number);
    case Kind::stop:
        return target.stop();
    case Kind::cut:
        return target.cut(event.number);
    case Kind::restore:
        return target.restore(event.number);
    case Kind::flood:
    case Kind::ebb:
        return apply_flood(event, target);
    default:
        return;
    }
}

template <typename Target> bool apply_to(const Event &event, Target &target)
{
    if (event.kind == Kind::start && !target.start()) {
        return false;
    }
    apply_configuration(event, target);
    apply_notification(event, target);
    apply_host_event(event, target);
    if (event.settles) {
        target.settle();
    }
    return true;
}

} // namespace

bool apply(const Event &event, Model &model)
{
    return apply_to(event, model);
}

bool apply(const Event &event, Observed &observed)
{
    return apply_to(event, observed);
}

// ---- Text ----

std::string to_text(const Event &event)
{
    std::string text = rows[static_cast<size_t>(event.kind)].name;
    switch (event.kind) {
    case Kind::set_switch:
    case Kind::set_security:
    case Kind::set_age:
    case Kind::set_qos:
    case Kind::set_global:
        text += global_text(event.global);
        break;
    case Kind::set_oui:
    case Kind::delete_oui:
        text += " " + key_of(event.oui);
        break;
    case Kind::set_port:
        text +=
            " " + digits(event.port.ifx) + " enable " + digits(event.port.enable) + " mode " + digits(event.port.mode);
        break;
    case Kind::delete_port:
        text += " " + digits(event.port.ifx);
        break;
    case Kind::set_mac:
    case Kind::delete_mac:
    case Kind::publish_mac:
        text += " " + key_of(event.noti) + " port " + digits(event.noti.port);
        break;
    case Kind::set_own:
    case Kind::delete_own:
        text += std::string(" ") + own_words[static_cast<size_t>(event.own)] + " " + digits(event.number);
        break;
    case Kind::delete_global:
    case Kind::stop:
    case Kind::start:
        break;
    default:
        text += " " + digits(event.number);
        break;
    }
    return text + (event.settles ? "" : " (unsettled)");
}

} // namespace vvl::walk
