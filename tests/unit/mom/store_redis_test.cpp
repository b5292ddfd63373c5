// What only a store in another process can meet: logins, values that somebody
// else has put there, and what a reconnection finds.
#include "platform/host/uv_loop.h"
#include "platform/mom/redis/address.h"
#include "platform/mom/redis/store_redis.h"
#include "tests/support/redis_server.h"
#include "tests/unit/mom/store_harness.h"

#include <sys/stat.h>

#include <atomic>
#include <fstream>
#include <thread>

namespace vvl::mom
{
namespace
{

class RedisStoreTest : public testing::Test
{
  protected:
    std::unique_ptr<Store> make(const std::string &prefix, const std::string &credentials = "")
    {
        std::string why;
        auto store = make_redis_store({server_.address(), prefix, credentials}, why);
        EXPECT_NE(store, nullptr) << why;
        return store;
    }
    std::string cli(std::vector<std::string> words)
    {
        words.insert(words.begin(), {"-n", "4"});
        return server_.cli(words);
    }

    test::RedisServer server_;
    VirtualLoop loop_;
};

TEST_F(RedisStoreTest, ForeignValuesAreLoggedOnceAndSkipped)
{
    const auto store = make("sw1:");
    Play play(*store, loop_);
    play(R"(r set 4 port 2 mode=2
        r set 4 port 3 mode=3
        r set 4 port 4 mode=4
        r set 4 glb secu_mode=1
        a:)");
    const std::string key = "sw1:p_bridge.vvlan_port_cfg:";
    cli({"DEL", key + "2"});
    cli({"LPUSH", key + "2", "x"});
    cli({"SET", key + "3", std::string(object_size_max + 1, 'x')});
    cli({"HSET", "sw1:p_bridge.vvlan_port_cfg#meta", "not/a/key", "0 1"});
    cli({"SET", key + "not/a/key", "x"});
    cli({"HSET", "sw1:p_bridge.vvlan_glb_cfg", "x", "y"});
    LogCapture log;
    play("r list 4 port 0 > a; r list 4 port 0 > a; a! set port 4 mode=4, set port 4 mode=4");
    play("r list 4 glb > a; a!");
    for (const char *bad : {"port_cfg:2 has the wrong Redis type", "port_cfg:3 is larger than 65536 bytes",
                            "port_cfg:not/a/key ", "glb_cfg has malformed fields and is skipped"}) {
        EXPECT_EQ(log.count(bad), 1u) << bad;
    }
    // A write takes the place of what is foreign.
    play("r set 4 port 2 mode=22; r list 4 port 0 > a; a: set port 2 mode=22, set port 4 mode=4");
}

TEST_F(RedisStoreTest, LoginComesFromAFileThatNotEverybodyCanRead)
{
    const std::string file = server_.folder() + "/login";
    std::ofstream(file) << "agent secret\n";
    cli({"ACL", "SETUSER", "agent", "on", ">secret", "~sw1:*", "&sw1:*", "+@all"});
    cli({"ACL", "SETUSER", "default", "off"});
    std::string why;
    chmod(file.c_str(), 0644);
    EXPECT_EQ(make_redis_store({server_.address(), "sw1:", file}, why), nullptr);
    EXPECT_EQ(why, "credentials file " + file + ": everybody can read it; chmod o-r");
    chmod(file.c_str(), 0600);
    const auto store = make("sw1:", file);
    Play play(*store, loop_);
    play("r set 4 port 1 mode=1; r list 4 port 0 > a; a! set port 1 mode=1");
    LogCapture log;
    const auto stranger = make("sw1:");
    int ctx = 0; // its address names the client
    EXPECT_EQ(attach(&ctx, *stranger, loop_, "stranger"), 0);
    EXPECT_EQ(tq_mom_client_connect_sync(&ctx, 4), TQ_MOM_E_UNREACHABLE);
    EXPECT_EQ(log.count("stranger: database 4 is lost: "), 1u);
    EXPECT_EQ(log.count("NOAUTH"), 1u);
    detach(&ctx);
}

// What a session is told.
struct Returns final : SessionEvents {
    void link_lost(uint32_t) override { told.push_back("lost"); }
    void link_back(uint32_t, bool missed) override { told.push_back(missed ? "missed" : "complete"); }
    void changed(const Change &change) override { told.push_back("changed " + change.name.key); }
    Lines told;
};

class RedisSessionTest : public RedisStoreTest
{
  protected:
    // A session that is connected to database 4.
    std::unique_ptr<Session> open(Loop &loop, Returns &events)
    {
        auto session = store_->open(loop, events, "session");
        EXPECT_EQ(session->connect_now(4), 0);
        return session;
    }
    static void write(Session &session, const char *key, Owner owner = {}, Done done = {})
    {
        EXPECT_EQ(session.write({4, "t.x", key}, {"v", {}}, WriteMode::replace, owner, std::move(done)), 0);
    }

