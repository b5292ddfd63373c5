// The start-up file: the operator's commands that a host carries out once,
// after its switch has started, so that a switch without a control side comes
// up configured.
#pragma once

#include "platform/host/sim/command.h"
#include "platform/host/sim/operator.h"
#include "platform/host/switch.h"

#include <memory>
#include <string>
#include <vector>

namespace vvl::host
{

constexpr size_t startup_line_count_max = 10000;

class Startup
{
  public:
    // Reads the file and checks every line against the ports of the switch. On
    // failure why is "FILE:LINE: reason" and nothing is kept.
    bool read(const std::string &file, const std::vector<SwitchPort> &ports, std::string &why);

    // Carries the commands out. Returns the client that writes; the caller keeps
    // it while the writes are under way, and not longer than the switch. Null on
    // failure, with why as of read(); the commands before the failing one have
    // been carried out.
    std::unique_ptr<Operator> run(Switch &target, std::string &why) const;

  private:
    struct Line {
        unsigned number;
        Command command;
    };

    std::string file_;
    Grammar grammar_;
    std::vector<Line> lines_;
};

} // namespace vvl::host
