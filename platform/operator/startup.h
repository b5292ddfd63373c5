// The start-up file: the operator's commands that a host carries out once,
// after its switch has started, so that a switch without a control side comes
// up configured.
#pragma once

#include "platform/operator/command.h"
#include "platform/operator/operator.h"

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace vvl::host
{

constexpr size_t startup_line_count_max = 10000;

class Startup
{
  public:
    // Reads the file and checks every line; ports are the interface indexes of
    // the switch. On failure why is "FILE:LINE: reason" and nothing is kept.
    bool read(const std::string &file, const std::vector<uint32_t> &ports, std::string &why);

    // Carries the commands out. Returns the client that writes; the caller keeps
    // it while the writes are under way, and not longer than store and loop. Null on
    // failure, with why as of read(); the commands before the failing one have
    // been carried out.
    std::unique_ptr<Operator> run(mom::Store &store, Loop &loop, std::string &why) const;

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
