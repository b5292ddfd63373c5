// What vvland's "sim" does around a scenario: reads it, limits the logs to what a
// reader of a timeline needs, runs it, and prints how it ended.
#include "platform/sim/sim.h"

#include "platform/base/exit.h"
#include "platform/base/log.h"
#include "platform/host/services.h"
#include "platform/mom/local/store_local.h"
#include "platform/sim/runner.h"

#include <cstdio>
#include <unistd.h>

namespace vvl::sim
{
namespace
{

// Writes errors and warnings to standard error; the timeline has the rest.
// Restores the sinks at the end of the run.
class QuietLogs
{
  public:
    QuietLogs()
    {
        platform_ = set_log_sink([](LogLevel level, const std::string &text) {
            if (level >= LogLevel::warn) {
                std::fprintf(stderr, "%s\n", text.c_str());
            }
        });
        module_ =
            host::set_zlog_sink({[](const host::ZlogLine &line) {
                                     if (line.level >= TQ_ZLOG_WARN) {
                                         std::fprintf(stderr, "%s: %s\n", line.category.c_str(), line.text.c_str());
                                     }
                                 },
                                 {}});
    }
    ~QuietLogs()
    {
        set_log_sink(std::move(platform_));
        host::set_zlog_sink(std::move(module_));
    }
    QuietLogs(const QuietLogs &) = delete;
    QuietLogs &operator=(const QuietLogs &) = delete;

  private:
    LogSink platform_;
    host::ZlogSink module_;
};

bool use_color(SimColor color)
{
    return color == SimColor::always || (color == SimColor::automatic && isatty(STDOUT_FILENO) != 0);
}

} // namespace

int run_sim(const SimOptions &options)
{
    oper::Grammar grammar = scenario_grammar();
    Scenario scenario;
    std::string why;
    int status = exit_good;
    std::unique_ptr<mom::Store> store = options.make_store ? options.make_store(why) : mom::make_local_store();
    if (store == nullptr || !read_scenario(options.scenario, grammar, scenario, why)) {
        status = exit_refused;
    } else {
        const QuietLogs quiet;
        Simulation simulation(scenario, options, std::move(store), use_color(options.color));
        status = simulation.run(why) ? exit_good : exit_failed;
    }
    std::fflush(stdout);
    if (status != exit_good) {
        std::fprintf(stderr, "%s\n", why.c_str());
    }
    return status;
}

void print_sim_commands()
{
    std::fputs(oper::command_help(scenario_grammar()).c_str(), stdout);
}

} // namespace vvl::sim
