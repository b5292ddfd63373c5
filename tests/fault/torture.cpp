// Plays a scenario once for every call of the module that can fail, with
// that one call failing, and once more with it and all later ones failing.
//
// The scenario itself runs once, in the parent. In front of each call it forks:
// the child goes on from that very point with the fault, and everything before
// it need not be run again. A child is judged by how it ends (a crash, a report
// of a sanitizer, a leak or a timeout shows in its status) and by comparing the
// state that it comes to, the fault lifted, with the one of a run without fault.
#include "platform/base/log.h"
#include "platform/host/services.h"
#include "tests/fault/calls.h"
#include "tests/fault/scenario_run.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace vvl::fault
{
namespace
{

constexpr unsigned time_limit_s = 60; // of one child, on a busy machine
constexpr size_t log_size = 16384;    // bytes of a child's log that are shown

struct Options {
    std::string scenario;
    size_t every = 1;              // every so many points
    size_t only = 0;               // this point alone, with its log; 0: all
    std::FILE *terminal = nullptr; // standard output is the module's and goes nowhere
};

// What a child has to say, in memory that it shares with its parent. The
// differences that it finds are in its log.
struct Report {
    bool concluded; // it came to its end
    bool passed;    // ... in the right state
    bool ends;      // the module has to end the process
    bool stops;     // the module has to refuse to be loaded
    bool lifted;    // the host has started the module again, without the fault
    bool for_life;  // only a restart repairs what failed
    int exit_code;  // with this code: the OR of the failed steps' codes
};

Report *mine = nullptr; // in a child: its report

class Torture
{
  public:
    explicit Torture(const Options &options) : options_(options)
    {
        void *shared = mmap(nullptr, sizeof(Report), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        if (shared == MAP_FAILED || log_ < 0) {
            std::perror("torture: shared memory");
            std::exit(2);
        }
        report_ = static_cast<Report *>(shared);
    }

    // Prints what came of it. False after a failure, or where the scenario cannot be run at all.
    bool run();

  private:
    bool play_with_faults(const sim::Scenario &scenario, const sim::SimOptions &sim_options,
                          const std::vector<Snapshot> &expected);
    bool decide(const Call &call);
    bool enter_child(const std::string &point);
    void judge(const std::string &point, int status);

    const Options &options_;
    Report *report_ = nullptr;                           // of the child
    const int log_ = memfd_create("child", MFD_CLOEXEC); // its standard error
    size_t call_ = 0;                                    // of the scenario
    size_t points_ = 0;
    size_t seen_ = 0; // points, the ones left out included
    size_t failures_ = 0;
    bool until_lifted_ = false;
    bool plane_refuses_ = false;
};

void note_fault(const Call &call)
{
    if (call.answer == Answer::ends_process) {
        mine->ends = true;
        mine->exit_code |= call.code;
    }
    mine->stops = mine->stops || call.answer == Answer::stops_loading;
    mine->for_life = mine->for_life || call.answer == Answer::lasts_for_life || call.answer == Answer::lasts_in_plane;
}

bool Torture::decide(const Call &call)
{
    if (mine != nullptr) {
        // A plane that refuses leaves nothing to compare before the restart, so
        // it goes on refusing only where that is the fault of this child.
        const bool fails = until_lifted_ && (call.answer != Answer::lasts_in_plane || plane_refuses_);
        if (fails) {
            note_fault(call);
        }
        return fails;
    }
    call_++;
    for (const bool until_lifted : {false, true}) {
        seen_++;
        const bool chosen = options_.only != 0 ? call_ == options_.only : seen_ % options_.every == 0;
        const std::string point = options_.scenario + ", call " + std::to_string(call_) + ", " + call.name;
        if (chosen && enter_child(point + (until_lifted ? " and all after it" : ""))) {
            until_lifted_ = until_lifted;
            plane_refuses_ = call.answer == Answer::lasts_in_plane;
            note_fault(call);
            return true;
        }
    }
    return false;
}

// True in the child. The parent waits for its end and judges it.
bool Torture::enter_child(const std::string &point)
{
    points_++;
    *report_ = {};
    std::fflush(nullptr);
    const pid_t pid = ftruncate(log_, 0) == 0 ? fork() : -1;
    if (pid == 0) {
        lseek(log_, 0, SEEK_SET);
        dup2(log_, STDERR_FILENO);
        alarm(time_limit_s);
        mine = report_;
        return true;
    }
    int status = 0;
    if (pid < 0 || waitpid(pid, &status, 0) != pid) {
        std::perror("torture: a child");
        std::exit(2);
    }
    judge(point, status);
    return false;
}

void Torture::judge(const std::string &point, int status)
{
    const int wanted = report_->ends ? report_->exit_code & 0xff : 0;
    const bool ended_well = WIFEXITED(status) && WEXITSTATUS(status) == wanted && report_->concluded != report_->ends;
    const bool passed = ended_well && (report_->ends || report_->passed);
    failures_ += !passed;
    if (!passed) {
        const std::string end =
            WIFSIGNALED(status) ? strsignal(WTERMSIG(status)) : "status " + std::to_string(WEXITSTATUS(status));
        std::fprintf(options_.terminal, "FAILED %s: ended with %s, expected status %d and the right state\n",
                     point.c_str(), end.c_str(), wanted);
    }
    if (!passed || options_.only != 0) {
        std::string log(log_size, '\0');
        log.resize(static_cast<size_t>(std::max<ssize_t>(pread(log_, log.data(), log.size(), 0), 0)));
        std::fputs(log.c_str(), options_.terminal);
    }
    std::fflush(options_.terminal);
}

// Whether the state is the very one of the run without fault. One that differs
// more than the contract allows does not pass.
bool compare(Ending ending, Snapshot expected, Snapshot found)
{
    static constexpr const char *names[] = {"the re-initialisation", "the restart", "the next calls"};
    if (expected == found) {
        return true;
    }
    remove_allowed_differences(ending, expected, found);
    for (const auto &[subject, lines] : differences(expected, found)) {
        mine->passed = false;
        std::fprintf(stderr, "  after %s, %s:\n%s", names[static_cast<size_t>(ending)], subject.c_str(), lines.c_str());
    }
    return false;
}

// In a child whose process is still alive: the endings, until one brings it to
// the very state of the run without fault.
void conclude(ScenarioRun &run, const std::vector<Snapshot> &expected)
{
    mine->passed = !mine->stops || mine->lifted;
    if (!mine->passed) {
        std::fprintf(stderr, "  the module was loaded all the same\n");
    }
    Snapshot reinitialised = run.reinitialise();
    if (!mine->for_life && compare(Ending::reinitialisation, expected[0], std::move(reinitialised))) {
        return;
    }
    if (!compare(Ending::restart, expected[1], run.restart())) {
        compare(Ending::next_calls, expected[2], run.next_calls());
    }
}

bool Torture::run()
{
    oper::Grammar grammar = sim::scenario_grammar();
    sim::Scenario scenario;
    const sim::SimOptions sim_options{options_.scenario, VVLAN_MODULE_FAULT, "", sim::SimColor::never};
    std::string why;
    std::vector<Snapshot> expected; // by Ending
    bool played = sim::read_scenario(options_.scenario, grammar, scenario, why);
    if (played) {
        ScenarioRun fault_free(scenario, sim_options, [] {});
        played = fault_free.play(why);
        if (played) {
            expected = {fault_free.reinitialise(), fault_free.restart(), fault_free.next_calls()};
        }
    }
    if (!played) {
        std::fprintf(options_.terminal, "torture: %s: %s\n", options_.scenario.c_str(), why.c_str());
        return false;
    }

    played = play_with_faults(scenario, sim_options, expected);
    if (mine != nullptr) {
        mine->concluded = true;
        std::exit(0); // leaks are looked for on the way out
    }
    std::fprintf(options_.terminal, "bar torture.points %zu\nbar torture.failures %zu\n", points_, failures_);
    return played && failures_ == 0;
}

// Returns in the parent, and in each child that is still alive.
bool Torture::play_with_faults(const sim::Scenario &scenario, const sim::SimOptions &sim_options,
                               const std::vector<Snapshot> &expected)
{
    std::string why;
    ScenarioRun run(scenario, sim_options, [] {
        set_decider({});
        if (mine != nullptr) {
            mine->lifted = true;
        }
    });
    set_decider([this](const Call &call) { return decide(call); });
    const bool played = run.play(why);
    set_decider({});
    if (mine != nullptr && played) {
        conclude(run, expected);
    } else if (mine != nullptr) {
        std::fprintf(stderr, "  %s\n", why.c_str());
    }
    return played;
}

Options read_options(int argc, char **argv)
{
    Options options;
    for (int i = 1; i < argc; i++) {
        const std::string word = argv[i];
        if ((word == "--every" || word == "--call") && i + 1 < argc) {
            (word == "--every" ? options.every : options.only) = std::strtoul(argv[++i], nullptr, 10);
        } else {
            options.scenario = word;
        }
    }
    if (options.every == 0 || !std::filesystem::exists(options.scenario)) {
        std::fprintf(stderr, "torture: '%s': no such scenario\nusage: torture [--every K | --call N] SCENARIO\n",
                     options.scenario.c_str());
        std::exit(2);
    }
    return options;
}

// The module's listings and the timeline go nowhere. Errors go to standard
// error where that is a child's log: the parent's are those of the scenario.
void redirect_output(Options &options)
{
    options.terminal = fdopen(dup(STDOUT_FILENO), "w");
    if (std::freopen("/dev/null", "w", stdout) == nullptr || options.terminal == nullptr) {
        std::perror("torture: output");
        std::exit(2);
    }
    set_log_sink([](LogLevel level, const std::string &text) {
        if (mine != nullptr && level >= LogLevel::error) {
            std::fprintf(stderr, "%s\n", text.c_str());
        }
    });
    host::set_zlog_sink({[](const host::ZlogLine &line) {
                             if (mine != nullptr && line.level >= TQ_ZLOG_ERROR) {
                                 std::fprintf(stderr, "%s: %s\n", line.category.c_str(), line.text.c_str());
                             }
                         },
                         {}});
}

} // namespace
} // namespace vvl::fault

int main(int argc, char **argv)
{
    vvl::fault::Options options = vvl::fault::read_options(argc, argv);
    vvl::fault::redirect_output(options);
    return vvl::fault::Torture(options).run() ? 0 : 1;
}
