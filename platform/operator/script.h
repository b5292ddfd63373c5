// An operator's lines, checked completely before the first one is carried out:
// a start-up file, or what a control tool is given.
#pragma once

#include "platform/operator/command.h"
#include "platform/operator/operator.h"

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace vvl::oper
{

constexpr size_t file_line_count_max = 10'000;

// Hands each line of a text file ("-": of standard input) to take. On failure
// why is "FILE:LINE: reason" with the reason that take gave, or "FILE: reason"
// where the file cannot be read.
bool for_each_line(const std::string &file,
                   const std::function<bool(unsigned number, const std::string &text, std::string &why)> &take,
                   std::string &why);

class Script
{
  public:
    explicit Script(OperatorPorts ports = {});
    Script(const Script &) = delete; // the commands point into the grammar
    Script &operator=(const Script &) = delete;

    // Adds one line. where names it in messages. On failure why is
    // "WHERE: reason" and nothing is added.
    bool add(const std::string &where, std::string_view text, std::string &why);

    // Adds the lines of a file; on failure as for_each_line, and nothing is added.
    bool read(const std::string &file, std::string &why);

    // Checks the commands in their order against the present configuration. On
    // failure why is "WHERE: reason", or why it cannot be read.
    bool check(Operator &op, std::string &why) const;

    // The same against an empty configuration, or what present holds.
    bool check(PresentConfig present, std::string &why) const;

    // Carries the commands out, which check() has accepted. On failure why is "WHERE: reason", and the
    // commands before the failing one have been carried out.
    bool run(Operator &op, std::string &why) const;

    // Commands; empty lines and comments do not count.
    size_t size() const { return lines_.size(); }

  private:
    struct Line {
        std::string where;
        Command command;
    };

    bool take(std::string where, std::string_view text, std::string &reason);

    Grammar grammar_;
    std::vector<Line> lines_;
};

} // namespace vvl::oper
