// The host's side of the C services that a module calls: its context, timers,
// log categories, debug commands and the port-id map.
//
// A module finds these functions by their C names. A service whose functions take
// no context (log, commands, port map) exists once in a process, and is reached
// here through a function. Timers belong to one context.
#pragma once

#include "platform/base/loop.h"
#include "platform/host/port_id.h"
#include "ssat.h"
#include "tq_global.h"
#include "tq_thread.h"
#include "tq_zlog.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <span>
#include <string>
#include <utility>
#include <vector>

// The event-loop master of one context: keeps the module's timers, so that they
// can be listed, and cancelled before the module's code is unloaded.
struct tq_thread_master {
  public:
    explicit tq_thread_master(vvl::Loop &loop) : loop_(loop) {}
    ~tq_thread_master() { cancel_all(); }
    tq_thread_master(const tq_thread_master &) = delete;
    tq_thread_master &operator=(const tq_thread_master &) = delete;

    // Null where TQ_THREAD_TIMER_COUNT_MAX timers are already armed.
    tq_thread_t *add(uint64_t delay_us, tq_thread_func_t func, void *arg, std::string name);
    void cancel_all();
    std::vector<std::string> names() const; // of the armed timers, in the order of arming

  private:
    struct Timer {
        tq_thread_t handle; // what the module holds
        vvl::LoopId id;
        tq_thread_func_t func;
        std::string name;
    };
    void fire(uint64_t key);

    vvl::Loop &loop_;
    uint64_t last_key_ = 0;
    std::map<uint64_t, std::unique_ptr<Timer>> timers_;
};

namespace vvl::host
{

constexpr int result_invalid = -4; // of the C services: an argument is missing or out of range

// ---- Context -----------------------------------------------------------

// The context that a module gets. The module and its store client hold the
// address of global, so the record does not move.
struct HostContext {
    explicit HostContext(Loop &loop) : master(loop), global{this, &master} {}
    HostContext(const HostContext &) = delete;
    HostContext &operator=(const HostContext &) = delete;

    tq_thread_master master;
    tq_global_t global;
    bool finishing = false; // tq_global_finish has been called
};

// ---- Log ---------------------------------------------------------------

// One line of a module, without line end, with control characters as spaces.
struct ZlogLine {
    const std::string &category;
    std::string file;
    std::string function;
    long line;
    int level; // a TQ_ZLOG_ level
    std::string text;
};

// Where the lines go. Both are called on the loop's thread.
struct ZlogSink {
    std::function<void(const ZlogLine &)> write;
    std::function<void()> flush; // may be empty
};

// Replaces the sink and returns the old one. A sink without write restores the
// default, which writes to standard error.
ZlogSink set_zlog_sink(ZlogSink sink);

// Writes out buffered lines.
void flush_zlog();

// ---- Debug commands ----------------------------------------------------

class DebugCommands
{
  public:
    // Does what ssat_reg_mod_cmd promises, with its results. name and argdesc may be null.
    int add(const char *name, uint32_t flags, const char *argdesc, ssat_handler_t handler);
    void clear() { commands_.clear(); }

    // Runs a command. argument: an integer in the range of int, decimal or
    // with 0x, for a command that takes one; empty for one that does not.
    // Standard output is flushed afterwards.
    bool run(const std::string &name, const std::string &argument, std::string &why) const;

    std::vector<std::pair<std::string, std::string>> list() const; // name, argument description; by name

  private:
    struct Command {
        std::string argdesc;
        std::string argument; // its name in messages; empty: takes none
        ssat_handler_t handler;
    };
    std::map<std::string, Command> commands_;
};

DebugCommands &debug_commands(); // the process's registry

// ---- Port-id map -------------------------------------------------------

// Replaces the map. Where an ifx or a phyid occurs twice it returns false and
// changes nothing.
bool set_port_map(std::span<const PortId> ports);

} // namespace vvl::host
