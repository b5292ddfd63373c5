// A run is deterministic: there is one loop, one clock that moves only here, and
// frames with the same time enter in the order in which their captures started.
#include "platform/sim/runner.h"

#include "platform/mom/databases.h"

#include <algorithm>
#include <cstdio>
#include <filesystem>

namespace vvl::sim
{
namespace
{

// In the order in which the module connects to them.
constexpr uint32_t module_dbs[] = {mom::db_config, mom::db_status, mom::db_address, mom::db_plane};

// The module's listings, shown in this order where it has registered them.
constexpr const char *table_commands[] = {
    "dump_glbal_configure", "dump_all_oui", "dump_all_port", "dump_all_mac", "dump_recover_entry",
};

host::SwitchConfig config_of(const Scenario &scenario, const SimOptions &options)
{
    return {options.module, scenario.ports()};
}

// FILE of a command: beside the scenario, unless it is absolute.
std::string resolve(const std::string &scenario, const std::string &file)
{
    return (std::filesystem::path(scenario).parent_path() / file).string();
}

} // namespace

Simulation::Simulation(const Scenario &scenario, const SimOptions &options, std::unique_ptr<mom::Store> store,
                       bool color)
    : scenario_(scenario), options_(options), timeline_(loop_, color),
      switch_(config_of(scenario, options), loop_, std::move(store), std::make_unique<fp::SoftPlane>(loop_)),
      operator_(switch_.store(), loop_), observer_(switch_.store(), loop_, timeline_)
{
}

Simulation::~Simulation()
{
    switch_.stop();
    loop_.clear(); // nothing may run while the members are destroyed
}

bool Simulation::run(std::string &why)
{
    if (!start(why)) {
        why = scenario_.path + ": " + why;
        return false;
    }
    if (!run_steps(why)) {
        return false;
    }
    if (!finish(why)) {
        why = scenario_.path + ": " + why;
        return false;
    }
    return true;
}

bool Simulation::start(std::string &why)
{
    if (!options_.capture_out.empty()) {
        if (!output_is_no_input(why) || !writer_.open(options_.capture_out, why)) {
            return false;
        }
        plane().set_output([this](uint32_t, std::span<const uint8_t> frame) { writer_.write(loop_.now_us(), frame); });
    }
    if (!operator_.connect(why) || !observer_.start(why)) {
        return false;
    }
    loop_.run_pending();
    if (!switch_.start(why)) {
        return false;
    }
    loop_.run_pending();
    return true;
}

// A capture that the scenario plays would be emptied before it is read.
bool Simulation::output_is_no_input(std::string &why) const
{
    for (const ScenarioStep &step : scenario_.steps) {
        const oper::Argument *file = step.command.args.find("FILE");
        std::error_code error;
        if (file != nullptr &&
            std::filesystem::equivalent(resolve(scenario_.path, file->text), options_.capture_out, error)) {
            why = options_.capture_out + ": line " + std::to_string(step.line) + " plays it; it is not overwritten";
            return false;
        }
    }
    return true;
}

bool Simulation::run_steps(std::string &why)
{
    oper::CommandContext context{&operator_, this, nullptr};
    for (const ScenarioStep &step : scenario_.steps) {
        std::string reason;
        timeline_.add(LineKind::command, step.text);
        const bool done = step.command.row->run(context, step.command.args, reason);
        loop_.run_pending();
        if (!done) {
            why = scenario_.path + ":" + std::to_string(step.line) + ": " + reason;
            return false;
        }
    }
    return true;
}

bool Simulation::finish(std::string &why)
{
    uint64_t end_us = loop_.now_us();
    for (const Playback &playback : playbacks_) {
        end_us = std::max(end_us, playback.end_us());
    }
    wait(end_us - loop_.now_us());
    show_tables();
    const bool written = writer_.close(why);
    print_counts();
    return written;
}

bool Simulation::play(const std::string &file, uint32_t ifx, uint64_t skip_us, bool background, std::string &why)
{
    Playback playback{{}, 0, ifx, switch_.find_port(ifx)->phyid, loop_.now_us()};
    if (!read_capture(resolve(scenario_.path, file), playback.capture, why)) {
        return false;
    }
    Capture &frames = playback.capture;
    frames.erase(frames.begin(), std::find_if(frames.begin(), frames.end(),
                                              [&](const CaptureFrame &frame) { return frame.time_us >= skip_us; }));
    if (frames.empty()) {
        why = file + ": contains no frame after that time";
        return false;
    }
    for (CaptureFrame &frame : frames) {
        frame.time_us -= skip_us;
    }
    const uint64_t duration_us = frames.back().time_us;
    const char *noun = frames.size() == 1 ? " frame, " : " frames, ";
    timeline_.add(LineKind::note, std::to_string(frames.size()) + noun + "for " + time_text(duration_us));
    playbacks_.push_back(std::move(playback));
    play_next(std::prev(playbacks_.end()));
    if (!background) {
        wait(duration_us);
    }
    return true;
}

// One timer per capture: the next frame's.
void Simulation::play_next(std::list<Playback>::iterator playback)
{
    const uint64_t due_us = playback->begin_us + playback->capture[playback->next].time_us;
    loop_.add_timer(due_us - loop_.now_us(), [this, playback] {
        receive(*playback);
        playback->next++;
        if (playback->next < playback->capture.size()) {
            play_next(playback);
        } else {
            playbacks_.erase(playback);
        }
    });
}

void Simulation::receive(const Playback &playback)
{
    const fp::PortCounters before = plane().counters(playback.phyid);
    plane().receive(playback.phyid, playback.capture[playback.next].bytes);
    const fp::PortCounters after = plane().counters(playback.phyid);
    const std::string port = "port " + std::to_string(playback.ifx) + ": ";
    if (after.trapped > before.trapped && trapped_.insert(playback.ifx).second) {
        timeline_.add(LineKind::event, port + "first voice frame trapped");
    }
    if (after.tagged > before.tagged && tagged_.insert(playback.ifx).second) {
        timeline_.add(LineKind::event, port + "first frame tagged with the voice VLAN");
    }
}

void Simulation::wait(uint64_t delta_us)
{
    loop_.advance(delta_us);
}

bool Simulation::start_module(std::string &why)
{
    if (switch_.agent().loaded()) {
        why = "the module is already loaded";
        return false;
    }
    return switch_.agent().load(why);
}

bool Simulation::stop_module(std::string &why)
{
    if (!switch_.agent().loaded()) {
        why = "the module is not loaded";
        return false;
    }
    switch_.agent().unload();
    return true;
}

namespace
{

// Does something for one of the module's databases, or for all of them.
template <typename Action> bool for_databases(const std::string &db, Action action)
{
    for (uint32_t number : module_dbs) {
        if ((db == "all" || db == std::to_string(number)) && !action(number)) {
            return false;
        }
    }
    return true;
}

} // namespace

bool Simulation::set_store_link(const std::string &db, bool up, std::string &why)
{
    return for_databases(db, [&](uint32_t number) { return switch_.agent().set_store_link(number, up, why); });
}

bool Simulation::refuse_store_request(const std::string &db, uint32_t number, std::string &why)
{
    return for_databases(db, [&](uint32_t db_id) { return switch_.agent().refuse_store_request(db_id, number, why); });
}

bool Simulation::debug(const std::string &name, const std::string &argument, std::string &why)
{
    if (!switch_.agent().run_debug_command(name, argument, why)) {
        return false;
    }
    Timeline::print(""); // a dump may lack its last line end
    return true;
}

void Simulation::show_tables()
{
    const auto known = switch_.agent().debug_commands();
    for (const char *name : table_commands) {
        const bool registered =
            std::any_of(known.begin(), known.end(), [&](const auto &command) { return command.first == name; });
        std::string why;
        if (registered) {
            Timeline::print(std::string("-- ") + name);
            debug(name, "", why);
        }
    }
}

void Simulation::print_counts()
{
    const fp::PortCounters total = plane().total();
    auto item = [](uint64_t count, const char *name) { return std::to_string(count) + " " + name; };
    Timeline::print("frames: " + item(total.in, "in, ") + item(total.out, "out, ") + item(total.trapped, "trapped, ") +
                    item(total.tagged, "tagged, ") + item(total.remarked, "remarked, ") +
                    item(total.dropped, "dropped"));
}

} // namespace vvl::sim
