// The timeline: one line per event with the virtual time, on standard output,
// and the observer that writes a line for each change in the store.
//
// Everything here prints to C's standard output, as the module's dumps do, so
// that the lines stay in order.
#pragma once

#include "platform/base/loop.h"
#include "platform/mom/owned_client.h"

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace vvl::sim
{

enum class LineKind : uint8_t {
    command, // of the scenario
    event,   // something happened in the switch
    alarm,   // something failed there
    note,    // a remark of the simulator
};

// "1d 00:05:00.000000"
std::string time_text(uint64_t time_us);

class Timeline
{
  public:
    Timeline(Loop &loop, bool color) : loop_(loop), color_(color) {}

    void add(LineKind kind, const std::string &text);
    // A line without a time.
    static void print(const std::string &text);

  private:
    Loop &loop_;
    bool color_;
};

struct NamedType;

// A store client that only reads: it follows the agent's state for the
// timeline, and answers the expectations.
class Observer
{
  public:
    // All arguments outlive the observer.
    Observer(mom::Store &store, Loop &loop, Timeline &timeline) : timeline_(timeline), client_(store, loop, "observer")
    {
    }

    bool start(std::string &why);

    bool has_object(const NamedType &type, const std::string &key);
    size_t count_objects(const NamedType &type);
    // The type of the last error event (p_bridge.vvlan_err_type), -1 for none.
    int last_error_event();

  private:
    static int on_change(void *ctx, tq_mom_record_t *record, void *user);

    // A followed type, with its known objects. An object that is written again
    // without a change makes no line.
    struct Follow {
        Observer *observer;
        size_t row;                                 // in the table of timeline.cpp
        std::map<std::string, std::string> objects; // key text -> packed object
    };

    Timeline &timeline_;
    std::vector<Follow> follows_; // not resized after start(): the subscriptions point into it
    mom::OwnedClient client_;     // goes first: its callbacks use the others
};

} // namespace vvl::sim
