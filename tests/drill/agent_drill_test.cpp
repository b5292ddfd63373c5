// The agent as a process, killed at many points of its start and of a storm of
// joining ports. Packet and bridge side run here, on the same server. What the
// killed agents leave behind must be what one agent would have left that was
// never killed, and a new agent must make the same tables and plane of it.
#include "platform/host/services.h"
#include "platform/mom/store_redis.h"
#include "platform/sides/bridge_side.h"
#include "platform/sides/fan_out.h"
#include "platform/sides/packet_side.h"
#include "tests/drill/rig.h"
#include "tests/support/redis_server.h"

#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <fstream>
#include <set>

namespace vvl::drill
{
namespace
{

constexpr unsigned kill_count = 200;
constexpr uint64_t start_span_us = 250'000; // kills are spread over this time from the start of the process

// A plane without frames: the sides' traps, and nothing else.
class TrapPlane final : public fp::DataPlane
{
  public:
    int set_rules(fp::Acl, std::span<const fp::Rule>) override { return 0; }
    int set_binding(uint32_t, uint8_t) override { return 0; }
    int replace_all(const fp::PlaneState &) override { return 0; }
    int set_trap(uint32_t phyid, bool on) override
    {
        on ? static_cast<void>(traps.insert(phyid)) : static_cast<void>(traps.erase(phyid));
        return 0;
    }
    void forget(uint16_t, const Mac &) override {}
    void set_events(fp::PlaneEvents *) override {}
    bool add_port(const fp::PlanePort &, std::string &) override { return true; }
    void set_link(uint32_t, bool) override {}
    fp::PortCounters counters(uint32_t) const override { return {}; }

    std::set<uint32_t> traps;
};

class AgentProcess
{
  public:
    AgentProcess(const std::string &config, const std::string &address)
    {
        pid_ = fork();
        if (pid_ == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            execl(VVLAND_COMMAND, "vvland", "run", "--role", "agent", "--config", config.c_str(), "--store",
                  address.c_str(), "--prefix", "sw1:", nullptr);
            _exit(127);
        }
    }
    ~AgentProcess()
    {
        kill(pid_, SIGKILL);
        int status = 0;
        waitpid(pid_, &status, 0);
        EXPECT_TRUE(WIFSIGNALED(status)) << "the agent ended by itself, status " << status;
    }
    AgentProcess(const AgentProcess &) = delete;
    AgentProcess &operator=(const AgentProcess &) = delete;

  private:
    pid_t pid_;
};

struct Surroundings {
    explicit Surroundings(const std::string &address)
    {
        std::string why;
        store = mom::make_redis_store({address, "sw1:", {}}, why);
        host::set_port_map(ports);
        packet = std::make_unique<sides::PacketSide>(*store, loop, plane);
        bridge = std::make_unique<sides::BridgeSide>(*store, loop, plane);
        op = std::make_unique<host::Operator>(*store, loop);
        EXPECT_TRUE(packet->start(why) && bridge->start(why) && op->connect(why)) << why;
    }
    void run_for(uint64_t us)
    {
        loop.add_timer(us, [this] { loop.stop(); });
        loop.run();
    }
    // Each port's telephone sends a frame: trapped where the port is, and learned.
    void storm()
    {
        for (const host::PortId &port : ports) {
            const Mac phone = {0x00, 0x04, 0x76, 0x22, 0x20, static_cast<uint8_t>(port.ifx)};
            if (plane.traps.contains(port.phyid)) {
                packet->voice_trapped(port.phyid, phone, {});
            }
            bridge->mac_seen(100, phone, port.phyid);
        }
    }

    const std::vector<host::PortId> ports = {{1, 0x101}, {2, 0x102}, {3, 0x103}, {4, 0x104}};
    host::UvLoop loop;
    std::unique_ptr<mom::Store> store;
    TrapPlane plane;
    std::unique_ptr<sides::PacketSide> packet;
    std::unique_ptr<sides::BridgeSide> bridge;
    std::unique_ptr<host::Operator> op;
};

// What a new agent makes of what is in the store, once the lines are written
// and all ports have called.
std::string run_agents(const std::string &address, const std::string &config, unsigned kills)
{
    {
        Surroundings around(address);
        host::Grammar grammar;
        grammar.rows.assign(host::operator_commands().begin(), host::operator_commands().end());
        grammar.types.assign(host::operator_types().begin(), host::operator_types().end());
        host::CommandContext context;
        context.op = around.op.get();
        for (const std::string &line : base_lines) {
            host::Command command;
            std::string why;
            EXPECT_TRUE(host::parse_command(grammar, line, command, why) &&
                        command.row->run(context, command.args, why))
                << why;
        }
        for (unsigned i = 0; i < kills; i++) {
            const AgentProcess agent(config, address);
            around.run_for(start_span_us * (i / 2) / (kills / 2));
            if (i % 2 != 0) {
                around.storm();
                around.run_for(500 + 40 * i);
            }
        }
        // One that lives on until every port has joined.
        const AgentProcess agent(config, address);
        for (int i = 0; i < 40; i++) {
            around.run_for(50'000);
            around.storm();
        }
    }
    std::string why;
    Rig rig(mom::make_redis_store({address, "sw1:", {}}, why), false);
    rig.run_for(500);
    return rig.picture();
}

TEST(AgentDrill, KilledAtTwoHundredPointsLeavesWhatOneAgentLeaves)
{
    test::RedisServer calm;
    test::RedisServer stormy;
    const std::string config = calm.folder() + "/vvland.conf";
    std::ofstream file(config);
    file << "[host]\nlog-level = error\n";
    for (int ifx = 1; ifx <= 4; ifx++) {
        file << "[port " << ifx << "]\nphyid = " << 0x100 + ifx << "\n";
    }
    file.close();
    const std::string wanted = run_agents(calm.address(), config, 0);
    EXPECT_NE(wanted.find("u_bridge.vvlan_join 4 "), std::string::npos) << "no port has joined:\n" << wanted;
    EXPECT_EQ(run_agents(stormy.address(), config, kill_count), wanted);
}

} // namespace
} // namespace vvl::drill
