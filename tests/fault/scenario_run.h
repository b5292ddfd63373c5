// One run of a scenario, step by step, and the three endings after which its
// outcome is looked at. Expectations are left out: with a fault in the way
// they may fail, and what counts is the state at the end.
//
// The host's part of a fault is played here: a module that cannot be loaded, or
// that asks the host to finish, is started again, and the fault is over then.
#pragma once

#include "platform/sim/runner.h"
#include "platform/sim/scenario.h"
#include "tests/fault/snapshot.h"

#include <functional>
#include <string>

namespace vvl::fault
{

class ScenarioRun
{
  public:
    // scenario and options outlive the run. lift ends the fault; it may be empty.
    ScenarioRun(const sim::Scenario &scenario, const sim::SimOptions &options, std::function<void()> lift);

    // Starts the switch and takes every step. False where the switch or the
    // module cannot be started although there is no fault any more.
    bool play(std::string &why);

    // All databases are lost and come back with changes missed.
    Snapshot reinitialise();
    // The module is unloaded and loaded again.
    Snapshot restart();
    // The voice VLAN is on, where the scenario has switched it off, too. The
    // devices are silent for more than a day, then every capture of the scenario
    // is played once more.
    Snapshot next_calls();

  private:
    bool ensure_started(std::string &why);
    bool start(std::string &why);
    void take_step(const sim::ScenarioStep &step);
    void drop_refusals();
    Snapshot settled();

    const sim::Scenario &scenario_;
    std::function<void()> lift_;
    sim::Simulation simulation_;
    oper::Operator operator_;
    bool running_ = false; // the switch has been started
    bool stopped_ = false; // the scenario has unloaded the module
};

} // namespace vvl::fault
