// The simulator's own commands, as rows.
#include "platform/sim/runner.h"

namespace vvl::sim
{

using namespace oper;

namespace
{

bool run_play(CommandContext &context, const Arguments &args, std::string &why)
{
    const Argument *from = args.find("TIME");
    return context.sim->play(args["FILE"].text, static_cast<uint32_t>(args["PORT"].number),
                             from != nullptr ? from->number : 0, args.find("background") != nullptr, why);
}

bool run_link(CommandContext &context, const Arguments &args, std::string &)
{
    return context.sim->network_switch().set_port_link(static_cast<uint32_t>(args["PORT"].number),
                                                       args["down|up"].text == "up");
}

bool run_wait(CommandContext &context, const Arguments &args, std::string &)
{
    context.sim->wait(args["TIME"].number);
    return true;
}

bool run_restart(CommandContext &context, const Arguments &, std::string &why)
{
    return context.sim->stop_module(why) && context.sim->start_module(why);
}

bool run_stop(CommandContext &context, const Arguments &, std::string &why)
{
    return context.sim->stop_module(why);
}

bool run_start(CommandContext &context, const Arguments &, std::string &why)
{
    return context.sim->start_module(why);
}

bool run_store(CommandContext &context, const Arguments &args, std::string &why)
{
    return context.sim->set_store_link(args["DB"].text, args["down|up"].text == "up", why);
}

bool run_store_refuse(CommandContext &context, const Arguments &args, std::string &why)
{
    return context.sim->refuse_store_request(args["DB"].text, static_cast<uint32_t>(args["NTH"].number), why);
}

bool run_debug(CommandContext &context, const Arguments &args, std::string &why)
{
    const Argument *number = args.find("NUMBER");
    return context.sim->debug(args["NAME"].text, number != nullptr ? number->text : "", why);
}

bool run_show_tables(CommandContext &context, const Arguments &, std::string &)
{
    context.sim->show_tables();
    return true;
}

constexpr CommandRow rows[] = {
    {"play FILE port PORT [from TIME] [background]", "send a capture into a port; from: skips its beginning", run_play},
    {"link PORT down|up", "take a port's link down, or bring it up", run_link},
    {"wait TIME", "let time pass", run_wait},
    {"restart", "unload the module and load it again; the store stays", run_restart},
    {"stop", "unload the module", run_stop},
    {"start", "load the module", run_start},
    {"store down|up DB", "cut the module's connection to the store, or restore it", run_store},
    {"store refuse DB NTH", "make one store request of the module fail: 1 is the next", run_store_refuse},
    {"debug NAME [NUMBER]", "run a debug command of the module", run_debug},
    {"show tables", "print the module's tables", run_show_tables},
};

constexpr ArgumentType types[] = {
    {"FILE", "a capture: absolute, or beside the scenario; may be quoted", read_text},
    {"TIME", "a number with us, ms, s, m, h or d, as 30s", read_time},
    {"DB", "0, 4, 6, 8 or all", read_word, 0, 0, "0|4|6|8|all"},
    {"NAME", "a debug command's name", read_text},
    {"NTH", "1: the next, up to 1000", read_number, 1, 1000},
    {"NUMBER", "0 to 2147483647", read_number, 0, INT32_MAX},
};

template <typename Row> void append(std::vector<Row> &to, std::span<const Row> from)
{
    to.insert(to.end(), from.begin(), from.end());
}

} // namespace

std::span<const CommandRow> sim_commands()
{
    return rows;
}

std::span<const ArgumentType> sim_types()
{
    return types;
}

Grammar scenario_grammar()
{
    Grammar grammar;
    for (auto more : {declaration_commands(), operator_commands(), sim_commands(), expect_commands()}) {
        append(grammar.rows, more);
    }
    for (auto more : {declaration_types(), operator_types(), sim_types(), expect_types()}) {
        append(grammar.types, more);
    }
    return grammar;
}

} // namespace vvl::sim
