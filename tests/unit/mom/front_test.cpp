// The front against what a store of other processes may do to it: objects that
// are not what they should be, and requests that fail late.
#include "tests/unit/mom/store_harness.h"

namespace vvl::mom
{
namespace
{

struct Deaf final : SessionEvents {
    void link_lost(uint32_t) override {}
    void link_back(uint32_t, bool) override {}
    void changed(const Change &) override {}
};

using StoreForeignObjects = StoreTest;
INSTANTIATE_TEST_SUITE_P(Stores, StoreForeignObjects, testing::ValuesIn(stores_under_test()),
                         testing::PrintToStringParamName());

TEST_P(StoreForeignObjects, MalformedOnesAreLoggedOnceAndSkipped)
{
    LogCapture log;
    Deaf deaf;
    auto raw = store_->open(loop_, deaf, "raw");
    ASSERT_EQ(raw->connect_now(4), 0);
    play_("r subscribe 4 port 0 > a");
    std::string other_key;
    ASSERT_TRUE(pack(*make("port 8"), other_key));
    const std::string type = "p_bridge.vvlan_port_cfg";
    auto write = [&](const Name &name, const Value &value) {
        ASSERT_EQ(raw->write(name, value, WriteMode::replace, {}, {}), 0);
    };
    write({4, type, "7"}, {"\x2a\x7f", {}}); // does not unpack
    write({4, type, "9"}, {other_key, {}});  // is another object
    write({4, type, "07"}, {other_key, {}}); // a key that nobody writes
    write({4, type, "10"}, {std::string(object_size_max + 1, '\0'), {}});
    write({4, "p_bridge.vvlan_glb_cfg", ""}, {{}, {{7, "\x30\x01"}}});
    write({4, "other.type", "1"}, {"?", {}});
    ASSERT_EQ(raw->remove({4, type, "07"}, {}, {}), 0);
    play_(R"(w set 4 port 8
        a: established, set port 8
        r list 4 port 0 > a
        a! set port 8
        r list 4 glb > a
        r get 4 port 7 > a = -4
        a! none)");
    EXPECT_EQ(log.count("p_bridge.vvlan_port_cfg:7 "), 1u);
    EXPECT_EQ(log.count("malformed"), 5u);
    EXPECT_GT(counters(play_.ctx("r")).malformed, 5u);
}

// Accepts every request and fails it when the loop runs.
class LateFailure final : public Store, public Session
{
  public:
    std::unique_ptr<Session> open(Loop &loop, SessionEvents &, const std::string &) override
    {
        auto session = std::make_unique<LateFailure>();
        session->loop_ = &loop;
        return session;
    }
    int connect_now(uint32_t) override { return 0; }
    int connect(uint32_t, std::function<void()>) override { return 0; }
    int set_link(uint32_t, bool) override { return 0; }
    int write(const Name &, const Value &, WriteMode, Owner, Done done) override { return fail(std::move(done)); }
    int remove(const Name &, Owner, Done done) override { return fail(std::move(done)); }
    int publish(const Name &, const Value &, Done done) override { return fail(std::move(done)); }
    int read_now(const Name &, std::optional<Value> &) override { return TQ_MOM_E_UNREACHABLE; }
    int scan(uint32_t, const std::string &, Listed listed) override
    {
        return fail([listed = std::move(listed)](int result) { listed(result, nullptr); });
    }
    int scan_now(uint32_t, const std::string &, std::vector<Object> &) override { return TQ_MOM_E_UNREACHABLE; }
    int watch(uint32_t, const std::string &, Done done) override { return fail(std::move(done)); }
    int unwatch(uint32_t, const std::string &, Done done) override { return fail(std::move(done)); }
    int begin_cycle(uint32_t, const std::string &, Owner, uint64_t, Done done) override
    {
        return fail(std::move(done));
    }
    int begin_cycle_now(uint32_t, const std::string &, Owner, uint64_t) override { return TQ_MOM_E_UNREACHABLE; }
    int unmark(const Name &, Done done) override { return fail(std::move(done)); }
    int end_cycle(uint32_t, const std::string &, Owner, Done done) override { return fail(std::move(done)); }

  private:
    int fail(Done done)
    {
        if (done) {
            loop_->post([done = std::move(done)] { done(TQ_MOM_E_UNREACHABLE); });
        }
        return 0;
    }
    Loop *loop_ = nullptr;
};

TEST(FrontLateFailures, AreToldAsErrorsAndNeverAsTheEndOfAScanOrAnOpenCycle)
{
    VirtualLoop loop;
    LateFailure store;
    Play play(store, loop);
    play(R"(w scan 4 port 0 > a
        w subscribe 4 port 0 > a
        w begin 4 port 0 > a
        w set 4 port 1 > a
        a: error -11 , error -11 , error -11 done, error -11 done)");
}

} // namespace
} // namespace vvl::mom
