// Runs a scenario: a switch on the virtual clock, an operator, an observer,
// and the commands that only a simulation has.
//
// After each command the loop runs until nothing is pending, so the next command
// finds a settled switch. Time passes only while a capture plays or a command
// waits.
#pragma once

#include "platform/base/virtual_loop.h"
#include "platform/fp/soft/plane_soft.h"
#include "platform/host/switch.h"
#include "platform/mom/store.h"
#include "platform/operator/operator.h"
#include "platform/sim/capture.h"
#include "platform/sim/options.h"
#include "platform/sim/scenario.h"
#include "platform/sim/timeline.h"

#include <list>
#include <set>
#include <string>

namespace vvl::sim
{

class Simulation
{
  public:
    // store: the switch's. color: whether the timeline is coloured. scenario and
    // options outlive the simulation.
    Simulation(const Scenario &scenario, const SimOptions &options, std::unique_ptr<mom::Store> store, bool color);
    ~Simulation();
    Simulation(const Simulation &) = delete;
    Simulation &operator=(const Simulation &) = delete;

    // Runs the scenario and prints the tables and counts. On failure why is
    // "FILE:LINE: reason" or, for the start and the end, "FILE: reason".
    bool run(std::string &why);

    // ---- For the commands; why is the reason alone ----

    // Plays the capture into the port, without the frames of its first skip_us.
    // In the background, the call does not wait for the end of the capture.
    bool play(const std::string &file, uint32_t ifx, uint64_t skip_us, bool background, std::string &why);
    void wait(uint64_t delta_us);
    bool start_module(std::string &why);
    bool stop_module(std::string &why);
    // db: a number, or "all".
    bool set_store_link(const std::string &db, bool up, std::string &why);
    bool refuse_store_request(const std::string &db, uint32_t number, std::string &why);
    bool debug(const std::string &name, const std::string &argument, std::string &why);
    void show_tables();

    host::Switch &network_switch() { return switch_; }
    fp::SoftPlane &plane() { return static_cast<fp::SoftPlane &>(switch_.plane()); }
    Observer &observer() { return observer_; }

  private:
    // A capture on its way into a port.
    struct Playback {
        Capture capture;
        size_t next = 0; // index of the frame that enters next
        uint32_t ifx;
        uint32_t phyid;
        uint64_t begin_us; // loop time of the capture's time 0
        uint64_t end_us() const { return begin_us + capture.back().time_us; }
    };

    bool start(std::string &why);
    bool output_is_no_input(std::string &why) const;
    bool run_steps(std::string &why);
    bool finish(std::string &why);
    void play_next(std::list<Playback>::iterator playback);
    void receive(const Playback &playback);
    void print_counts();

    const Scenario &scenario_;
    const SimOptions &options_;
    VirtualLoop loop_;
    Timeline timeline_;
    CaptureWriter writer_;
    host::Switch switch_;
    oper::Operator operator_;
    Observer observer_;
    std::list<Playback> playbacks_;
    std::set<uint32_t> trapped_; // ports that have had their first trapped frame
    std::set<uint32_t> tagged_;  // ... and their first tagged one
};

// The rows that need CommandContext::sim, with their types: the simulator's own,
// and the expectations.
std::span<const oper::CommandRow> sim_commands();
std::span<const oper::ArgumentType> sim_types();
std::span<const oper::CommandRow> expect_commands();
std::span<const oper::ArgumentType> expect_types();

// Everything that a scenario may hold.
oper::Grammar scenario_grammar();

} // namespace vvl::sim
