// The agent as a process, killed at many points of its start and of a storm of
// joining ports, or cut off after each of the first bytes that its server says.
// It may end by itself where its store fails it in the middle of its start, and
// is started again then, as a service manager does it. Packet and bridge side run here, on the same server. What the
// killed agents leave behind must be what one agent would have left that was
// never killed, and a new agent must make the same tables and plane of it.
#include "platform/host/services.h"
#include "platform/mom/redis/store_redis.h"
#include "platform/sides/bridge_side.h"
#include "platform/sides/fan_out.h"
#include "platform/sides/packet_side.h"
#include "tests/drill/proxy.h"
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
constexpr int cut_bytes_max = 200;
constexpr uint64_t settle_us = 100'000;     // for the agent to be whole again before the next cut
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
        if (!has_ended()) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
        }
    }
    // By itself; a signal that it did not get from here is a fault.
    bool has_ended()
    {
        int status = 0;
        if (!ended_ && waitpid(pid_, &status, WNOHANG) == pid_) {
            ended_ = true;
            EXPECT_TRUE(WIFEXITED(status)) << "the agent was ended by signal " << WTERMSIG(status);
        }
        return ended_;
    }
    AgentProcess(const AgentProcess &) = delete;
    AgentProcess &operator=(const AgentProcess &) = delete;

  private:
    pid_t pid_;
    bool ended_ = false;
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

using Trouble = std::function<void(Surroundings &around)>;

// What a new agent makes of what is in the store, once the lines are written,
// the trouble is over and all ports have called.
std::string picture_after(const std::string &address, const std::string &config, const Trouble &trouble)
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
        trouble(around);
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

class AgentDrill : public testing::Test
{
  protected:
    AgentDrill() : config(server.folder() + "/vvland.conf")
    {
        test::RedisServer calm;
        std::ofstream file(config);
        file << "[host]\nlog-level = error\n";
        for (int ifx = 1; ifx <= 4; ifx++) {
            file << "[port " << ifx << "]\nphyid = " << 0x100 + ifx << "\n";
        }
        file.close();
        wanted = picture_after(calm.address(), config, [](Surroundings &) {});
        EXPECT_NE(wanted.find("u_bridge.vvlan_join 4 "), std::string::npos) << "no port has joined:\n" << wanted;
    }

    test::RedisServer server;
    const std::string config;
    std::string wanted;
};

TEST_F(AgentDrill, KilledAtTwoHundredPointsLeavesWhatOneAgentLeaves)
{
    const auto kill_many = [&](Surroundings &around) {
        for (unsigned i = 0; i < kill_count; i++) {
            const AgentProcess agent(config, server.address());
            around.run_for(start_span_us * (i / 2) / (kill_count / 2));
            if (i % 2 != 0) {
                around.storm();
                around.run_for(500 + 40 * i);
            }
        }
    };
    EXPECT_EQ(picture_after(server.address(), config, kill_many), wanted);
}

TEST_F(AgentDrill, CutOffAfterEachOfTheFirstBytesOfReplies)
{
    Proxy proxy(server.folder(), server.socket());
    unsigned restarts = 0;
    const auto cut_many = [&](Surroundings &around) {
        auto agent = std::make_unique<AgentProcess>(config, proxy.address());
        around.run_for(start_span_us);
        const Mac oui = {0x00, 0xaa, 0x07, 0x00, 0x00, 0x00};
        for (int n = 1; n <= cut_bytes_max; n++) {
            proxy.cut_after(n);
            for (int round = 0; round < 400 && !proxy.has_cut(); round++) {
                std::string why;
                EXPECT_TRUE(around.op->set_oui(oui, prefix_mask(24), round % 2 == 0, why)) << why;
                around.storm();
                around.run_for(10'000);
                if (agent->has_ended()) {
                    agent = std::make_unique<AgentProcess>(config, proxy.address());
                    restarts++;
                }
            }
            EXPECT_TRUE(proxy.has_cut()) << "the agent asks for nothing before byte " << n;
            around.run_for(settle_us);
        }
        std::string why;
        EXPECT_TRUE(around.op->set_oui(oui, prefix_mask(24), false, why)) << why;
        around.run_for(100'000);
    };
    EXPECT_EQ(picture_after(server.address(), config, cut_many), wanted);
    std::printf("%d cuts, %u restarts of the agent\n", cut_bytes_max, restarts);
}

} // namespace
} // namespace vvl::drill
