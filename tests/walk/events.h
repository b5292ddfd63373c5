// The events of a walk: what can happen to a switch, how often, and how an
// event is carried out on the model and on the watched system alike.
#pragma once

#include "platform/host/port_id.h"
#include "tests/walk/model.h"
#include "tests/walk/objects.h"
#include "tests/walk/observed.h"

#include <cstdint>
#include <string>
#include <vector>

namespace vvl::walk
{

enum class Kind : uint8_t {
    set_switch,
    set_security,
    set_age,
    set_qos,
    set_global,
    delete_global,
    set_oui,
    delete_oui,
    set_port,
    delete_port,
    set_port_noti,
    publish_port_noti,
    delete_port_noti,
    set_mac,
    delete_mac,
    publish_mac,
    set_own,
    delete_own,
    pass_time,
    stop,
    start,
    cut,
    restore,
    flood, // more OUIs than there are ACE ids
    ebb,   // those of a flood are deleted again
};

// Members that the kind does not need keep their defaults.
struct Event {
    Kind kind = Kind::pass_time;
    GlobalObject global;
    OuiObject oui;
    PortObject port;
    NotiObject noti;
    Own own = Own::join;
    uint32_t number = 0;  // phyid, key, database, seconds or count, as the kind has it
    bool settles = false; // all deliveries are made, and the states are compared
};

std::string to_text(const Event &event);

// The ports that have a physical id. There are others in the events.
std::vector<host::PortId> known_ports();

// A source of events that repeats itself for the same seed.
class EventSource
{
  public:
    explicit EventSource(uint64_t seed) : state_(seed) {}

    // The next event that can happen in the model's present state.
    Event next(const Model &model);

  private:
    uint64_t random();
    uint32_t below(uint32_t limit) { return static_cast<uint32_t>(random() >> 33) % limit; }
    bool chance(uint32_t in) { return below(in) == 0; }
    template <typename T, size_t size> const T &pick(const T (&choices)[size])
    {
        return choices[below(static_cast<uint32_t>(size))];
    }
    Kind pick_kind(const Model &model);
    void choose_link(Event &event, const Model &model);
    void fill(Event &event);
    void fill_field(Event &event);
    void fill_objects(Event &event);
    GlobalObject::Switch some_switch();

    uint64_t state_;
    int cut_count_ = 0; // links
    bool flooded_ = false;
};

// Carries an event out. False where it failed, which has been said.
bool apply(const Event &event, Model &model);
bool apply(const Event &event, Observed &observed);

} // namespace vvl::walk
