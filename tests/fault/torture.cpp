// Plays each scenario once for every call of the module that can fail, with
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
#include "tests/fault/rules.h"
#include "tests/fault/scenario_run.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <optional>
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
constexpr size_t child_count_max = 2; // at a time
constexpr size_t report_size = 8192;  // bytes of a child's report
constexpr size_t progress_step = 500; // points

struct Options {
    std::vector<std::string> scenarios;
    size_t every = 1;              // every so many points
    size_t only = 0;               // this point alone, with its log; 0: all
    std::FILE *terminal = nullptr; // standard output is the module's and goes nowhere
};

// What a child has to say, in memory that it shares with its parent.
struct Report {
    bool concluded; // it came to its end
    bool passed;    // ... in the right state
    bool ends;      // the module has to end the process
    bool stops;     // the module has to refuse to be loaded
    bool lifted;    // the host has started the module anew, without the fault
    bool for_life;  // only a restart repairs what failed
    int exit_code;  // with this code: the OR of the failed steps' codes
    char text[report_size];
};

struct Child {
    pid_t pid = 0; // 0: free
    std::string point;
    Report *report = nullptr;
    int log = -1; // its standard error
};

void append(Report &report, const std::string &text)
{
    const size_t used = std::strlen(report.text);
    std::snprintf(report.text + used, sizeof report.text - used, "%s", text.c_str());
}

// The states of a run without fault, by Ending.
std::optional<std::vector<Snapshot>> fault_free(const host::Scenario &scenario, const host::SimOptions &options,
                                                std::string &why)
{
    ScenarioRun run(scenario, options, [] {});
    if (!run.play(why)) {
        return std::nullopt;
    }
    std::vector<Snapshot> states;
    states.push_back(run.reinitialise());
    states.push_back(run.restart());
    states.push_back(run.next_calls());
    return states;
}

