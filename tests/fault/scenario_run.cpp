// The commands are run as the simulator runs them, but one that fails does not
// end the scenario: with the module in trouble that is to be expected, and the
// configuration has to be written whatever becomes of it. Both the run with a
// fault and the one without go through the same steps and the same time.
#include "tests/fault/scenario_run.h"

#include "platform/mom/local/store_local.h"

#include "tests/fault/calls.h"

namespace vvl::fault
{
namespace
{

// Longer than any capture of the examples and than FP_UDP_RECONCILE_LIMIT_MS.
constexpr uint64_t settling_us = 30'000'000;

// Longer than the default aging time of a port and the bridge's of an address.
constexpr uint64_t silence_us = 26 * 3'600'000'000;

} // namespace

ScenarioRun::ScenarioRun(const sim::Scenario &scenario, const sim::SimOptions &options, std::function<void()> lift)
    : scenario_(scenario), lift_(std::move(lift)), simulation_(scenario, options, mom::make_local_store(), false),
      operator_(simulation_.network_switch().store(), simulation_.network_switch().loop())
{
}

bool ScenarioRun::play(std::string &why)
{
    if (!operator_.connect(why) || !ensure_started(why)) {
        return false;
    }
    for (const sim::ScenarioStep &step : scenario_.steps) {
        if (!step.text.starts_with("expect ")) {
            take_step(step);
        }
        if (!ensure_started(why)) {
            return false;
        }
    }
    simulation_.wait(settling_us);
    return ensure_started(why);
}

void ScenarioRun::take_step(const sim::ScenarioStep &step)
{
    std::string refusal; // what a step cannot do for want of a module shows in the end
    oper::CommandContext context{&operator_, &simulation_, nullptr};
    if (step.text.starts_with("store down ")) {
        drop_refusals();
    }
    step.command.row->run(context, step.command.args, refusal);
    simulation_.wait(0);
    if (step.text == "stop" || step.text == "start") {
        stopped_ = step.text == "stop";
    }
    if (!stopped_ && !simulation_.network_switch().agent().loaded()) {
        lift_(); // the step should have loaded it
    }
}

// The supervisor of the host. The first attempt is part of the scenario, so the
// fault may meet it; the second one has none in its way.
bool ScenarioRun::ensure_started(std::string &why)
{
    if (start(why)) {
        return true;
    }
    lift_();
    return start(why);
}

// Whether the module runs, or is meant not to.
bool ScenarioRun::start(std::string &why)
{
    host::Switch &network_switch = simulation_.network_switch();
    if (stopped_) {
        return true;
    }
    if (!network_switch.agent().loaded()) {
        const bool started = running_ ? network_switch.agent().load(why) : network_switch.start(why);
        running_ = running_ || started;
        simulation_.wait(0);
    }
    if (take_finish_request()) {
        why = "it asks the host to finish";
        network_switch.agent().unload();
    }
    return network_switch.agent().loaded();
}

// A refusal that the scenario has asked for waits for a request that the fault may have
// prevented. A re-initialisation that it meets instead ends the process, as it should.
void ScenarioRun::drop_refusals()
{
    std::string why;
    simulation_.refuse_store_request("all", 0, why);
}

Snapshot ScenarioRun::reinitialise()
{
    std::string why;
    drop_refusals();
    for (const bool up : {false, true}) {
        simulation_.set_store_link("all", up, why);
        simulation_.wait(0);
    }
    return settled();
}

Snapshot ScenarioRun::restart()
{
    std::string why;
    stopped_ = false;
    simulation_.network_switch().agent().unload();
    ensure_started(why);
    return settled();
}

Snapshot ScenarioRun::next_calls()
{
    std::string why;
    uint32_t last_vlan = 1; // that the scenario has named
    for (const sim::ScenarioStep &step : scenario_.steps) {
        if (step.text.starts_with("vlan ")) {
            last_vlan = static_cast<uint32_t>(step.command.args["VLAN"].number);
        }
    }
    operator_.set_vlan(last_vlan, true, why);
    simulation_.wait(silence_us);
    for (const sim::ScenarioStep &step : scenario_.steps) {
        if (step.text.starts_with("play ")) {
            take_step(step);
        }
    }
    return settled();
}

Snapshot ScenarioRun::settled()
{
    simulation_.wait(settling_us);
    return take_snapshot(simulation_.network_switch());
}

} // namespace vvl::fault
