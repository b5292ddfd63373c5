// The front against objects that other processes have written and that are not
// what they should be.
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

} // namespace
} // namespace vvl::mom
