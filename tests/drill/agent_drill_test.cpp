// The agent as a process, killed at many points of its start and of a storm of
// joining ports. The packet side and the bridge side run here, on the same server.
// What the killed agents leave in the store must be what an agent leaves that was
// never killed, and a new agent must make the same tables and plane of it.
#include "platform/host/services.h"
#include "platform/mom/databases.h"
#include "platform/sides/bridge_side.h"
#include "platform/sides/packet_side.h"
#include "tests/drill/rig.h"
#include "tests/support/child_process.h"
#include "tests/support/redis_server.h"

#include <gtest/gtest.h>

#include <fstream>
#include <set>

namespace vvl::drill
{
namespace
{

constexpr const char *join_type = "u_bridge.vvlan_join";
constexpr const char *trap_type = "u_bridge.vvlan_port_cfg";
constexpr const char *report_type = "p_bridge.vvlan_port_auto";
constexpr unsigned kill_count = 200;
constexpr uint64_t start_span_us = 250'000; // kills are spread over this time from the start of the process
constexpr uint64_t storm_span_us = 10'000;  // and over this time from the first frame

// The packet side and the bridge side on a plane of which only the traps count,
// and an observer of the joins.
struct Surroundings : mom::SessionEvents {
    explicit Surroundings(const std::string &address) : store(redis_store(address))
    {
        std::string why;
        host::set_port_map(ports);
        EXPECT_TRUE(packet.start(why) && bridge.start(why) && op.connect(why)) << why;
        for (const auto &[db, type] :
             {std::pair(TQ_MOM_UDP_DB, join_type), {TQ_MOM_UDP_DB, trap_type}, {mom::db_config, report_type}}) {
            EXPECT_EQ(observer->connect_now(db), 0);
            EXPECT_EQ(observer->watch(db, type, {}), 0);
        }
    }
    void link_lost(uint32_t) override {}
    void link_back(uint32_t, bool) override {}
    void changed(const mom::Change &change) override
    {
        // The host reports a half-made join before the module reads anything.
        const bool is_host = change.name.type == report_type && unreported.erase(change.name.key) != 0;
        has_written |= !is_host;
        if (const auto told = on_join; told && change.name.type == join_type) {
            told();
        }
    }
    size_t count(uint32_t db, const char *type) const
    {
        std::vector<mom::Object> objects;
        EXPECT_EQ(observer->scan_now(db, type, objects), 0);
        return objects.size();
    }
    // Before the next agent starts: it has written nothing, and its host will report what is not reported.
    void expect_agent()
    {
        has_written = false;
        unreported.clear();
        std::vector<mom::Object> objects;
        EXPECT_EQ(observer->scan_now(TQ_MOM_UDP_DB, join_type, objects), 0);
        for (const mom::Object &join : objects) {
            unreported.insert(join.key);
        }
        EXPECT_EQ(observer->scan_now(mom::db_config, report_type, objects), 0);
        for (const mom::Object &report : objects) {
            unreported.erase(report.key);
        }
    }
    // Runs until so many ports have joined and are reported as joined, and so many are trapped.
    bool run_until_ports(size_t joined, size_t trapped, bool are_calling)
    {
        return run_until(loop, [&] {
            if (are_calling) {
                storm();
            }
            return count(TQ_MOM_UDP_DB, join_type) == joined && count(mom::db_config, report_type) == joined &&
                   count(TQ_MOM_UDP_DB, trap_type) == trapped;
        });
    }
    // Each port's telephone sends a frame: trapped where the port is, and learned.
    void storm()
    {
        for (const host::PortId &port : ports) {
            const Mac phone = {0x00, 0x04, 0x76, 0x22, 0x20, static_cast<uint8_t>(port.ifx)};
            packet.voice_trapped(port.phyid, phone, {});
            bridge.mac_seen(100, phone, port.phyid);
        }
    }

