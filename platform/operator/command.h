// Commands as rows of a table: one row drives parsing, the help text and
// execution, for scenarios and for whatever else reads an operator's lines.
//
// A row's pattern is what the help shows: small words stand for themselves,
// "on|off" for one of its words, words in capitals for a typed argument, and
// "[...]" for an optional part at the end. A line is parsed and
// checked completely before anything is done.
#pragma once

#include "platform/base/mac.h"

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace vvl::sim
{
class Simulation;
struct Scenario;
} // namespace vvl::sim

namespace vvl::oper
{

class Operator;

// One argument, as written and as read. What is set depends on its type.
struct Argument {
    std::string name;    // the pattern's word: "PORT", "on|off"
    std::string text;    // as written
    uint64_t number = 0; // of a number; of a TIME: microseconds; of a RANGE: the first
    uint64_t last = 0;   // of a RANGE: the last
    Mac mac{};           // of an OUI: the address
    Mac mask{};          // of an OUI: its mask
};

class Arguments
{
  public:
    void add(Argument argument) { list_.push_back(std::move(argument)); }
    // The first argument of this name, or null where it was left out.
    const Argument *find(std::string_view name) const;
    // The same for an argument that the pattern requires.
    const Argument &operator[](std::string_view name) const { return *find(name); }
    const std::vector<Argument> &list() const { return list_; }

  private:
    std::vector<Argument> list_; // in the order of the pattern
};

// What a command acts on. Each row uses the member that it needs.
struct CommandContext {
    Operator *op = nullptr;            // rows of operator_commands()
    sim::Simulation *sim = nullptr;    // rows of sim_commands()
    sim::Scenario *scenario = nullptr; // declarations, run while the file is read
};

// The configuration that lines are checked against: what the store has, with
// what the lines before have changed.
struct PresentConfig {
    uint32_t vlan = 0; // the voice VLAN that is on; 0: none
};

struct Grammar;

struct CommandRow {
    const char *pattern;
    const char *help;
    // Carries the command out. On failure why is the reason, and nothing has changed.
    bool (*run)(CommandContext &context, const Arguments &args, std::string &why);
    // Checks what the type of a single argument cannot check (null: nothing).
    bool (*check)(const Grammar &grammar, const Arguments &args, std::string &why) = nullptr;
    bool declaration = false; // must come before the first other command
    // Refuses a line that the switch would ignore or misread in this configuration,
    // or carries it out on present (null: nothing to check).
    bool (*apply)(PresentConfig &present, const Arguments &args, std::string &why) = nullptr;
};

// A type of argument, by its word in the patterns.
struct ArgumentType {
    const char *name;
    const char *help;
    // Reads text into argument. On failure why is the reason, with the text in it.
    bool (*read)(const ArgumentType &type, const Grammar &grammar, const std::string &text, Argument &argument,
                 std::string &why);
    int64_t min = 0; // range of a number, not negative
    int64_t max = 0;
    const char *words = nullptr; // of read_word: "a|b|c"
};

// The ports that an operator may name, by interface index.
struct OperatorPorts {
    std::vector<uint32_t> all;     // empty: any number is a port
    std::vector<uint32_t> uplinks; // those of them that cannot be voice ports
};

struct Grammar {
    std::vector<CommandRow> rows;
    std::vector<ArgumentType> types;
    OperatorPorts ports;
};

struct Command {
    const CommandRow *row = nullptr; // null: an empty line or a comment
    Arguments args;
};

// Readers for types.
bool read_text(const ArgumentType &, const Grammar &, const std::string &, Argument &, std::string &);
bool read_number(const ArgumentType &, const Grammar &, const std::string &, Argument &, std::string &);
bool read_port(const ArgumentType &, const Grammar &, const std::string &, Argument &, std::string &);
bool read_time(const ArgumentType &, const Grammar &, const std::string &, Argument &, std::string &);
bool read_oui(const ArgumentType &, const Grammar &, const std::string &, Argument &, std::string &);
bool read_range(const ArgumentType &, const Grammar &, const std::string &, Argument &, std::string &);
bool read_word(const ArgumentType &, const Grammar &, const std::string &, Argument &, std::string &);

// "ADDRESS/BITS" or "ADDRESS/MASK". Returns false with the reason in why.
bool parse_oui(const std::string &text, Mac &mac, Mac &mask, std::string &why);
// "00:04:76:00:00:00/24"; a mask that is no prefix is written out.
std::string oui_text(const Mac &mac, const Mac &mask);

// Splits a line into words. '#' before a word starts a comment; a word in
// double quotes may hold spaces. Returns false with the reason in why.
bool split_words(std::string_view line, std::vector<std::string> &words, std::string &why);

// Parses one line. On failure why is the reason, with a suggestion where a
// known word is close, and command is unchanged. The grammar outlives the command.
bool parse_command(const Grammar &grammar, std::string_view line, Command &command, std::string &why);

// The commands and the types that they use, as text for a terminal.
std::string command_help(const Grammar &grammar);

} // namespace vvl::oper
