// The scenario parser on any text, with the whole grammar: it refuses and keeps
// nothing, or what it returns are commands in the order of the file.
#include "platform/sim/runner.h"
#include "tests/fuzz/memory_file.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    using namespace vvl::test;
    const std::string path = memory_file({data, size});
    vvl::host::Grammar grammar = vvl::host::scenario_grammar();
    vvl::host::Scenario scenario;
    std::string why;
    if (!vvl::host::read_scenario(path, grammar, scenario, why)) {
        require(why.starts_with(path + ":"), "a fault names the file");
        require(scenario.path.empty() && scenario.steps.empty(), "a fault changes nothing");
        return 0;
    }
    size_t line = 0;
    for (const vvl::host::ScenarioStep &step : scenario.steps) {
        require(step.line > line && step.line <= vvl::host::scenario_line_count_max, "steps are in the file's order");
        require(step.command.row != nullptr && !step.command.row->declaration, "a step is a command to carry out");
        require(!step.text.empty(), "a step can be shown");
        line = step.line;
    }
    require(scenario.ports().size() <= 2 * vvl::host::scenario_port_count_max, "ports are not more than the limit");
    return 0;
}
