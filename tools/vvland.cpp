// vvland's command line. Each subcommand is one call, which prints and returns
// what its header says.
#include "platform/base/exit.h"
#include "platform/host/agent.h"
#include "platform/host/plane_commands.h"
#include "platform/host/run.h"
#include "platform/mom/redis/store_redis.h"
#include "platform/sim/sim.h"

#include <CLI/CLI.hpp>

#include <map>
#include <memory>
#include <string>

using namespace vvl;
using namespace vvl::host;

namespace
{

void add_store_options(CLI::App &command, std::string &store, std::string &prefix, std::string &credentials)
{
    command.add_option("--store", store, "Object store: local, redis://HOST:PORT, unix:PATH or sentinel://...");
    command.add_option("--prefix", prefix, "Prefix of the switch's keys");
    command.add_option("--credentials", credentials, "File with PASSWORD or USER PASSWORD");
}

void add_run_options(CLI::App &command, RunOptions &options)
{
    command.add_option("--config", options.config_file, "Configuration file")->required();
    add_store_options(command, options.store, options.prefix, options.credentials);
    command.add_option("--fp", options.fp, "Forwarding plane: in this process, or in the kernel")
        ->check(CLI::IsMember({"soft", "ebpf"}));
    command.add_option("--pin-folder", options.pin_folder, "Folder on a BPF file system, of the ebpf plane");
}

void add_run(CLI::App &app, int &code)
{
    auto options = std::make_shared<RunOptions>();
    CLI::App *run = app.add_subcommand("run", "Run a switch until SIGTERM or SIGINT");
    add_run_options(*run, *options);
    run->add_option("--role", options->role, "Part of the switch that runs in this process")
        ->check(CLI::IsMember({"all", "agent", "sides"}));
    run->callback([options, &code] { code = run_daemon(*options); });

    auto sides = std::make_shared<RunOptions>();
    CLI::App *sides_run = app.add_subcommand("sides", "Run packet and bridge side: run --role sides");
    add_run_options(*sides_run, *sides);
    sides->role = "sides";
    sides_run->callback([sides, &code] { code = run_daemon(*sides); });
}

void add_check_config(CLI::App &app, int &code)
{
    auto file = std::make_shared<std::string>();
    CLI::App *check = app.add_subcommand("check-config", "Check a configuration file and the start-up file it names");
    check->add_option("FILE", *file, "Configuration file")->required();
    check->callback([file, &code] { code = check_config(*file); });
}

void add_plane_command(CLI::App &app, int &code, const char *name, const char *help,
                       int (*command)(const PlaneCommandOptions &))
{
    auto options = std::make_shared<PlaneCommandOptions>();
    CLI::App *sub = app.add_subcommand(name, help);
    sub->add_option("--config", options->config_file, "Configuration file that names the pin folder");
    sub->add_option("--pin-folder", options->pin_folder, "Folder on a BPF file system");
    sub->callback([options, command, &code] { code = command(*options); });
}

void add_sim(CLI::App &app, int &code)
{
    static const std::map<std::string, sim::SimColor> colors = {
        {"auto", sim::SimColor::automatic}, {"always", sim::SimColor::always}, {"never", sim::SimColor::never}};
    auto color = std::make_shared<std::string>("auto");
    auto options = std::make_shared<sim::SimOptions>();
    auto help_commands = std::make_shared<bool>(false);
    auto redis = std::make_shared<mom::RedisOptions>();
    options->module = default_module_path();

    CLI::App *command = app.add_subcommand("sim", "Play a scenario against a switch on a virtual clock");
    command->add_option("FILE", options->scenario, "Scenario file");
    command->add_option("--out", options->capture_out, "Write the frames that leave to this capture");
    command->add_option("--module", options->module, "Module to load")->capture_default_str();
    command->add_option("--color", *color, "Colour the output; auto: on a terminal")
        ->check(CLI::IsMember({"auto", "always", "never"}))
        ->capture_default_str();
    add_store_options(*command, redis->address, redis->prefix, redis->credentials);
    command->add_flag("--help-commands", *help_commands, "List the commands of a scenario");
    command->callback([options, color, help_commands, redis, &code] {
        if (*help_commands) {
            sim::print_sim_commands();
        } else if (options->scenario.empty()) {
            throw CLI::RequiredError("FILE");
        } else {
            options->color = colors.at(*color);
            if (!redis->address.empty() && redis->address != "local") {
                options->make_store = [redis](std::string &why) { return mom::make_redis_store(*redis, why); };
            }
            code = sim::run_sim(*options);
        }
    });
}

} // namespace

int main(int argc, char **argv)
{
    hold_standard_descriptors();
    CLI::App app("Voice VLAN agent for Ethernet switches", "vvland");
    app.set_version_flag("--version", "vvland " VVLAND_VERSION);
    app.require_subcommand(1);
    int code = exit_good;
    add_run(app, code);
    add_check_config(app, code);
    add_plane_command(app, code, "check", "Show whether this machine has what --fp ebpf needs", check_plane);
    add_plane_command(app, code, "detach", "Remove the ebpf plane from the interfaces", detach_plane);
    add_plane_command(app, code, "counters", "Print the counters of the ebpf plane, per port and per ACE",
                      show_counters);
    add_sim(app, code);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError &error) {
        code = app.exit(error) == 0 ? exit_good : exit_refused;
    }
    return end_output("vvland", code);
}
