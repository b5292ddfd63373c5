// vvland's command line. Each subcommand is one call; what it prints and
// returns is its own.
#include "platform/host/agent.h"
#include "platform/host/run.h"
#include "platform/host/sim/sim.h"

#include <CLI/CLI.hpp>

#include <map>
#include <string>

using namespace vvl::host;

namespace
{

void add_run(CLI::App &app, int &code)
{
    auto file = std::make_shared<std::string>();
    CLI::App *run = app.add_subcommand("run", "Run a switch until SIGTERM or SIGINT");
    run->add_option("--config", *file, "Configuration file")->required();
    run->callback([file, &code] { code = run_daemon(*file); });
}

void add_check_config(CLI::App &app, int &code)
{
    auto file = std::make_shared<std::string>();
    CLI::App *check = app.add_subcommand("check-config", "Check a configuration file and the start-up file it names");
    check->add_option("FILE", *file, "Configuration file")->required();
    check->callback([file, &code] { code = check_config(*file); });
}

void add_sim(CLI::App &app, int &code)
{
    static const std::map<std::string, SimColor> colors = {
        {"auto", SimColor::automatic}, {"always", SimColor::always}, {"never", SimColor::never}};
    auto color = std::make_shared<std::string>("auto");
    auto options = std::make_shared<SimOptions>();
    auto help_commands = std::make_shared<bool>(false);
    options->module = default_module_path();

    CLI::App *sim = app.add_subcommand("sim", "Play a scenario against a switch on a virtual clock");
    sim->add_option("FILE", options->scenario, "Scenario file");
    sim->add_option("--out", options->capture_out, "Write the frames that leave to this capture");
    sim->add_option("--module", options->module, "Module to load")->capture_default_str();
    sim->add_option("--color", *color, "Colour the output; auto: on a terminal")
        ->check(CLI::IsMember({"auto", "always", "never"}))
        ->capture_default_str();
    sim->add_flag("--help-commands", *help_commands, "List the commands of a scenario");
    sim->callback([options, color, help_commands, &code] {
        if (*help_commands) {
            print_sim_commands();
        } else if (options->scenario.empty()) {
            throw CLI::RequiredError("FILE");
        } else {
            options->color = colors.at(*color);
            code = run_sim(*options);
        }
    });
}

} // namespace

int main(int argc, char **argv)
{
    CLI::App app("Voice VLAN agent for Ethernet switches", "vvland");
    app.set_version_flag("--version", "vvland " VVLAND_VERSION);
    app.require_subcommand(1);
    int code = exit_good;
    add_run(app, code);
    add_check_config(app, code);
    add_sim(app, code);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError &error) {
        return app.exit(error) == 0 ? exit_good : exit_refused;
    }
    return code;
}