    const std::vector<host::PortId> ports = {{1, 0x101}, {2, 0x102}, {3, 0x103}, {4, 0x104}};
    std::function<void()> on_join;    // may be empty
    bool has_written = false;         // the module of an agent, for one of the ports
    std::set<std::string> unreported; // joins that an agent found without a report
    host::UvLoop loop;
    std::unique_ptr<mom::Store> store;
    fp::SoftPlane plane{loop};
    sides::PacketSide packet{*store, loop, plane};
    sides::BridgeSide bridge{*store, loop, plane};
    oper::Operator op{*store, loop};
    std::unique_ptr<mom::Session> observer = store->open(loop, *this, "observer");
};

class AgentDrill : public testing::Test
{
  protected:
    AgentDrill() : config_(server_.folder() + "/vvland.conf")
    {
        std::ofstream file(config_);
        file << "[host]\nlog-level = error\n";
        for (int ifx = 1; ifx <= 4; ifx++) {
            file << "[port " << ifx << "]\nphyid = " << 0x100 + ifx << "\n";
        }
    }

    test::ChildProcess agent(const std::string &address) const
    {
        return test::ChildProcess(
            {VVLAND_COMMAND, "run", "--role", "agent", "--config", config_, "--store", address, "--prefix", "sw1:"});
    }

    // Starts an agent and kills it: in its start, in a storm of joins, or at the
    // first join of a storm. Before a storm the agent must have put right what
    // the one before it has left.
    void kill_one(Surroundings &around, unsigned number)
    {
        enum { in_start, in_storm, at_join, kinds };
        const uint64_t step = number / kinds;
        run_for(around.loop, 2000); // the last words of the one before
        around.expect_agent();
        test::ChildProcess victim = agent(server_.address());
        if (number % kinds == in_start) {
            run_for(around.loop, start_span_us * step * kinds / kill_count);
            return;
        }
        const size_t all = around.ports.size();
        // A line that is there before the agent reads the configuration is no change for it.
        ASSERT_TRUE(run_until(around.loop, [&] { return around.has_written; }))
            << "kill " << number << ": the next agent neither traps a port nor reports one";
        ASSERT_TRUE(around.run_until_ports(all, 0, true)) << "kill " << number << ": a join is not reported";
        EXPECT_TRUE(write_line(around.op, "vlan 100 off"));
        ASSERT_TRUE(around.run_until_ports(0, 0, false));
        EXPECT_TRUE(write_line(around.op, "vlan 100 on"));
        ASSERT_TRUE(around.run_until_ports(0, all, false));
        EXPECT_FALSE(victim.has_ended());
        if (number % kinds == at_join) {
            around.on_join = [&] {
                victim.kill();
                killed_at_join_++;
                around.on_join = {};
            };
        }
        around.storm();
        run_for(around.loop, number % kinds == at_join ? storm_span_us : storm_span_us * step * kinds / kill_count);
        around.on_join = {};
    }

    // What a new agent makes of what is in the store, once the lines are written,
    // the trouble is over and all ports have called.
    std::string picture_after(const std::string &address, const std::function<void(Surroundings &)> &trouble)
    {
        {
            Surroundings around(address);
            for (const std::string &line : base_lines) {
                EXPECT_TRUE(write_line(around.op, line)) << line;
            }
            trouble(around);
            const test::ChildProcess survivor = agent(address); // until every port has joined
            for (int i = 0; i < 40; i++) {
                run_for(around.loop, 50'000);
                around.storm();
            }
        }
        Rig rig(redis_store(address), false);
        rig.run_for(500);
        return rig.picture();
    }

    test::RedisServer server_;
    const std::string config_;
    unsigned killed_at_join_ = 0;
};

TEST_F(AgentDrill, KilledAtTwoHundredPointsLeavesWhatOneAgentLeaves)
{
    const test::RedisServer calm;
    const std::string wanted = picture_after(calm.address(), [](Surroundings &) {});
    EXPECT_NE(wanted.find("u_bridge.vvlan_join 4 "), std::string::npos) << "no port has joined:\n" << wanted;
    const auto kill_many = [&](Surroundings &around) {
        for (unsigned i = 0; i < kill_count && !HasFatalFailure(); i++) {
            kill_one(around, i);
        }
    };
    EXPECT_EQ(picture_after(server_.address(), kill_many), wanted);
    std::printf("%u kills, %u of them at a join\n", kill_count, killed_at_join_);
    EXPECT_GT(killed_at_join_, 0u);
}

} // namespace
} // namespace vvl::drill
