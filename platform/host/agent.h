// The module in its host: loaded, given its context, and taken out again.
//
// A process has one agent, since the module finds its platform functions by
// their C names. The store, the plane and the sides stay when the module is
// unloaded; a restart is an unload and a load.
#pragma once

#include "platform/base/loop.h"
#include "platform/fp/manager.h"
#include "platform/host/port_id.h"
#include "platform/mom/client.h"

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

namespace vvl::host
{

// Where a build and an installation keep the module: ../lib/libudp_vvlan.so,
// relative to the folder of the executable.
std::string default_module_path();

// Whether the module can be loaded and has its entry points; nothing of it is
// called. On failure why is the line with which load() would fail.
bool check_module(const std::string &module, std::string &why);

class Agent
{
  public:
    // module: path of the shared object. All arguments outlive the agent.
    Agent(Loop &loop, mom::Store &store, fp::Manager &manager, std::span<const PortId> ports,
          const std::string &module);
    ~Agent(); // unloads

    Agent(const Agent &) = delete;
    Agent &operator=(const Agent &) = delete;

    // Loads the module and calls its entry points; the rest of its start-up
    // comes from the loop. On failure why names the step and the reason and
    // nothing is left loaded.
    bool load(std::string &why);

    // Removes its timers, debug commands, callbacks and store client, then
    // unloads it. Does nothing where it is not loaded.
    void unload();

    bool loaded() const;

    // Cuts the module's connection to one database, or restores it.
    bool set_store_link(uint32_t db, bool up, std::string &why);

    // Makes one store request of the module fail: 1 is the next one.
    bool refuse_store_request(uint32_t db, uint32_t number, std::string &why);

    // Runs a debug command with its one integer argument, if it takes one
    // (argument: empty otherwise). It prints to standard output.
    bool run_debug_command(const std::string &name, const std::string &argument, std::string &why);

    // The registered commands with their argument descriptions, by name.
    std::vector<std::pair<std::string, std::string>> debug_commands() const;

  private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

} // namespace vvl::host
