// Reading and running the start-up file. It has the operator's part of the
// scenario grammar, so a line that works in a scenario works here.
#include "platform/operator/startup.h"

#include <cerrno>
#include <cstring>
#include <fstream>

namespace vvl::host
{
namespace
{

std::string at_line(const std::string &file, unsigned line, const std::string &reason)
{
    return file + ":" + std::to_string(line) + ": " + reason;
}

} // namespace

bool Startup::read(const std::string &file, const std::vector<uint32_t> &ports, std::string &why)
{
    file_ = file;
    grammar_.rows.assign(operator_commands().begin(), operator_commands().end());
    grammar_.types.assign(operator_types().begin(), operator_types().end());
    grammar_.ports = ports;

    std::ifstream stream(file);
    if (!stream) {
        why = file + ": " + std::strerror(errno);
        return false;
    }
    std::vector<Line> lines;
    std::string text;
    for (unsigned number = 1; std::getline(stream, text); number++) {
        Command command;
        std::string reason;
        if (number > startup_line_count_max) {
            why = at_line(file, number, "more than " + std::to_string(startup_line_count_max) + " lines");
            return false;
        }
        if (!parse_command(grammar_, text, command, reason)) {
            why = at_line(file, number, reason);
            return false;
        }
        if (command.row != nullptr) {
            lines.push_back({number, std::move(command)});
        }
    }
    lines_ = std::move(lines);
    return true;
}

std::unique_ptr<Operator> Startup::run(mom::Store &store, Loop &loop, std::string &why) const
{
    auto client = std::make_unique<Operator>(store, loop);
    if (!client->connect(why)) {
        return nullptr;
    }
    CommandContext context;
    context.op = client.get();
    for (const Line &line : lines_) {
        std::string reason;
        if (!line.command.row->run(context, line.command.args, reason)) {
            why = at_line(file_, line.number, reason);
            return nullptr;
        }
    }
    return client;
}

} // namespace vvl::host
