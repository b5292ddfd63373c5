// A script has the operator's part of the scenario grammar, so a line that
// works in a scenario works here.
#include "platform/operator/script.h"

#include "platform/base/file.h"

#include <algorithm>

namespace vvl::oper
{

bool for_each_line(const std::string &file,
                   const std::function<bool(unsigned number, const std::string &text, std::string &why)> &take,
                   std::string &why)
{
    std::string text;
    if (!read_text_file(file, text, why)) {
        return false;
    }
    std::string_view rest = text;
    for (unsigned number = 1; !rest.empty(); number++) {
        const size_t end = std::min(rest.find('\n'), rest.size());
        std::string reason;
        if (number > file_line_count_max) {
            reason = "more than " + std::to_string(file_line_count_max) + " lines";
        } else if (take(number, std::string(rest.substr(0, end)), reason)) {
            rest.remove_prefix(std::min(end + 1, rest.size()));
            continue;
        }
        why = file;
        why += ":" + std::to_string(number) + ": " + reason;
        return false;
    }
    return true;
}

Script::Script(OperatorPorts ports) : grammar_(operator_grammar(std::move(ports))) {}

bool Script::take(std::string where, std::string_view text, std::string &reason)
{
    Command command;
    if (!parse_command(grammar_, text, command, reason)) {
        return false;
    }
    if (command.row != nullptr) {
        lines_.push_back({std::move(where), std::move(command)});
    }
    return true;
}

bool Script::add(const std::string &where, std::string_view text, std::string &why)
{
    std::string reason;
    const bool good = take(where, text, reason);
    if (!good) {
        why = where + ": " + reason;
    }
    return good;
}

bool Script::read(const std::string &file, std::string &why)
{
    const size_t count_before = lines_.size();
    const bool good = for_each_line(
        file,
        [&](unsigned number, const std::string &text, std::string &reason) {
            return take(file + ":" + std::to_string(number), text, reason);
        },
        why);
    if (!good) {
        lines_.resize(count_before);
    }
    return good;
}

bool Script::check(Operator &op, std::string &why) const
{
    PresentConfig present;
    return op.read_present(present, why) && check(present, why);
}

bool Script::check(PresentConfig present, std::string &why) const
{
    for (const Line &line : lines_) {
        std::string reason;
        if (line.command.row->apply != nullptr && !line.command.row->apply(present, line.command.args, reason)) {
            why = line.where + ": " + reason;
            return false;
        }
    }
    return true;
}

bool Script::run(Operator &op, std::string &why) const
{
    CommandContext context;
    context.op = &op;
    for (const Line &line : lines_) {
        std::string reason;
        if (!line.command.row->run(context, line.command.args, reason)) {
            why = line.where + ": " + reason;
            return false;
        }
    }
    return true;
}

} // namespace vvl::oper
