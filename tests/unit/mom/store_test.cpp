// The contract of store.h and tq_mom.h where a script does not say it.
#include "platform/mom/owned_client.h"
#include "tests/unit/mom/store_harness.h"

#include "p_bridge.pb-c.h"
#include "s_cluster.pb-c.h"

namespace vvl::mom
{
namespace
{

using StoreContract = StoreTest;
INSTANTIATE_TEST_SUITE_P(Stores, StoreContract, testing::ValuesIn(stores_under_test()),
                         testing::PrintToStringParamName());

TEST_P(StoreContract, RefusedCallsChangeNothingAndAreCounted)
{
    SCluster__AppName name = S_CLUSTER__APP_NAME__INIT;
    SCluster__RegPktInfo keyless = S_CLUSTER__REG_PKT_INFO__INIT;
    SCluster__RegPktInfo large = keyless;
    std::string text(TQ_MOM_OBJECT_SIZE_MAX, 'x');
    large.index = &name;
    large.dlib_name = text.data();
    SCluster__AppName long_name = name;
    SCluster__RegPktInfo long_key = keyless;
    long_name.name = text.data() + text.size() - 2000;
    long_key.index = &long_name;
    const MessagePtr port = make("port 1");
    const MessagePtr global = make("glb secu_mode=1");
    LogCapture log;
    play_("r subscribe 0 glb > a\na: established");
    void *ctx = play_.ctx("w");
    const struct {
        uint32_t db;
        const ProtobufCMessage *object;
        int result;
        const char *logged; // in this row's line, the first time
    } rows[] = {
        {4, nullptr, TQ_MOM_E_INVALID, ""},
        {4, &keyless.base, TQ_MOM_E_INVALID, "s_cluster.reg_pkt_info has no key"},
        {4, &name.base, TQ_MOM_E_INVALID, "s_cluster.app_name is not an object type"},
        {4, &large.base, TQ_MOM_E_INVALID, "s_cluster.reg_pkt_info is larger than 65536 bytes"},
        {4, &long_key.base, TQ_MOM_E_INVALID, "or one that is too long"},
        {16, port.get(), TQ_MOM_E_INVALID, ""},
        {5, port.get(), TQ_MOM_E_UNREACHABLE, "database 5"},
    };
    Recorder &told = play_.told("a");
    for (const auto &row : rows) {
        EXPECT_EQ(tq_mom_set(ctx, row.db, row.object, Recorder::callback, &told), row.result) << row.logged;
        EXPECT_GE(log.count(row.logged), 1u - (*row.logged == '\0')) << row.logged;
    }
    EXPECT_EQ(tq_mom_set(ctx, 5, port.get(), nullptr, nullptr), TQ_MOM_E_UNREACHABLE);
    EXPECT_EQ(log.count("database 5"), 1u);
    const uint32_t fields[] = {6, 99};
    EXPECT_EQ(set_fields(ctx, 4, global.get(), fields, 2), TQ_MOM_E_INVALID);
    EXPECT_EQ(set_fields(ctx, 4, port.get(), fields, 1), TQ_MOM_E_INVALID);
    EXPECT_EQ(tq_mom_scan(ctx, 4, port.get(), 1, Recorder::callback, &told), TQ_MOM_E_INVALID);
    EXPECT_EQ(tq_mom_scan(ctx, 4, port.get(), 0, nullptr, nullptr), TQ_MOM_E_INVALID);
    EXPECT_EQ(counters(ctx).refused, 12u);
    EXPECT_EQ(tq_mom_set(&name, 4, port.get(), nullptr, nullptr), TQ_MOM_E_INVALID); // no client
    play_("r list 4 port 0 > a\nr list 4 glb > a\na:");
}

TEST_P(StoreContract, AFullDatabaseRefusesNewObjectsOnly)
{
    const MessagePtr object = make("port 0");
    auto *index = get_member<PBridge__VvlanIndex *>(*object, *find_type(object->descriptor->name)->key);
    void *ctx = play_.ctx("w");
    for (; index->ifx < database_object_count_max; index->ifx++) {
        ASSERT_EQ(tq_mom_set(ctx, 8, object.get(), nullptr, nullptr), 0);
    }
    play_(R"(w set 8 port 65536 = -6
        w set 8 port 7
        w del 8 port 7
        w set 8 port 65536)");
}

TEST_P(StoreContract, ObjectsLiveWhileAnyOwnerHoldsThem)
{
    // Operations (store_harness.h) with their owners. What is written without
    // an owner lives until del; another owner's write does not keep this one's
    // hold; the plain cycle is about objects, whoever holds them, and opening it
    // again starts over.
    const struct {
        bool lives;
        std::vector<const char *> operations;
    } rows[] = {
        {true,
         {"+1 +2 -1", "s0 +1 -1", "+1 s0 -1", "+1 +2 [1 ]1", "+1 [1 +1 ]1", "+1 [1 c0 ]1", "s0 +1 [1 ]1", "+1 [0 +2 ]0",
          "s0 [0 c0 ]0", "s0 [0 s0 ]0 ]0"}},
        {false,
         {"+1 -1", "+1 +2 -2 -1", "+1 +2 d0", "+1 [1 ]1", "+1 +2 [1 ]1 -2", "+1 +2 [1 +2 ]1 -2", "+1 [0 ]0",
          "s0 [0 s0 [0 ]0"}},
    };
    const MessagePtr object = make("port 7");
    play_("r subscribe 4 port 0 > a\na: established");
    for (const auto &[lives, all] : rows) {
        for (const char *operations : all) {
            for (const char *p = operations; *p != '\0'; p += p[2] == ' ' ? 3 : 2) {
                apply(play_.ctx("w"), object.get(), p[0], static_cast<uint64_t>(p[1] - '0'));
            }
            loop_.run_pending();
            EXPECT_TRUE(play_.told("a").take().ends_with(lives ? "set port 7" : "del port 7")) << operations;
            play_(lives ? "r list 4 port 0 > b\nb! set port 7" : "r list 4 port 0 > b\nb!");
            play_("w del 4 port 7");
        }
    }
}

TEST_P(StoreContract, FilterComparesTheMatchFieldsThatTheTemplateGives)
{
    const std::string keys[] = {"10/0/00:04:76:22:20:17", "10/0/00:04:76:22:20:18", "10/2/00:04:76:22:20:17",
                                "11/2/00:04:76:22:20:17"};
    const struct {
        const char *subscribe;
        std::vector<size_t> matched;
    } rows[] = {
        {"subscribe 6 mac 10/0/-", {0, 1, 2, 3}},    {"subscribe_match 6 mac 0/0/-", {0, 1, 2, 3}},
        {"subscribe_match 6 mac 10/0/-", {0, 1, 2}}, {"subscribe_match 6 mac 10/0/00:00:00:00:00:00", {0, 1, 2}},
        {"subscribe_match 6 mac 10/2/-", {2}},       {"subscribe_match 6 mac 10/0/00:04:76:22:20:17", {0, 2}},
        {"subscribe_match 6 mac 12/0/-", {}},
    };
    const auto recorder = [&](size_t row) { return "f" + std::to_string(row); };
    for (size_t i = 0; i < std::size(rows); i++) {
        play_(std::string("r ") + rows[i].subscribe + " > " + recorder(i));
    }
    for (const std::string &key : keys) {
        play_("w set 6 mac " + key);
    }
    for (size_t i = 0; i < std::size(rows); i++) {
        std::string expected = "established";
        for (const size_t matched : rows[i].matched) {
            expected += ", set mac " + keys[matched];
        }
        play_(recorder(i) + ": " + expected);
    }
    play_("r scan_match 6 mac 10/2/- > a\na: set mac " + keys[2] + ", over");
}

TEST_P(StoreContract, AFullTableOfSubscriptionsRefusesFieldsAsAWhole)
{
    const auto subscribe = [&](size_t i) { play_("r subscribe 4 port 0 > s" + std::to_string(i)); };
    for (size_t i = 1; i < subscription_count_max; i++) {
        subscribe(i);
    }
    play_("r subscribe_fields 4 glb secu_mode=0 age_time=0 > a = -6\na:");
    subscribe(0);
    play_("r subscribe 4 port 0 > a = -6");
    subscribe(0); // made again: takes no room
}

TEST_P(StoreContract, CallbacksMayEndAndMakeSubscriptions)
{
    Recorder &told = play_.told("a");
    told.result = -4; // is counted and changes nothing
    told.on_line = [&](const std::string &line) {
        if (line == "set port 1") {
            play_("r unsubscribe 4 port 0 > a\nr unsubscribe 4 port 0 > b\nr subscribe 4 port 0 > c");
        }
    };
    play_(R"(r subscribe 4 port 0 > a
        r subscribe 4 port 0 > b
        w set 4 port 1
        a: established, set port 1, withdrawn
        w set 4 port 2
        b: established, withdrawn
        c: established, set port 2)");
    EXPECT_EQ(counters(play_.ctx("r")).callback_failures, 3u);
    EXPECT_EQ(counters(play_.ctx("r")).delivered, 7u);
}

TEST_P(StoreContract, DetachedClientsAreSilent)
{
    play_(R"(r subscribe 4 port 0 > a
        a: established
        w set 4 port 1
        r scan 4 port 0 > a
        r connect 4 > a
        r cut 6)");
    play_.detach_client("r");
    play_("a:\nr.links:");
}

TEST_P(StoreContract, CallbacksMayDetachTheirClientOrCutItsLink)
{
    play_("w set 4 port 1\nw set 4 port 2");
    for (const std::string row : {"cut", "cut sync", "detach", "detach sync"}) {
        play_("short subscribe 4 port 0 > a\nshort subscribe 4 port 0 > b\na: established\nb: established");
        void *ctx = play_.ctx("short");
        play_.told("a").on_line = [&, ctx](const std::string &) {
            row[0] == 'd' ? detach(ctx) : static_cast<void>(set_link(ctx, 4, false));
            EXPECT_NE(tq_mom_set(ctx, 4, make("port 9").get(), nullptr, nullptr), 0);
        };
        if (row.ends_with("sync")) {
            play_("short list 4 port 0 > a");
        }
        play_("w set 4 port 1\na: set port 1\nb:");
        play_.told("a").on_line = {};
        play_.detach_client("short");
    }
    EXPECT_EQ(attach(play_.ctx("r"), *store_, loop_, "twice"), TQ_MOM_E_INVALID);
}

TEST_P(StoreContract, AnOwningClientSubscribesWhenItIsConnectedAndAfterALoss)
{
    Recorder told;
    {
        OwnedClient client(*store_, loop_, "owned");
        EXPECT_EQ(client.connect(4, [&] { told.add("subscribe"); }), 0);
        EXPECT_EQ(client.connect(0), 0);
        EXPECT_EQ(client.connect(16), TQ_MOM_E_INVALID);
        loop_.run_pending();
        EXPECT_EQ(told.take(), "subscribe");
        for (const uint32_t db : {0u, 4u}) {
            EXPECT_EQ(set_link(client.ctx(), db, false) | set_link(client.ctx(), db, true), 0);
        }
        loop_.run_pending();
        EXPECT_EQ(told.take(), "subscribe");
        client.close();
        EXPECT_EQ(tq_mom_scan(client.ctx(), 4, make("port 0").get(), 0, Recorder::callback, &told), TQ_MOM_E_INVALID);
        EXPECT_EQ(client.connect_now(4), 0);
        EXPECT_EQ(tq_mom_scan(client.ctx(), 4, make("port 0").get(), 0, Recorder::callback, &told), 0);
    }
    loop_.run_pending();
    EXPECT_EQ(told.take(), "");
}

} // namespace
} // namespace vvl::mom
