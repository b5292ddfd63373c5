// The store's server dies, hangs, loses its data or is replaced. After each drill
// the switch must look as if nothing had happened, and the store must hold every
// line that it has answered for.
#include "tests/drill/rig.h"
#include "tests/support/redis_server.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace vvl::drill
{
namespace
{

using test::RedisServer;

// Two ports have joined, two wait.
void start(Rig &rig)
{
    rig.carry_out(base_lines);
    rig.run_for(50);
    for (const uint32_t ifx : {1u, 2u, 1u, 2u}) {
        rig.call(ifx);
        rig.run_for(10);
    }
}

std::string oui_line(unsigned number) // below 90
{
    return "oui add 00:aa:" + std::to_string(10 + number) + ":00:00:00/24";
}

TEST(ServerDrill, KilledAndRestartedFromItsFileWhileConfigurationChanges)
{
    Lines lines;
    for (unsigned i = 0; i < 24; i++) {
        lines.push_back(oui_line(i));
    }
    const std::string wanted = fault_free(lines);
    RedisServer server({"--appendfsync", "always"});
    Rig rig(redis_store(server.address()));
    start(rig);
    for (size_t i = 0; i < lines.size(); i++) {
        if (i % 4 == 3) {
            rig.try_once(lines[i]); // on its way when the server dies
            server.kill();
            rig.run_for(i % 8 == 3 ? 0 : 120); // the switch notices, or not
            server.start();
        }
        rig.carry_out({lines[i]});
    }
    EXPECT_EQ(rig.picture_like(wanted), wanted);
    // The operator may be back before the reader, which therefore may miss a kill
    // or two, but in the end its four databases are back.
    EXPECT_TRUE(rig.run_until([&] { return rig.returns() >= 4; }));
}

TEST(ServerDrill, StoppedForFiveSecondsDoesNotStopTheLoop)
{
    const std::string wanted = fault_free({oui_line(1), oui_line(2)});
    RedisServer server;
    Rig rig(redis_store(server.address()));
    start(rig);
    rig.carry_out({oui_line(1)});
    uint64_t longest_us = 0;
    uint64_t last_us = rig.loop().now_us();
    std::function<void()> beat = [&] {
        longest_us = std::max(longest_us, rig.loop().now_us() - last_us);
        last_us = rig.loop().now_us();
        rig.loop().add_timer(10'000, beat);
    };
    rig.loop().post(beat);
    server.pause();
    for (int i = 0; i < 50; i++) {
        rig.call(1 + i % 4);
        rig.try_once(oui_line(2));
        rig.run_for(100);
    }
    server.proceed();
    rig.carry_out({oui_line(2)});
    std::printf("longest stall of the loop: %.0f ms\n", static_cast<double>(longest_us) / 1000);
    EXPECT_LT(longest_us, 1'000'000u);
    EXPECT_EQ(rig.picture_like(wanted), wanted);
    beat = [] {};
    rig.run_for(20);
}

TEST(ServerDrill, EmptiedOrReplacedDataSetIsNoticedAndTakesTheLoadedConfiguration)
{
    const Lines changed = {"vlan 200 on", "oui add 00:04:76:00:00:00/24", "port 1 auto", "port 2 auto"};
    RedisServer server;
    RedisServer other;
    const struct {
        std::function<void()> harm;
        Lines loaded; // afterwards
        std::string wanted;
    } rows[] = {{[&] { EXPECT_EQ(server.cli({"FLUSHALL"}), "OK\n"); }, base_lines, fault_free({})},
                {[&] {
                     server.kill();
                     std::filesystem::rename(other.socket(), server.socket());
                 },
                 changed, fault_free(changed, {})}};
    Rig rig(redis_store(server.address()));
    start(rig);
    for (const auto &row : rows) {
        const size_t before = rig.returns();
        row.harm();
        EXPECT_TRUE(rig.run_until([&] { return rig.returns() > before; })) << "the new data set was not noticed";
        rig.carry_out(row.loaded);
        EXPECT_EQ(rig.picture_like(row.wanted), row.wanted);
    }
}

// A free TCP port of the loopback interface.
std::string free_port()
{
    const int probe = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    socklen_t size = sizeof address;
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    EXPECT_EQ(bind(probe, reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
    getsockname(probe, reinterpret_cast<sockaddr *>(&address), &size);
    close(probe);
    return std::to_string(ntohs(address.sin_port));
}

TEST(ServerDrill, ReplicaTakesOverFromAKilledPrimaryUnderASentinel)
{
    const std::string wanted = fault_free({oui_line(1), oui_line(2)});
    const std::string ports[] = {free_port(), free_port(), free_port()};
    // Without it the primary waits 5 s for further replicas.
    RedisServer primary({"--port", ports[0], "--bind", "127.0.0.1", "--repl-diskless-sync-delay", "0"});
    RedisServer replica({"--port", ports[1], "--bind", "127.0.0.1", "--replicaof", "127.0.0.1 " + ports[0]});
    RedisServer sentinel({"--port", ports[2], "--bind", "127.0.0.1"},
                         {"sentinel monitor sw 127.0.0.1 " + ports[0] + " 1", "sentinel down-after-milliseconds sw 500",
                          "sentinel failover-timeout sw 2000"});
    Rig rig(redis_store("sentinel://127.0.0.1:1,127.0.0.1:" + ports[2] + "/sw"));
    start(rig);
    rig.carry_out({oui_line(1)});
    // Replication is asynchronous: a change that has not reached the replica may be lost.
    const auto number_at = [](const RedisServer &server, const char *db) {
        return server.cli({"-n", db, "HGET", "sw1:#state", "seq"});
    };
    EXPECT_TRUE(rig.run_until([&] {
        return std::ranges::all_of(std::initializer_list<const char *>{"4", "6", "8"}, [&](const char *db) {
            return number_at(primary, db).size() > 1 && number_at(primary, db) == number_at(replica, db);
        });
    })) << "the replica does not follow";
    // A Sentinel promotes only what it has seen as a replica.
    EXPECT_TRUE(rig.run_until([&] {
        return sentinel.cli({"SENTINEL", "replicas", "sw"}).find(ports[1]) != std::string::npos;
    }));
    primary.kill();
    rig.carry_out({oui_line(2)});
    EXPECT_EQ(rig.picture_like(wanted), wanted);
    EXPECT_EQ(replica.cli({"-n", "4", "EXISTS", "sw1:p_bridge.vvlan_glb_cfg"}), "1\n");
}

} // namespace
} // namespace vvl::drill
