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
    LogCapture log;
    play_(R"(r subscribe 4 glb > a; a: established
        w set 4 port > a = -4; w set 16 port 1 > a = -4; w set 5 port 1 > a = -11; w set 5 port 1 > a = -11
        w set_fields 4 port 1 enable=1 = -4; w set_fields 4 glb = -4; w scan 4 port 0 = -4)");
    std::string text(TQ_MOM_OBJECT_SIZE_MAX, 'x');
    SCluster__AppName name = S_CLUSTER__APP_NAME__INIT;
    SCluster__AppName long_name = name;
    SCluster__RegPktInfo long_key = S_CLUSTER__REG_PKT_INFO__INIT;
    SCluster__RegPktInfo large = long_key;
    long_name.name = text.data() + text.size() - 2000;
    long_key.index = &long_name;
    large.index = &name;
    large.dlib_name = text.data();
    void *ctx = play_.ctx("w");
    for (const ProtobufCMessage *object :
         std::initializer_list<const ProtobufCMessage *>{nullptr, &name.base, &large.base, &long_key.base}) {
        EXPECT_EQ(tq_mom_set(ctx, 0, object, Recorder::callback, &play_.told("a")), TQ_MOM_E_INVALID);
    }
    const uint32_t unknown = 99;
    EXPECT_EQ(set_fields(ctx, 4, make("glb secu_mode=1").get(), &unknown, 1), TQ_MOM_E_INVALID);
    EXPECT_EQ(tq_mom_scan(ctx, 4, make("port 1").get(), 1, Recorder::callback, &name), TQ_MOM_E_INVALID);
    EXPECT_EQ(counters(ctx).refused, 13u);
    EXPECT_EQ(tq_mom_set(&name, 4, make("port 1").get(), nullptr, nullptr), TQ_MOM_E_INVALID); // no client
    for (const char *line :
         {"p_bridge.vvlan_port_cfg has no key", "database 5", "s_cluster.app_name is not an object type",
          "s_cluster.reg_pkt_info is larger than 65536 bytes", "s_cluster.reg_pkt_info has no key, or"}) {
        EXPECT_EQ(log.count(line), 1u) << line;
    }
    play_("r list 4 port 0 > a; r list 4 glb > a; a:");
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
    // Operations with their owners: s set, d del, c clear_expire, + setow, - del_ow,
    // [ and ] begin and end of a cycle. What is written without an owner lives until
    // del; another owner's write does not keep this one's hold; the plain cycle is
    // about objects, whoever holds them, and opening it again starts over.
    const std::map<char, std::string> operations = {{'s', "set"},   {'d', "del"},    {'c', "clear_expire"},
                                                    {'+', "setow"}, {'-', "del_ow"}, {'[', "begin"},
                                                    {']', "end"}};
    const std::pair<std::string, std::vector<const char *>> rows[] = {
        {"set port 7",
         {"+1 +2 -1", "s0 +1 -1", "+1 s0 -1", "+1 +2 [1 ]1", "+1 [1 +1 ]1", "+1 [1 c0 ]1", "s0 +1 [1 ]1", "+1 [0 +2 ]0",
          "s0 [0 c0 ]0", "s0 [0 s0 ]0 ]0"}},
        {"del port 7",
         {"+1 -1", "+1 +2 -2 -1", "+1 +2 d0", "+1 [1 ]1", "+1 +2 [1 ]1 -2", "+1 +2 [1 +2 ]1 -2", "+1 [0 ]0",
          "s0 [0 s0 [0 ]0"}},
    };
    play_("r subscribe 4 port 0 > a");
    for (const auto &[last, lives] : rows) {
        for (const char *life : lives) {
            for (const char *p = life; *p != '\0'; p += p[2] == ' ' ? 3 : 2) {
                play_("w " + operations.at(p[0]) + " 4 port 7 @" + p[1]);
            }
            loop_.run_pending();
            EXPECT_TRUE(play_.told("a").take().ends_with(last)) << life;
            play_("r list 4 port 0 > b; b! " + (last[0] == 's' ? last : "") + "; w del 4 port 7");
        }
    }
}

TEST_P(StoreContract, AFullTableOfSubscriptionsRefusesFieldsAsAWhole)
{
    const auto subscribe = [&](size_t i) { play_("r subscribe 4 port 0 > s" + std::to_string(i)); };
    for (size_t i = 1; i < subscription_count_max; i++) {
        subscribe(i);
    }
    play_("r subscribe_fields 4 glb secu_mode=0 age_time=0 > a = -6; a:");
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
            play_("r unsubscribe 4 port 0 > a; r unsubscribe 4 port 0 > b; r subscribe 4 port 0 > c");
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

TEST_P(StoreContract, CallbacksMayDetachTheirClientOrCutItsLink)
{
    play_("w set 4 port 1; w set 4 port 2");
    for (const std::string row : {"cut", "cut sync", "detach", "detach sync"}) {
        play_("short subscribe 4 port 0 > a; short subscribe 4 port 0 > b; a: established; b: established");
        void *ctx = play_.ctx("short");
        play_.told("a").on_line = [&, ctx](const std::string &) {
            row[0] == 'd' ? detach(ctx) : static_cast<void>(set_link(ctx, 4, false));
            EXPECT_NE(tq_mom_set(ctx, 4, make("port 9").get(), nullptr, nullptr), 0);
        };
        if (row.ends_with("sync")) {
            play_("short list 4 port 0 > a");
        }
        play_("w set 4 port 1; a: set port 1; b:");
        play_.told("a").on_line = {};
        play_("short detach");
    }
    EXPECT_EQ(attach(play_.ctx("r"), *store_, loop_, "twice"), TQ_MOM_E_INVALID);
}

TEST_P(StoreContract, AnOwningClientSubscribesWhenItIsConnectedAndAfterALoss)
{
    int count = 0;
    OwnedClient client(*store_, loop_, "owned");
    EXPECT_EQ(client.connect(4, [&] { count++; }), 0);
    loop_.run_pending();
    EXPECT_EQ(set_link(client.ctx(), 4, false) | set_link(client.ctx(), 4, true), 0);
    loop_.run_pending();
    EXPECT_EQ(count, 2);
}

} // namespace
} // namespace vvl::mom
