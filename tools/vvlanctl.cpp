// The control side: writes configuration to the object store and shows what the
// store has, as a separate process beside the switch.
//
// Every line is checked before the first one is written, and the program succeeds
// only when the store has confirmed each of them.
#include "platform/base/exit.h"
#include "platform/host/config.h"
#include "platform/host/switch.h"
#include "platform/host/uv_loop.h"
#include "platform/mom/databases.h"
#include "platform/mom/keys.h"
#include "platform/mom/redis/store_redis.h"
#include "platform/operator/operator.h"
#include "platform/operator/script.h"

#include "p_bridge.pb-c.h"

#include <CLI/CLI.hpp>

#include <cstdio>
#include <functional>
#include <memory>
#include <string>
#include <vector>

using namespace vvl;

namespace
{

constexpr uint64_t answer_limit_us = 5'000'000; // for the store's answers to all lines
constexpr const char *program = "vvlanctl";

// Runs the loop until the store has answered for every line, or time is up.
void wait_for_answers(host::UvLoop &loop, const oper::Operator &op)
{
    bool late = false;
    loop.add_timer(answer_limit_us, [&late] { late = true; });
    std::function<void()> look = [&] {
        if (op.unanswered() == 0 || late) {
            loop.stop();
        } else {
            loop.add_timer(1000, look);
        }
    };
    loop.post(look);
    loop.run();
}

int write_lines(mom::Store &store, const oper::Script &lines)
{
    host::UvLoop loop;
    oper::Operator op(store, loop);
    std::string why;
    if (!op.connect(why)) {
        return fail(program, exit_failed, why);
    }
    if (!lines.check(op, why)) {
        return fail(program, exit_refused, why);
    }
    if (!lines.run(op, why)) {
        return fail(program, exit_failed, why);
    }
    wait_for_answers(loop, op);
    if (op.unanswered() != 0 || op.refused() != 0) {
        return fail(program, exit_failed,
                    "of " + std::to_string(lines.size()) + " lines the store refused " + std::to_string(op.refused()) +
                        " and left " + std::to_string(op.unanswered()) + " unanswered");
    }
    return exit_good;
}

// Prints the numbers of a message, those of a part below the part's name. The key
// is left out, since it is the object's name.
void print_numbers(const ProtobufCMessage &message, const ProtobufCFieldDescriptor *key, int indent)
{
    for (unsigned i = 0; i < message.descriptor->n_fields; i++) {
        const ProtobufCFieldDescriptor &field = message.descriptor->fields[i];
        if (&field == key || field.label == PROTOBUF_C_LABEL_REPEATED) {
            continue;
        }
        if (field.type == PROTOBUF_C_TYPE_UINT32) {
            std::printf("%*s%s %u\n", indent, "", field.name, mom::get_member<uint32_t>(message, field));
        } else if (field.type == PROTOBUF_C_TYPE_MESSAGE) {
            if (const auto *part = mom::get_member<const ProtobufCMessage *>(message, field); part != nullptr) {
                std::printf("%*s%s\n", indent, "", field.name);
                print_numbers(*part, nullptr, indent + 4);
            }
        }
    }
}

// What the module starts with, and keeps while nobody writes these settings.
constexpr uint32_t age_default = 1440; // minutes
constexpr uint32_t cos_default = 6;
constexpr uint32_t dscp_default = 46;

// What acts in place of the global settings that nobody has written, packed.
std::string defaults_beside(const mom::FieldMap &fields)
{
    PBridge__BQos qos = P_BRIDGE__B_QOS__INIT;
    qos.cos = cos_default;
    qos.dscp = dscp_default;
    PBridge__VvlanGlbCfg config = P_BRIDGE__VVLAN_GLB_CFG__INIT;
    config.age_time = fields.contains(mom::glb_cfg_age) ? 0 : age_default;
    config.qos = fields.contains(mom::glb_cfg_qos) ? nullptr : &qos;
    std::string bytes;
    mom::pack(config.base, bytes); // far below the limit of its size
    return bytes;
}

void print_object(const std::string &type, const mom::Object &object)
{
    std::printf("%s%s%s\n", type.c_str(), object.key.empty() ? "" : " ", object.key.c_str());
    const mom::ObjectType *known = mom::find_type(type);
    std::string bytes = object.value.bytes;
    const bool whole = !object.key.empty() || mom::join_fields(object.value.fields, bytes);
    if (type == "p_bridge.vvlan_glb_cfg") {
        bytes += defaults_beside(object.value.fields);
    }
    if (const mom::MessagePtr message = whole ? mom::unpack(*known, bytes) : nullptr; message != nullptr) {
        print_numbers(*message, known->key, 4);
    } else {
        std::printf("    malformed\n");
    }
}

class NoEvents final : public mom::SessionEvents
{
    void link_lost(uint32_t) override {}
    void link_back(uint32_t, bool) override {}
    void changed(const mom::Change &) override {}
};

int show(mom::Store &store)
{
    static constexpr std::pair<uint32_t, const char *> shown[] = {{mom::db_config, "p_bridge.vvlan_glb_cfg"},
                                                                  {mom::db_config, "p_bridge.vvlan_oui_cfg"},
                                                                  {mom::db_config, "p_bridge.vvlan_port_cfg"},
                                                                  {mom::db_config, "p_bridge.vvlan_port_auto"}};
    host::UvLoop loop;
    NoEvents events;
    const auto session = store.open(loop, events, "vvlanctl");
    for (const auto &[db, type] : shown) {
        std::vector<mom::Object> objects;
        if (session->connect_now(db) != 0 || session->scan_now(db, type, objects) != 0) {
            return fail(program, exit_failed, "database " + std::to_string(db) + ": the store cannot be reached");
        }
        for (const mom::Object &object : objects) {
            print_object(type, object);
        }
    }
    return exit_good;
}

// What the command line has not named is taken from the file.
bool take_config(const std::string &file, mom::RedisOptions &options, oper::OperatorPorts &ports, std::string &why)
{
    host::HostConfig config;
    if (!host::read_config(file, config, why)) {
        return false;
    }
    if (config.store != host::StoreKind::redis && options.address.empty()) {
        why = file + ": the store is in the agent's process, where vvlanctl cannot reach it";
        return false;
    }
    for (const auto member :
         {&mom::RedisOptions::address, &mom::RedisOptions::prefix, &mom::RedisOptions::credentials}) {
        options.*member = (options.*member).empty() ? config.redis.*member : options.*member;
    }
    ports = host::operator_ports(config.network.ports);
    return true;
}

} // namespace