class Torture
{
  public:
    explicit Torture(const Options &options) : options_(options)
    {
        for (Child &child : children_) {
            void *shared = mmap(nullptr, sizeof(Report), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
            if (shared == MAP_FAILED) {
                std::perror("torture: shared memory");
                std::exit(2);
            }
            child.report = static_cast<Report *>(shared);
            child.log = memfd_create("child", MFD_CLOEXEC);
        }
    }

    // False where the scenario cannot be run at all.
    bool run(const std::string &path);

    size_t points() const { return points_; }
    size_t failures() const { return failures_; }

  private:
    bool play_with_faults(const host::Scenario &scenario, const host::SimOptions &sim_options,
                          const std::vector<Snapshot> &expected);
    bool decide(const Call &call);
    bool fork_child(const Call &call, bool until_lifted);
    void note_fault(const Call &call);
    void lift();
    Child &free_child();
    void wait_for_one();
    void judge(Child &child, int status);
    void conclude(ScenarioRun &run, const std::vector<Snapshot> &expected);
    bool compare(Ending ending, Snapshot expected, Snapshot found);

    const Options &options_;
    std::string scenario_;
    Child children_[child_count_max];
    size_t call_ = 0; // of the scenario
    size_t points_ = 0;
    size_t seen_ = 0; // points, the ones left out included
    size_t failures_ = 0;
    Report *mine_ = nullptr; // in a child: its report
    bool until_lifted_ = false;
    bool plane_refuses_ = false;
};

bool Torture::decide(const Call &call)
{
    if (mine_ != nullptr) {
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
        if (chosen && fork_child(call, until_lifted)) {
            plane_refuses_ = call.answer == Answer::lasts_in_plane;
            note_fault(call);
            return true;
        }
    }
    return false;
}

// True in the child.
bool Torture::fork_child(const Call &call, bool until_lifted)
{
    Child &child = free_child();
    child.point =
        scenario_ + ", call " + std::to_string(call_) + ", " + call.name + (until_lifted ? " and all after it" : "");
    *child.report = {};
    if (ftruncate(child.log, 0) != 0) {
        std::perror("torture: a child's log");
    }
    points_++;
    std::fflush(nullptr);
    child.pid = fork();
    if (child.pid < 0) {
        std::perror("torture: fork");
        std::exit(2);
    }
    if (child.pid == 0) {
        lseek(child.log, 0, SEEK_SET);
        dup2(child.log, STDERR_FILENO);
        alarm(time_limit_s);
        mine_ = child.report;
        until_lifted_ = until_lifted;
        return true;
    }
    if (points_ % progress_step == 0) {
        std::fprintf(options_.terminal, "torture: %zu points, %zu failures, in %s\n", points_, failures_,
                     scenario_.c_str());
        std::fflush(options_.terminal);
    }
    return false;
}

void Torture::note_fault(const Call &call)
{
    if (call.answer == Answer::ends_process) {
        mine_->ends = true;
        mine_->exit_code |= call.code;
    }
    mine_->stops = mine_->stops || call.answer == Answer::stops_loading;
    mine_->for_life = mine_->for_life || call.answer == Answer::lasts_for_life || call.answer == Answer::lasts_in_plane;
}

void Torture::lift()
{
    set_decider({});
    if (mine_ != nullptr) {
        mine_->lifted = true;
    }
}

Child &Torture::free_child()
{
    for (;;) {
        for (Child &child : children_) {
            if (child.pid == 0) {
                return child;
            }
        }
        wait_for_one();
    }
}

void Torture::wait_for_one()
{
    int status = 0;
    const pid_t pid = wait(&status);
    for (Child &child : children_) {
        if (child.pid == pid) {
            judge(child, status);
            child.pid = 0;
        }
    }
}

std::string log_text(int log)
{
    std::string text(report_size, '\0');
    const ssize_t size = pread(log, text.data(), text.size(), 0);
    text.resize(static_cast<size_t>(std::max<ssize_t>(size, 0)));
    return text;
}

std::string end_text(int status)
{
    if (WIFSIGNALED(status)) {
        return WTERMSIG(status) == SIGALRM ? "did not end in time"
                                           : "killed by signal " + std::to_string(WTERMSIG(status));
    }
    return "ended with status " + std::to_string(WEXITSTATUS(status));
}

void Torture::judge(Child &child, int status)
{
    const Report &report = *child.report;
    const int wanted = report.ends ? report.exit_code & 0xff : 0;
    const bool ended_well = WIFEXITED(status) && WEXITSTATUS(status) == wanted && report.concluded != report.ends;
    const bool passed = ended_well && (report.ends || report.passed);
    if (!passed) {
        failures_++;
        std::fprintf(options_.terminal, "FAILED %s: %s%s\n%s", child.point.c_str(),
                     ended_well ? "another state" : end_text(status).c_str(),
                     ended_well ? "" : (", expected " + std::to_string(wanted)).c_str(), report.text);
    }
    if (!ended_well || options_.only != 0) {
        std::fputs(log_text(child.log).c_str(), options_.terminal);
    }
    std::fflush(options_.terminal);
}

// Whether the state is the very one of the run without fault. One that differs
// more than the contract allows does not pass.
bool Torture::compare(Ending ending, Snapshot expected, Snapshot found)
{
    static constexpr const char *names[] = {"the re-initialisation", "the restart", "the next calls"};
    if (expected == found) {
        return true;
    }
    remove_allowed_differences(ending, expected, found);
    for (const auto &[subject, lines] : differences(expected, found)) {
        mine_->passed = false;
        append(*mine_, std::string("  after ") + names[static_cast<size_t>(ending)] + ", " + subject + ":\n");
        append(*mine_, lines);
    }
    return false;
}

// In a child whose process is still alive: the endings, until one brings it to
// the very state of the run without fault.
void Torture::conclude(ScenarioRun &run, const std::vector<Snapshot> &expected)
{
    mine_->passed = !mine_->stops || mine_->lifted;
    if (!mine_->passed) {
        append(*mine_, "  the module was loaded all the same\n");
    }
    Snapshot reinitialised = run.reinitialise();
    if (!mine_->for_life && compare(Ending::reinitialisation, expected[0], std::move(reinitialised))) {
        return;
    }
    if (!compare(Ending::restart, expected[1], run.restart())) {
        compare(Ending::next_calls, expected[2], run.next_calls());
    }
}

bool Torture::run(const std::string &path)
{
    host::Grammar grammar = host::scenario_grammar();
    host::Scenario scenario;
    const host::SimOptions sim_options{path, VVLAN_MODULE_FAULT, "", host::SimColor::never};
    std::string why;
    if (!host::read_scenario(path, grammar, scenario, why)) {
        std::fprintf(options_.terminal, "torture: %s\n", why.c_str());
        return false;
    }
    const auto expected = fault_free(scenario, sim_options, why);
    if (!expected) {
        std::fprintf(options_.terminal, "torture: %s: %s\n", path.c_str(), why.c_str());
        return false;
    }
    scenario_ = std::filesystem::path(path).filename().string();
    const bool played = play_with_faults(scenario, sim_options, *expected);
    if (mine_ != nullptr) {
        mine_->concluded = true;
        std::exit(0); // leaks are looked for on the way out
    }
    while (std::any_of(std::begin(children_), std::end(children_), [](const Child &child) { return child.pid != 0; })) {
        wait_for_one();
    }
    return played;
}

// Returns in the parent, and in each child that is still alive.
bool Torture::play_with_faults(const host::Scenario &scenario, const host::SimOptions &sim_options,
                               const std::vector<Snapshot> &expected)
{
    call_ = 0;
    std::string why;
    ScenarioRun run(scenario, sim_options, [this] { lift(); });
    set_decider([this](const Call &call) { return decide(call); });
    const bool played = run.play(why);
    set_decider({});
    if (mine_ != nullptr && played) {
        conclude(run, expected);
    } else if (mine_ != nullptr) {
        append(*mine_, "  " + why + "\n");
    }
    return played;
}

std::vector<std::string> find_scenarios(const std::string &root)
{
    std::vector<std::string> paths;
    for (const char *folder : {"/examples", "/tests/scenario", "/tests/fault"}) {
        for (const auto &entry : std::filesystem::recursive_directory_iterator(root + folder)) {
            if (entry.path().extension() == ".vv") {
                paths.push_back(entry.path().string());
            }
        }
    }
    std::sort(paths.begin(), paths.end());
    return paths;
}

Options read_options(int argc, char **argv)
{
    Options options;
    for (int i = 1; i < argc; i++) {
        const std::string word = argv[i];
        if ((word == "--every" || word == "--call") && i + 1 < argc) {
            (word == "--every" ? options.every : options.only) = std::strtoul(argv[++i], nullptr, 10);
        } else if (word.starts_with("-") || !std::filesystem::exists(word)) {
            std::fprintf(
                stderr,
                "torture: '%s': no such scenario or option\nusage: torture [--every K | --call N] [SCENARIO...]\n",
                argv[i]);
            std::exit(2);
        } else {
            options.scenarios.push_back(word);
        }
    }
    options.every = std::max<size_t>(options.every, 1);
    if (options.scenarios.empty()) {
        options.scenarios = find_scenarios(VVLAN_SOURCE);
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
    const pid_t parent = getpid();
    set_log_sink([parent](LogLevel level, const std::string &text) {
        if (level >= LogLevel::error && getpid() != parent) {
            std::fprintf(stderr, "%s\n", text.c_str());
        }
    });
    host::set_zlog_sink({[parent](const host::ZlogLine &line) {
                             if (line.level >= TQ_ZLOG_ERROR && getpid() != parent) {
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
    vvl::fault::Torture torture(options);
    bool complete = true;
    for (const std::string &path : options.scenarios) {
        complete = torture.run(path) && complete;
    }
    std::fprintf(options.terminal, "bar torture.points %zu\nbar torture.failures %zu\n", torture.points(),
                 torture.failures());
    return complete && torture.failures() == 0 ? 0 : 1;
}
