// The operator: writes voice VLAN configuration to the store as the control
// side does, and the command rows for it. It works against any store; nothing
// here knows the simulator.
#pragma once

#include "platform/base/loop.h"
#include "platform/mom/owned_client.h"
#include "platform/operator/command.h"

#include <cstdint>
#include <string>

namespace vvl::oper
{

class Operator
{
  public:
    // store and loop outlive the operator.
    Operator(mom::Store &store, Loop &loop) : client_(store, loop, "operator") {}

    // Connects to the configuration database, once. The calls below fail until
    // it has succeeded.
    bool connect(std::string &why);

    // Each writes one object, or some fields of the global one. The caller has
    // checked the ranges. On failure why names the object and the reason.
    bool set_vlan(uint32_t vlan, bool on, std::string &why); // 1 to 4094
    bool set_security(bool on, std::string &why);
    bool set_age(uint32_t minutes, std::string &why);            // 0 to 65535
    bool set_qos(uint32_t cos, uint32_t dscp, std::string &why); // 0 to 7, 0 to 63
    bool set_oui(const Mac &mac, const Mac &mask, bool present, std::string &why);
    bool set_port(uint32_t ifx, bool enabled, bool automatic, std::string &why);
    bool delete_port(uint32_t ifx, std::string &why);

    // The mode in the port's configuration; automatic where the port has none.
    bool port_is_automatic(uint32_t ifx);

    // Reads what lines are checked against. On failure why has the reason.
    bool read_present(PresentConfig &present, std::string &why);

    // The number of writes that the store has not answered yet, and of those that
    // it has refused. Writes that were under way when the connection was lost
    // stay unanswered.
    size_t unanswered() const { return sent_ - answered_; }
    size_t refused() const { return refused_; }

  private:
    static int on_answer(void *ctx, tq_mom_record_t *record, void *user);
    bool sent(int rv, const std::string &object, std::string &why);
    bool write_field(const ProtobufCMessage &config, uint32_t field, const char *name, std::string &why);

    size_t sent_ = 0;
    size_t answered_ = 0;
    size_t refused_ = 0;
    mom::OwnedClient client_; // goes first: its callbacks use the others
};

// The rows that need CommandContext::op, and the types that they use.
std::span<const CommandRow> operator_commands();
std::span<const ArgumentType> operator_types();
// Both as a grammar.
Grammar operator_grammar(OperatorPorts ports = {});

} // namespace vvl::oper
