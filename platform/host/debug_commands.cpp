// The registry of debug commands.
//
// An argument description decides how the handler is called: with "void" it
// takes nothing, with NAME=%d a single int. Anything else is refused at
// registration, since a call through the wrong type is undefined behaviour.
#include "platform/base/number.h"
#include "platform/host/services.h"

#include <cctype>
#include <cstdio>
#include <limits>
#include <string_view>

namespace vvl::host
{
namespace
{

constexpr int result_full = -6;
constexpr int result_taken = -17;

// Splits an argument description into the argument's name; empty for "void".
bool parse_argdesc(std::string_view argdesc, std::string &argument)
{
    const std::string_view head = argdesc.substr(0, argdesc.find(' '));
    if (head == "void") {
        argument.clear();
        return true;
    }
    const std::string_view suffix = "=%d";
    if (head.size() <= suffix.size() || !head.ends_with(suffix)) {
        return false;
    }
    const std::string_view name = head.substr(0, head.size() - suffix.size());
    for (char c : name) {
        if (std::isalnum(static_cast<unsigned char>(c)) == 0 && c != '_' && c != '-') {
            return false;
        }
    }
    argument = name;
    return true;
}

} // namespace

int DebugCommands::add(const char *name, uint32_t flags, const char *argdesc, ssat_handler_t handler)
{
    std::string argument;
    if (name == nullptr || *name == '\0' || handler == nullptr || argdesc == nullptr || flags != 0 ||
        !parse_argdesc(argdesc, argument)) {
        return result_invalid;
    }
    if (commands_.contains(name)) {
        return result_taken;
    }
    if (commands_.size() >= SSAT_COMMAND_COUNT_MAX) {
        return result_full;
    }
    commands_.emplace(name, Command{argdesc, std::move(argument), handler});
    return 0;
}

bool DebugCommands::run(const std::string &name, const std::string &argument, std::string &why) const
{
    const auto found = commands_.find(name);
    if (found == commands_.end()) {
        why = "debug command '" + name + "': no such command";
        return false;
    }
    const Command &command = found->second;
    if (command.argument.empty()) {
        if (!argument.empty()) {
            why = "debug command '" + name + "': takes no argument, but got '" + argument + "'";
            return false;
        }
        command.handler();
    } else {
        int64_t value = 0;
        if (!parse_integer(argument, std::numeric_limits<int>::min(), std::numeric_limits<int>::max(), value)) {
            why = "debug command '" + name + "': " + command.argument + " must be an integer, not '" + argument + "'";
            return false;
        }
        reinterpret_cast<void (*)(int)>(command.handler)(static_cast<int>(value));
    }
    std::fflush(stdout);
    return true;
}

std::vector<std::pair<std::string, std::string>> DebugCommands::list() const
{
    std::vector<std::pair<std::string, std::string>> rows;
    for (const auto &[name, command] : commands_) {
        rows.emplace_back(name, command.argdesc);
    }
    return rows;
}

DebugCommands &debug_commands()
{
    static DebugCommands registry;
    return registry;
}

} // namespace vvl::host

int ssat_lib_init(void *a0, void *module, void *a2, void *a3)
{
    (void)a0;
    (void)a2;
    (void)a3;
    return module != nullptr ? 0 : vvl::host::result_invalid;
}

int ssat_reg_mod_cmd(void *module, const char *name, uint32_t flags, const char *argdesc, ssat_handler_t handler)
{
    if (module == nullptr) {
        return vvl::host::result_invalid;
    }
    return vvl::host::debug_commands().add(name, flags, argdesc, handler);
}
