// The world of a walk is small, so that its things meet often: a handful of
// ports, OUIs and addresses, most of them related. Odd values are among them,
// such as VLANs out of range, OUIs that can never match and addresses that
// are none.
#include "tests/walk/events.h"

namespace vvl::walk
{
namespace
{

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
constexpr uint32_t global_fields[] = {field_switch, field_switch, field_switch, field_security, field_age, field_qos};

const std::string ouis[] = {
    "00:04:76:00:00:00/ff:ff:ff:00:00:00",
    "00:04:76:10:00:00/ff:ff:ff:ff:00:00",
    "00:04:76:10:20:00/ff:ff:ff:ff:ff:00",
    "00:04:76:10:20:30/ff:ff:ff:ff:ff:ff",
    "00:04:76:10:00:00/ff:ff:ff:f0:00:00",
    "08:00:0f:00:00:00/ff:ff:ff:00:00:00",
    "80:00:00:00:00:00/80:00:00:00:00:00",
    "00:00:76:00:00:00/ff:00:ff:00:00:00",    // no prefix
    "00:04:76:01:00:00/ff:ff:ff:00:00:00",    // a bit outside the mask
    "00:00:00:00:00:00/00:00:00:00:00:00",    // covers everything, matches nothing
    "00:04:76:00:00/ff:ff:ff:00:00:00",       // too short
    "00:04:76:00:00:00:00/ff:ff:ff:00:00:00", // too long
    "00:04:76:00:00:00/-",
    "-/-",
};

const std::string macs[] = {
    "00:04:76:10:20:30",
    "00:04:76:10:20:31",
    "00:04:76:10:21:01",
    "00:04:76:11:00:01",
    "00:04:76:99:00:01",
    "08:00:0f:01:02:03",
    "08:00:0f:01:02:04",
    "aa:bb:cc:01:02:03",
    "40:01:02:03:04:05",
    "00:04:76:10:20",
    "\"\"",
    "-",
};

constexpr const char *op_words[] = {"set ", "delete ", "publish "};

std::string text_of(Op op, const char *what, const std::string &key)
{
    return op_words[static_cast<size_t>(op)] + (what + (" " + key));
}

template <typename Act> Event event_of(std::string text, Act act)
{
    return {std::move(text), act, act, true};
}

GlobalValue some_value(Random &random, uint32_t field)
{
    const bool lacks_part = random.chance(20);
    if (field == field_switch) {
        const bool is_on = !random.chance(3);
        return {lacks_part, random.pick(vlans), is_on ? random.pick(enables) : 0};
    }
    if (field == field_qos) {
        return {lacks_part, random.pick(coses), random.pick(dscps)};
    }
    if (field == field_age) {
        return {false, random.pick(ages), 0};
    }
    return {false, random.chance(2) ? 0 : 1 + 4 * random.below(2), 0};
}

// One field as a rule, and sometimes several at a time.
Event global_event(Random &random, Op op)
{
    if (op == Op::remove) {
        return event_of("delete global", [](auto &target) { target.delete_global(); });
    }
    GlobalObject object;
    std::string text = "set global";
    do {
        const uint32_t field = random.pick(global_fields);
        object[field] = some_value(random, field);
    } while (random.chance(10));
    for (const auto &[field, value] : object) {
        text += " field " + std::to_string(field) + (value.lacks_part ? " absent" : "") + " " +
                std::to_string(value.first) + " " + std::to_string(value.second);
    }
    return event_of(text, [object](auto &target) { target.set_global(object); });
}

Event oui_event(Random &random, Op op)
{
    const OuiObject &oui = random.pick(ouis);
    return event_of(text_of(op, "OUI", oui), [op, oui](auto &target) { target.write_oui(op, oui); });
}

Event port_event(Random &random, Op op)
{
    const PortObject port{random.pick(ifxs), random.pick(enables), random.pick(modes)};
    const std::string values = " enable " + std::to_string(port.enable) + " mode " + std::to_string(port.mode);
    return event_of(text_of(op, "port", key_of(port)) + values,
                    [op, port](auto &target) { target.write_port(op, port); });
}

Event port_noti_event(Random &random, Op op)
{
    const uint32_t phyid = random.pick(phyids);
    return event_of(text_of(op, "port notification", std::to_string(phyid)),
                    [op, phyid](auto &target) { target.write_port_noti(op, phyid); });
}

Event mac_event(Random &random, Op op)
{
    const NotiObject noti{random.pick(noti_vlans), random.chance(12) ? 1u : 0u, random.pick(macs),
                          op == Op::remove ? 0 : random.pick(ifxs)};
    return event_of(text_of(op, "MAC", key_of(noti)) + " port " + std::to_string(noti.port),
                    [op, noti](auto &target) { target.write_mac(op, noti); });
}

Event own_event(Random &random, Op op)
{
    const auto type = static_cast<Own>(random.below(own_count));
    const uint32_t key = random.pick(ifxs);
    return event_of(text_of(op, own_words[static_cast<size_t>(type)], std::to_string(key)),
                    [op, type, key](auto &target) { target.write_own(op, type, key); });
}

Event time_event(Random &random, Op)
{
    const uint32_t seconds =
        random.chance(60) ? 90000 : 60 * random.pick(minutes) + (random.chance(8) ? random.below(60) : 0);
    return event_of("pass time " + std::to_string(seconds), [seconds](auto &target) { target.advance(seconds); });
}

// More OUIs than there are ACE ids; to remove is to delete those again.
Event flood_event(Op op)
{
    return event_of(text_of(op, "flood", ""), [op](auto &target) {
        constexpr uint8_t flood_size = 130;
        for (uint8_t n = 0; n < flood_size; n++) {
            target.write_oui(op, to_text(Mac{2, 0, n, 0, 0, 0}) + "/ff:ff:ff:00:00:00");
        }
    });
}

// One of the links that are up or down, if there is one.
Event link_event(Random &random, const Model &model, bool cuts)
{
    std::vector<uint32_t> choices;
    for (const uint32_t db : databases) {
        if (model.is_cut(db) != cuts) {
            choices.push_back(db);
        }
    }
    if (choices.empty()) {
        return time_event(random, Op::set);
    }
    const uint32_t db = random.pick(choices);
    return event_of((cuts ? "cut " : "restore ") + std::to_string(db),
                    [db, cuts](auto &target) { target.set_link(db, !cuts); });
}

struct Row {
    uint32_t weight;
    Event (*make)(Random &random, Op op);
    Op op = Op::set;
};

constexpr Row rows[] = {
    {130, global_event},
    {4, global_event, Op::remove},
    {70, oui_event},
    {50, oui_event, Op::remove},
    {110, port_event},
    {25, port_event, Op::remove},
    {40, port_noti_event},
    {60, port_noti_event, Op::publish},
    {20, port_noti_event, Op::remove},
    {150, mac_event},
    {100, mac_event, Op::remove},
    {5, mac_event, Op::publish},
    {4, own_event},
    {2, own_event, Op::remove},
    {140, time_event},
};

// A step of the walk in so many.
constexpr uint32_t stop_interval = 120;
constexpr uint32_t cut_interval = 65;
constexpr uint32_t flood_interval = 5000;
constexpr uint32_t ebb_interval = 4;

} // namespace

Event EventSource::make(const Model &model)
{
    if (!model.loaded() && random_.chance(4)) {
        return event_of("start", [](auto &target) { target.start(); });
    }
    if (model.loaded() && random_.chance(stop_interval)) {
        return event_of("stop", [](auto &target) { target.stop(); });
    }
    if (model.loaded() && random_.chance(cut_interval)) {
        return link_event(random_, model, true);
    }
    if (model.any_cut() && random_.chance(8)) {
        return link_event(random_, model, false);
    }
    if (random_.chance(flooded_ ? ebb_interval : flood_interval)) {
        flooded_ = !flooded_;
        return flood_event(flooded_ ? Op::set : Op::remove);
    }
    uint32_t sum = 0;
    for (const Row &row : rows) {
        sum += row.weight;
    }
    uint32_t chosen = random_.below(sum);
    const Row *row = rows;
    while (chosen >= row->weight) {
        chosen -= row->weight;
        row++;
    }
    return row->make(random_, row->op);
}

Event EventSource::next(const Model &model)
{
    Event event = make(model);
    // A cut behind a return on the way would let the module start with a
    // database that is gone, and it ends its process then.
    event.settles = event.text.starts_with("restore") || !random_.chance(6);
    if (!event.settles) {
        event.text += " (unsettled)";
    }
    return event;
}

} // namespace vvl::walk
