// Drills of the plane in the kernel under the highest load that one core can
// send. The agent is killed and started again (restart), or its configuration
// is changed (reconfigure). Every frame that leaves the switch is judged.
//
//   drill restart [POINTS]      default 200
//   drill reconfigure [CHANGES] default 60
//
// Exits with 1 if a frame was treated in a way that was never configured, and
// with 77 if the drill cannot run on this machine.
#include "tests/live/agent.h"
#include "tests/live/network.h"
#include "tests/support/own_network.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <set>
#include <stdexcept>
#include <thread>

namespace vvl::live
{
namespace
{

constexpr unsigned port_count = 8;
constexpr int exit_skipped = 77;
const auto window = std::chrono::milliseconds(20) * patience();
const auto steady_limit = std::chrono::seconds(10) * patience();

enum : uint8_t { telephone = 1, other_telephone, computer, tagging_computer };

constexpr Treatment voice = {100, 6, 46};
constexpr Treatment plain = {};

const std::vector<std::string> configuration = {"vlan 100 on", "oui add 00:04:76:00:00:00/24", "qos cos 6 dscp 46"};
constexpr const char *other_vendor = "00:0d:87:00:00:00/24";

std::vector<Sender> all_senders()
{
    std::vector<Sender> senders;
    for (unsigned port = 1; port <= port_count; port++) {
        senders.push_back({telephone, 0x000476, port});
    }
    senders.push_back({other_telephone, 0x000d87, 1});
    senders.push_back({computer, 0x020000, 1});
    senders.push_back({tagging_computer, 0x020001, 1, 100});
    return senders;
}

using Allowed = std::map<uint8_t, std::set<Treatment>>; // by sender
using Steady = std::map<uint8_t, Treatment>;            // by sender; without those whose frames are all dropped

class Drill
{
  public:
    Drill();

    // Counts the frames since the last call. Prints those with a treatment that
    // is not allowed, and counts them as wrong.
    void judge(const char *phase, const Allowed &allowed);

    // Waits until all frames of each sender have left alike in two windows in a
    // row, and is_wanted says yes. Throws std::runtime_error after 10 s.
    Steady wait_until_steady(const std::function<bool(const Steady &)> &is_wanted);
    void wait_until_treated(uint8_t sender, const Treatment &treatment);

    // Ends the traffic. Returns how many frames did not come out, or found no
    // room in the counts.
    uint64_t lost();

    Agent agent{port_count};
    uint64_t frames = 0;
    uint64_t wrong = 0;

  private:
    Counts taken_since(Counts &last) const;