    std::unique_ptr<Store> store_ = make("sw1:");
    host::UvLoop real_loop_; // on which requests of one turn are on their way together
    Returns events_;
};

// Changes that were made before a client has come up may reach it afterwards.
TEST_F(RedisSessionTest, ConnectingWhileOthersWriteIsNoLoss)
{
    LogCapture log;
    open(real_loop_, events_); // the functions are there now
    std::atomic<bool> is_over = false;
    std::thread writer([&] {
        while (!is_over) {
            cli({"-r", "1000", "FCALL", "vvlan2_write", "0", "sw1:", "4", "t.x", "", "1", "v"});
        }
    });
    for (int i = 0; i < 300; i++) {
        const auto session = open(real_loop_, events_);
        real_loop_.add_timer(1000, [&] { real_loop_.stop(); });
        real_loop_.run();
    }
    is_over = true;
    writer.join();
    EXPECT_EQ(events_.told, Lines{});
    EXPECT_EQ(log.count("is lost"), 0u);
}

TEST_F(RedisSessionTest, ReconnectionTellsWhetherAnythingWasMissed)
{
    Returns ignored;
    const auto session = open(loop_, events_);
    const auto writer = open(loop_, ignored);
    EXPECT_EQ(session->watch(4, "t.x", {}), 0);
    for (const bool missed : {false, true}) {
        // Both sessions, as their connections cannot be told apart from outside.
        cli({"CLIENT", "KILL", "TYPE", "normal", "SKIPME", "yes"});
        loop_.run_pending();
        if (missed) {
            cli({"FCALL", "vvlan2_write", "0", "sw1:", "4", "t.x", "", "2", "v"});
        }
        loop_.advance(10'000'000);
        write(*writer, "1");
        loop_.run_pending();
        // The watch goes on, or has to be made again.
        EXPECT_EQ(std::exchange(events_.told, {}),
                  missed ? (Lines{"lost", "missed"}) : (Lines{"lost", "complete", "changed 1"}));
    }
}

TEST_F(RedisSessionTest, WritesOfOneTurnKeepTheirOrderAndTheirOwnResults)
{
    const auto session = open(real_loop_, events_);
    cli({"HSET", "sw1:#state", "count", std::to_string(database_object_count_max - 2)});
    const auto note = [&](const std::string &what) {
        return [this, what](int result) { events_.told.push_back(what + " " + std::to_string(result)); };
    };
    real_loop_.post([&] {
        EXPECT_EQ(session->watch(4, "t.x", {}), 0);
        for (const char *key : {"1", "2", "1", "3", "2"}) { // there is room for two
            write(*session, key, {}, note(key));
        }
        write(*session, "2", 7, note("2"));
        EXPECT_EQ(session->remove({4, "t.x", "1"}, {}, note("removed")), 0);
        write(*session, "3", {}, note("3"));
        EXPECT_EQ(session->watch(4, "t.x", [&](int) { real_loop_.stop(); }), 0);
    });
    real_loop_.run();
    EXPECT_EQ(events_.told, (Lines{"changed 1", "1 0", "changed 2", "2 0", "changed 1", "1 0", "3 -6", "changed 2",
                                   "2 0", "changed 2", "2 0", "changed 1", "removed 0", "changed 3", "3 0"}));
    EXPECT_EQ(cli({"HGET", "sw1:#state", "count"}), std::to_string(database_object_count_max) + "\n");
}

TEST_F(RedisSessionTest, AScanThatFindsNothingChangedSharesTheOneBefore)
{
    const auto session = open(real_loop_, events_);
    std::vector<Snapshot> seen;
    const Listed listed = [&](int, const Snapshot &snapshot) {
        seen.push_back(snapshot);
        if (seen.size() == 2) {
            write(*session, "2");
            session->scan(4, "t.x", listed);
        } else if (seen.size() == 3) {
            real_loop_.stop();
        }
    };
    real_loop_.post([&] {
        write(*session, "1");
        session->scan(4, "t.x", listed);
        session->scan(4, "t.x", listed);
    });
    real_loop_.run();
    ASSERT_EQ(seen.size(), 3u);
    EXPECT_EQ(seen[0], seen[1]);
    EXPECT_EQ(seen[1]->size(), 1u);
    EXPECT_EQ(seen[2]->size(), 2u);
}

// A failed scan has no end record, and a cycle that was refused does not look open.
TEST_F(RedisSessionTest, RequestsThatTheServerRefusesAreToldAsErrors)
{
    LogCapture log;
    Play play(*store_, real_loop_);
    play("w list 4 port 0 > a");
    cli({"ACL", "SETUSER", "default", "-fcall"});
    int count = 0;
    play.told("a").on_line = [&](const std::string &) {
        if (++count == 4) {
            real_loop_.stop();
        }
    };
    play("w scan 4 port 0 > a; w subscribe 4 port 0 > a; w begin 4 port 0 > a; w set 4 port 1 > a");
    real_loop_.run();
    play("a! error -11 , error -11 , error -11 done, error -11 done; w list 4 port 0 > a = -11; a!");
}

TEST(RedisAddress, AcceptsThreeFormsAndNamesWhatItRefuses)
{
    // What is read are endpoints, and the group.
    const std::pair<const char *, const char *> cases[] = {{"redis://10.0.0.1", "10.0.0.1:6379"},
                                                           {"redis://[::1]:7000", "::1:7000"},
                                                           {"unix:/run/s", "/run/s"},
                                                           {"unix:///run/s", "/run/s"},
                                                           {"sentinel://a:1,b/sw", "a:1 b:26379 sw"},
                                                           {"redis://", nullptr},
                                                           {"redis://h:0", nullptr},
                                                           {"redis://h:65536", nullptr},
                                                           {"redis://user:secret@h", nullptr},
                                                           {"unix:", nullptr},
                                                           {"sentinel://a:1", nullptr},
                                                           {"sentinel://a:1/", nullptr},
                                                           {"http://h", nullptr}};
    for (const auto &[text, expected] : cases) {
        RedisAddress address;
        std::string why;
        std::string read;
        const bool good = parse_redis_address(text, address, why);
        for (const RedisEndpoint &endpoint : address.endpoints) {
            read += (read.empty() ? "" : " ") + endpoint.text();
        }
        read += address.group.empty() ? "" : " " + address.group;
        EXPECT_EQ(good, expected != nullptr) << text;
        EXPECT_EQ(read, expected != nullptr ? expected : "") << text;
        EXPECT_EQ(why.empty(), good) << text;
    }
}

} // namespace
} // namespace vvl::mom
