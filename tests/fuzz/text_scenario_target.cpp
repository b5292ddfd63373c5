// The scenario parser on any text, with the whole grammar: it refuses and keeps
// nothing, or what it returns are commands in the order of the file.
#include "platform/operator/script.h"
#include "platform/sim/runner.h"
#include "tests/fuzz/byte_reader.h"

#include <sys/mman.h>
#include <unistd.h>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    using namespace vvl::test;
    static const int file = memfd_create("fuzz", MFD_CLOEXEC); // the parser takes a path
    require(ftruncate(file, 0) == 0 && pwrite(file, data, size, 0) == static_cast<ssize_t>(size),
            "the file is written");
    const std::string path = "/proc/self/fd/" + std::to_string(file);
    vvl::oper::Grammar grammar = vvl::sim::scenario_grammar();
    vvl::sim::Scenario scenario;
    std::string why;
    if (!vvl::sim::read_scenario(path, grammar, scenario, why)) {
        require(why.starts_with(path + ":"), "a fault names the file");
        require(scenario.path.empty() && scenario.steps.empty(), "a fault changes nothing");
        return 0;
    }
    size_t line = 0;
    for (const vvl::sim::ScenarioStep &step : scenario.steps) {
        require(step.line > line && step.line <= vvl::oper::file_line_count_max, "steps are in the file's order");
        require(step.command.row != nullptr && !step.command.row->declaration, "a step is a command to carry out");
        require(!step.text.empty(), "a step can be shown");
        line = step.line;
    }
    require(scenario.ports().size() <= 2 * vvl::sim::scenario_port_count_max, "ports are not more than the limit");
    return 0;
}
