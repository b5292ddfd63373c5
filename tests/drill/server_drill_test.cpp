// Drills with a server that dies, hangs, loses its data or is replaced. After
// each the switch must look as if nothing had happened, and hold every line
// that the store has answered for.
#include "platform/mom/redis/store_redis.h"
#include "tests/drill/proxy.h"
#include "tests/drill/rig.h"
#include "tests/support/redis_server.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace vvl::drill
{
namespace
{

using test::RedisServer;

std::unique_ptr<mom::Store> redis_store(const std::string &address)
{
    std::string why;
    auto store = mom::make_redis_store({address, "sw1:", {}}, why);
    EXPECT_NE(store, nullptr) << why;
    return store;
}

std::vector<std::string> operator+(std::vector<std::string> lines, const std::vector<std::string> &more)
{
    lines.insert(lines.end(), more.begin(), more.end());
    return lines;
}

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

std::string oui_line(unsigned number, const char *verb = "add")
{
    char text[64];
    std::snprintf(text, sizeof text, "oui %s 00:aa:%02x:00:00:00/24", verb, number);
    return text;
}

TEST(ServerDrill, KilledAndRestartedFromItsFileWhileConfigurationChanges)
{
    std::vector<std::string> lines;
    for (unsigned i = 0; i < 24; i++) {
        lines.push_back(oui_line(i));
    }
    const std::string wanted = fault_free(base_lines + lines);
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
        rig.carry_out(lines[i]);
    }
    EXPECT_EQ(rig.picture_like(wanted), wanted);
    // The reader may be away from one kill to the next, as the operator comes
    // back sooner, but it comes back with its four databases.
    EXPECT_TRUE(rig.run_until([&] { return rig.returns() >= 4; }));
}

TEST(ServerDrill, StoppedForFiveSecondsDoesNotStopTheLoop)
{
    const std::string wanted = fault_free(base_lines + std::vector<std::string>{oui_line(1), oui_line(2)});
    RedisServer server;
    Rig rig(redis_store(server.address()));
    start(rig);
    rig.carry_out(oui_line(1));
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
    rig.carry_out(oui_line(2));
    std::printf("longest stall of the loop: %.0f ms\n", static_cast<double>(longest_us) / 1000);
    EXPECT_LT(longest_us, 1'000'000u);
    std::string seen = rig.picture_like(wanted);
    rig.loop().post([] {});
    EXPECT_EQ(seen, wanted);
    beat = [] {};
    rig.run_for(20);
}

TEST(ServerDrill, EmptiedOrReplacedDataSetIsNoticedAndTakesTheLoadedConfiguration)
{
    const std::vector<std::string> changed = {"vlan 200 on", "oui add 00:04:76:00:00:00/24", "port 1 auto",
                                              "port 2 auto"};
    const std::string wanted = fault_free(base_lines);
    const std::string wanted_then = fault_free(changed);
    RedisServer server;
    RedisServer other;
    Proxy proxy(server.folder(), server.socket());
    Rig rig(redis_store(proxy.address()));
    start(rig);

    size_t before = rig.returns();
    EXPECT_EQ(server.cli({"FLUSHALL"}), "OK\n");
    EXPECT_TRUE(rig.run_until([&] { return rig.returns() > before; })) << "the empty data set was not noticed";
    start(rig);
    EXPECT_EQ(rig.picture_like(wanted), wanted);

    before = rig.returns();
    proxy.switch_to(other.socket());
    EXPECT_TRUE(rig.run_until([&] { return rig.returns() > before; })) << "the other data set was not noticed";
    rig.carry_out(changed);
    EXPECT_EQ(rig.picture_like(wanted_then), wanted_then);
}

// A port of the loopback interface that nobody has.
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
    const std::string wanted = fault_free(base_lines + std::vector<std::string>{oui_line(1), oui_line(2)});
    const std::string ports[] = {free_port(), free_port(), free_port()};
    // Without the delay of 5 s in which a server gathers replicas.
    RedisServer primary({"--port", ports[0], "--bind", "127.0.0.1", "--repl-diskless-sync-delay", "0"});
    RedisServer replica({"--port", ports[1], "--bind", "127.0.0.1", "--replicaof", "127.0.0.1 " + ports[0]});
    RedisServer sentinel({"--port", ports[2], "--bind", "127.0.0.1"},
                         {"sentinel monitor sw 127.0.0.1 " + ports[0] + " 1", "sentinel down-after-milliseconds sw 500",
                          "sentinel failover-timeout sw 2000"});
    Rig rig(redis_store("sentinel://127.0.0.1:1,127.0.0.1:" + ports[2] + "/sw"));
    start(rig);
    rig.carry_out(oui_line(1));
    // Replication is asynchronous; what has not reached the replica is lost by rights.
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
    rig.carry_out(oui_line(2));
    EXPECT_EQ(rig.picture_like(wanted), wanted);
    EXPECT_EQ(replica.cli({"-n", "4", "EXISTS", "sw1:p_bridge.vvlan_glb_cfg"}), "1\n");
}

} // namespace
} // namespace vvl::drill