    Network network_{port_count};
    std::unique_ptr<Traffic> traffic_;
    Counts judged_;
};

Drill::Drill()
{
    std::vector<std::string> lines = configuration;
    for (unsigned port = 1; port <= port_count; port++) {
        lines.push_back("port " + std::to_string(port) + " auto");
    }
    agent.configure(lines);
    agent.start();
    agent.wait_until_reconciled(); // before the traffic: adding a clsact queue discipline loses frames
    traffic_ = std::make_unique<Traffic>(all_senders());
    wait_until_treated(telephone, voice);
    judged_ = network_.counts();
}

Counts Drill::taken_since(Counts &last) const
{
    Counts now = network_.counts();
    Counts taken;
    for (const auto &[what, count] : now) {
        if (const uint64_t grown = count - last[what]; grown > 0) {
            taken[what] = grown;
        }
    }
    last = std::move(now);
    return taken;
}

void Drill::judge(const char *phase, const Allowed &allowed)
{
    for (const auto &[what, count] : taken_since(judged_)) {
        const auto &[sender, treatment] = what;
        frames += count;
        if (!allowed.contains(sender) || !allowed.at(sender).contains(treatment)) {
            wrong += count;
            std::printf("%s: %llu frames of sender %u left %s\n", phase, static_cast<unsigned long long>(count), sender,
                        to_text(treatment).c_str());
        }
    }
}

uint64_t Drill::lost()
{
    const uint64_t sent = traffic_->stop();
    std::this_thread::sleep_for(window);
    uint64_t arrived = 0;
    for (const auto &[what, count] : network_.counts()) {
        arrived += count;
    }
    return sent - arrived;
}

Steady Drill::wait_until_steady(const std::function<bool(const Steady &)> &is_wanted)
{
    const auto end = std::chrono::steady_clock::now() + steady_limit;
    Counts last = network_.counts();
    Steady before;
    std::string seen;
    while (std::chrono::steady_clock::now() < end) {
        std::this_thread::sleep_for(window);
        traffic_->wait_for_rounds(); // on a busy machine the window may pass without a frame
        Steady steady;
        bool is_mixed = false;
        seen.clear();
        for (const auto &[what, count] : taken_since(last)) {
            is_mixed |= !steady.emplace(what.first, what.second).second;
            seen += "\n  sender " + std::to_string(what.first) + ": " + to_text(what.second);
        }
        if (!is_mixed && steady == before && is_wanted(steady)) {
            return steady;
        }
        before = is_mixed ? Steady{} : steady;
    }
    throw std::runtime_error("the frames do not leave as configured; they leave as" + seen);
}

void Drill::wait_until_treated(uint8_t sender, const Treatment &treatment)
{
    wait_until_steady([&](const Steady &steady) { return steady.contains(sender) && steady.at(sender) == treatment; });
}

// ---- The restart drill ----------------------------------------------------

struct Moment {
    const char *name;
    // Leads up to the kill; point: 0 to 1, how far into it.
    void (*lead_up)(Drill &drill, double point);
    void (*settle)(Drill &drill); // after the next agent has taken over
    Allowed allowed;              // meanwhile
};

void pause_ms(double ms)
{
    std::this_thread::sleep_for(std::chrono::duration<double, std::milli>(ms));
}

bool other_is_voice = false; // the other vendor's devices are configured

void begin_change(Drill &drill, const std::string &line, double point)
{
    drill.agent.begin_to_configure(line);
    pause_ms(point * 40);
}

void change_other_vendor(Drill &drill, double point)
{
    other_is_voice = !other_is_voice;
    begin_change(drill, std::string("oui ") + (other_is_voice ? "add " : "del ") + other_vendor, point);
}

void settle_other_vendor(Drill &drill)
{
    drill.wait_until_treated(other_telephone, other_is_voice ? voice : plain);
}

void settle_all(Drill &drill)
{
    drill.wait_until_treated(telephone, voice);
    settle_other_vendor(drill);
}

Allowed allowed_with(std::set<Treatment> telephones)
{
    // The other vendor's OUI is added and deleted, so both are right for its device.
    return {{telephone, std::move(telephones)},
            {other_telephone, {plain, voice}},
            {computer, {plain}},
            {tagging_computer, {{100, 0, 0}, voice}}}; // marked where its port has joined
}

const Moment moments[] = {
    {"idle", [](Drill &, double point) { pause_ms(10 + 20 * point); }, [](Drill &) {}, allowed_with({voice})},
    {"start-up",
     [](Drill &drill, double point) {
         drill.agent.kill();
         drill.agent.start();
         pause_ms(point * 60);
     },
     [](Drill &) {}, allowed_with({voice})},
    {"oui change", change_other_vendor, settle_other_vendor, allowed_with({voice})},
    {"switch-off", [](Drill &drill, double point) { begin_change(drill, "vlan 100 off", point); },
     [](Drill &drill) {
         drill.wait_until_treated(telephone, plain);
         drill.agent.configure({"vlan 100 on"});
         settle_all(drill);
     },
     allowed_with({plain, voice})},
    {"join storm",
     [](Drill &drill, double point) {
         drill.agent.configure({"vlan 100 off"});
         drill.wait_until_treated(telephone, plain);
         begin_change(drill, "vlan 100 on", point);
     },
     settle_all, allowed_with({plain, voice})},
};

void print_bar(const char *name, uint64_t value)
{
    std::printf("bar %s %llu\n", name, static_cast<unsigned long long>(value));
}

double percentile(std::vector<double> values, double share)
{
    std::ranges::sort(values);
    return values.empty() ? 0 : values[static_cast<size_t>(share * static_cast<double>(values.size() - 1))];
}

void drill_restart(Drill &drill, unsigned points)
{
    std::vector<double> reconverged_ms;
    for (unsigned i = 0; i < points; i++) {
        const Moment &moment = moments[i % std::size(moments)];
        moment.lead_up(drill, static_cast<double>(i) / points);
        drill.agent.kill();
        drill.agent.start();
        reconverged_ms.push_back(drill.agent.wait_until_reconciled());
        moment.settle(drill);
        drill.judge(moment.name, moment.allowed);
    }
    std::printf("%u kills; the next agent had taken over after %.0f ms (median), %.0f ms (longest)\n", points,
                percentile(reconverged_ms, 0.5), percentile(reconverged_ms, 1));
    print_bar("restart.frames", drill.frames);
    print_bar("restart.misforwarded", drill.wrong);
    std::printf("bar restart.reconverge_p99_ms %.1f\n", percentile(reconverged_ms, 0.99));
    print_bar("restart.lost", drill.lost()); // not for the other drill: security mode drops frames
}

// ---- The reconfiguration drill ---------------------------------------------

// Each change and the one that takes it back. The VLAN is not changed: ports
// leave the old one, and join the new one only with their next frame.
constexpr std::pair<const char *, const char *> changes[] = {
    {"qos cos 5 dscp 40", "qos cos 6 dscp 46"},
    {"oui add 00:0d:87:00:00:00/24", "oui del 00:0d:87:00:00:00/24"},
    {"security on", "security off"},
    {"oui del 00:04:76:00:00:00/24", "oui add 00:04:76:00:00:00/24"},
};

// Waits for a sender whose frames leave in another way than before: a change
// without effect would prove nothing.
void carry_out(Drill &drill, const char *line, Steady &steady)
{
    drill.agent.begin_to_configure(line);
    const Steady after = drill.wait_until_steady([&](const Steady &now) { return now != steady; });
    Allowed allowed;
    for (const Steady &state : {steady, after}) {
        for (const auto &[sender, treatment] : state) {
            allowed[sender].insert(treatment);
        }
    }
    drill.judge(line, allowed);
    steady = after;
}

void drill_reconfigure(Drill &drill, unsigned count)
{
    Steady steady = drill.wait_until_steady([](const Steady &) { return true; });
    drill.judge("before", allowed_with({voice}));
    for (unsigned i = 0; i < count; i += 2) {
        const auto &[change, back] = changes[i / 2 % std::size(changes)];
        carry_out(drill, change, steady);
        carry_out(drill, back, steady);
    }
    std::printf("%u changes under load\n", count);
    print_bar("reconfigure.frames", drill.frames);
    print_bar("reconfigure.mixed", drill.wrong);
}

} // namespace
} // namespace vvl::live

int main(int argc, char **argv)
{
    const std::string which = argc > 1 ? argv[1] : "";
    const bool is_restart = which == "restart";
    const int count = argc > 2 ? std::atoi(argv[2]) : is_restart ? 200 : 60;
    if ((!is_restart && which != "reconfigure") || count <= 0) {
        std::fprintf(stderr, "usage: drill restart|reconfigure [COUNT]\n");
        return 2;
    }
    if (const std::string why = vvl::test::enter_own_network(); !why.empty()) {
        std::printf("drill: skipped: %s\n", why.c_str());
        return vvl::live::exit_skipped;
    }
    try {
        vvl::live::Drill drill;
        (is_restart ? vvl::live::drill_restart : vvl::live::drill_reconfigure)(drill, static_cast<unsigned>(count));
        return drill.wrong == 0 && drill.frames > 0 ? 0 : 1;
    } catch (const std::exception &error) {
        std::fprintf(stderr, "drill: %s\n", error.what());
        return 1;
    }
}