static int run_program(int argc, char **argv)
{
    CLI::App app("Configuration of a voice VLAN, in its object store", "vvlanctl");
    mom::RedisOptions options;
    std::vector<std::string> words;
    std::string file;
    std::string config_file;
    app.add_option("--store", options.address, "redis://HOST:PORT, unix:PATH or sentinel://HOST:PORT,.../NAME");
    app.add_option("--config", config_file, "The switch's configuration file: its store, and the ports of the lines");
    app.add_option("--prefix", options.prefix, "Prefix of the switch's keys");
    app.add_option("--credentials", options.credentials, "File with PASSWORD or USER PASSWORD");
    app.require_subcommand(1);
    CLI::App *set = app.add_subcommand("set", "Carry out an operator's line: set vlan 100 on");
    set->add_option("LINE", words)->required();
    CLI::App *load = app.add_subcommand("load", "Carry out the lines of a file; -: of standard input");
    load->add_option("FILE", file)->required();
    app.add_subcommand("show", "Show the configuration, and which ports have joined");
    app.add_subcommand("help-lines", "List the operator's lines");
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError &error) {
        return app.exit(error) == 0 ? exit_good : exit_refused;
    }

    if (app.got_subcommand("help-lines")) {
        std::fputs(oper::command_help(oper::operator_grammar()).c_str(), stdout);
        return exit_good;
    }
    std::string why;
    oper::OperatorPorts ports;
    if (!config_file.empty() && !take_config(config_file, options, ports, why)) {
        return fail(program, exit_refused, why);
    }
    if (options.address.empty()) {
        return fail(program, exit_refused, "--store or --config is missing");
    }
    oper::Script lines(std::move(ports));
    const std::string text = CLI::detail::join(words, " ");
    if ((*set && !lines.add(text, text, why)) || (*load && !lines.read(file, why))) {
        return fail(program, exit_refused, why);
    }
    const auto store = mom::make_redis_store(options, why);
    if (store == nullptr) {
        return fail(program, exit_refused, why);
    }
    return app.got_subcommand("show") ? show(*store) : write_lines(*store, lines);
}

int main(int argc, char **argv)
{
    hold_standard_descriptors();
    return end_output(program, run_program(argc, argv));
}
