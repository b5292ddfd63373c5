#include "tests/unit/mom/store_harness.h"

namespace vvl::mom
{
namespace
{

using StoreSubscriptions = StoreTest;
INSTANTIATE_TEST_SUITE_P(Stores, StoreSubscriptions, testing::ValuesIn(stores_under_test()),
                         testing::PrintToStringParamName());

const std::string phone("\x00\x04\x76\x22\x20\x17", 6);
const std::string other_phone("\x00\x04\x76\x22\x20\x18", 6);

TEST_P(StoreSubscriptions, DeliverWhatChangesAfterTheyWereMade)
{
    writer_.set(4, PortCfg(1));
    reader_.subscribe(4, PortCfg(0), seen_);
    writer_.set(4, PortCfg(2, 1));
    writer_.set(4, OuiCfg(phone, phone));
    writer_.del(4, PortCfg(2));
    EXPECT_EQ(publish(writer_.ctx(), 4, PortCfg(3)), 0);
    EXPECT_EQ(seen_.take(), Lines{});
    run();
    EXPECT_EQ(seen_.take(), (Lines{"established", "set vvlan_port_cfg 2 mode=1",
                                   "del vvlan_port_cfg 2 mode=1", // as it was seen last
                                   "publish vvlan_port_cfg 3"}));
    EXPECT_EQ(reader_.scan_now(4, PortCfg(0)), Lines{"set vvlan_port_cfg 1"}); // nothing published is stored
}

TEST_P(StoreSubscriptions, SnapshotAndChangesAreInOneOrder)
{
    reader_.subscribe(4, PortCfg(0), seen_);
    writer_.set(4, PortCfg(1));
    writer_.set(4, PortCfg(2));
    reader_.scan(4, PortCfg(0), seen_);
    writer_.del(4, PortCfg(1));
    writer_.set(4, PortCfg(2, 1));
    reader_.scan(4, PortCfg(0), seen_);
    run();
    EXPECT_EQ(seen_.take(), (Lines{"established", "set vvlan_port_cfg 1", "set vvlan_port_cfg 2", //
                                   "set vvlan_port_cfg 1", "set vvlan_port_cfg 2", "over",        //
                                   "del vvlan_port_cfg 1", "set vvlan_port_cfg 2 mode=1",         //
                                   "set vvlan_port_cfg 2 mode=1", "over"}));
}

TEST_P(StoreSubscriptions, FilterComparesTheMatchFieldsThatTheTemplateGives)
{
    const Learned objects[] = {{10, 0, phone}, {10, 0, other_phone}, {10, 2, phone}, {11, 2, phone}};
    const std::string keys[] = {"10/0/00:04:76:22:20:17", "10/0/00:04:76:22:20:18", "10/2/00:04:76:22:20:17",
                                "11/2/00:04:76:22:20:17"};
    const struct {
        Learned tmpl;
        uint32_t flags;
        std::vector<size_t> matched;
    } rows[] = {
        {{10, 0, ""}, TQ_MOM_MATCH_ALL, {0, 1, 2, 3}}, {{0, 0, ""}, TQ_MOM_MATCH_FIELDS, {0, 1, 2, 3}},
        {{10, 0, ""}, TQ_MOM_MATCH_FIELDS, {0, 1, 2}}, {{10, 0, std::string(6, '\0')}, TQ_MOM_MATCH_FIELDS, {0, 1, 2}},
        {{10, 2, ""}, TQ_MOM_MATCH_FIELDS, {2}},       {{10, 0, phone}, TQ_MOM_MATCH_FIELDS, {0, 2}},
        {{12, 0, ""}, TQ_MOM_MATCH_FIELDS, {}},
    };
    for (const auto &row : rows) {
        Recorder told;
        Client client(*store_, loop_, "filtered");
        Lines expected = {"established"};
        client.subscribe(6, row.tmpl, told, row.flags);
        for (const char *operation : {"set ", "del "}) {
            for (const Learned &object : objects) {
                *operation == 's' ? writer_.set(6, object) : writer_.del(6, object);
            }
            for (const size_t matched : row.matched) {
                expected.push_back(operation + ("mac_vid_reg_noti " + keys[matched]));
            }
        }
        run();
        EXPECT_EQ(told.take(), expected);
    }
    writer_.set(6, objects[0]);
    writer_.set(6, objects[2]);
    reader_.scan(6, Learned(10, 2, ""), seen_, TQ_MOM_MATCH_FIELDS);
    run();
    EXPECT_EQ(seen_.take(), (Lines{"set mac_vid_reg_noti " + keys[2], "over"}));
}

TEST_P(StoreSubscriptions, AreOnePerMatchCallbackAndUser)
{
    Recorder other;
    reader_.subscribe(6, Learned(10, 0, ""), seen_, TQ_MOM_MATCH_FIELDS);
    reader_.subscribe(6, Learned(10, 0, ""), seen_, TQ_MOM_MATCH_FIELDS); // again
    reader_.subscribe(6, Learned(11, 0, ""), seen_, TQ_MOM_MATCH_FIELDS);
    reader_.subscribe(6, Learned(10, 0, ""), other, TQ_MOM_MATCH_FIELDS);
    writer_.set(6, Learned(10, 0, phone));
    writer_.set(6, Learned(11, 0, phone));
    run();
    EXPECT_EQ(seen_.take(),
              (Lines{"established", "established", "established", "set mac_vid_reg_noti 10/0/00:04:76:22:20:17",
                     "set mac_vid_reg_noti 11/0/00:04:76:22:20:17"}));
    EXPECT_EQ(other.take(), (Lines{"established", "set mac_vid_reg_noti 10/0/00:04:76:22:20:17"}));
}

TEST_P(StoreSubscriptions, UnsubscribingWithdrawsOnceAndLeavesTheOthers)
{
    Recorder other;
    reader_.subscribe(4, PortCfg(0), seen_);
    writer_.set(4, PortCfg(9));
    reader_.subscribe(4, PortCfg(0), other);
    run();
    EXPECT_EQ(seen_.take(), (Lines{"established", "set vvlan_port_cfg 9"}));
    EXPECT_EQ(other.take(), Lines{"established"}); // made after the change
    writer_.set(4, PortCfg(1));                    // on its way when the subscription ends
    reader_.unsubscribe(4, PortCfg(0), seen_);
    writer_.set(4, PortCfg(2));
    EXPECT_EQ(seen_.take(), Lines{});
    run();
    EXPECT_EQ(seen_.take(), Lines{"withdrawn"});
    EXPECT_EQ(other.take(), (Lines{"set vvlan_port_cfg 1", "set vvlan_port_cfg 2"}));

    reader_.unsubscribe(4, PortCfg(0), other);
    reader_.unsubscribe(4, PortCfg(0), seen_); // there is none any more
    writer_.set(4, PortCfg(3));
    run();
    EXPECT_EQ(seen_.take(), Lines{});
    EXPECT_EQ(other.take(), Lines{"withdrawn"});
}

TEST_P(StoreSubscriptions, EachFieldIsToldOfItsOwnChangesWithTheWholeList)
{
    Recorder secu;
    Recorder age;
    secu.reads_fields = age.reads_fields = true;
    const uint32_t fields[] = {6, 7, 8}; // 7 and 8 differ in nothing but the field
    const tq_mom_callback_t callbacks[] = {Recorder::callback, Recorder::callback, Recorder::callback};
    void *const users[] = {&secu, &age, &age};
    ASSERT_EQ(tq_mom_subscribe_field(reader_.ctx(), 4, GlbCfg(), 0, fields, callbacks, users, 3), 0);
    writer_.set(4, GlbCfg(1, 30));
    ASSERT_EQ(set_fields(writer_.ctx(), 4, GlbCfg(0, 40), fields + 1, 1), 0);
    ASSERT_EQ(publish(writer_.ctx(), 4, GlbCfg(1, 1)), 0);
    writer_.set(4, GlbCfg(0, 40));
    writer_.del(4, GlbCfg());
    run();
    EXPECT_EQ(secu.take(), (Lines{"established", "hset vvlan_glb_cfg fields 6 7; secu_mode=1 age_time=30",
                                  "hset vvlan_glb_cfg fields 6 7; age_time=40"}));
    EXPECT_EQ(age.take(), (Lines{"established", "established", "hset vvlan_glb_cfg fields 6 7; secu_mode=1 age_time=30",
                                 "hset vvlan_glb_cfg fields 7; secu_mode=1 age_time=40",
                                 "hset vvlan_glb_cfg fields 6 7; age_time=40", "del vvlan_glb_cfg fields 7;"}));

    reader_.unsubscribe(4, GlbCfg(), age);
    writer_.set(4, GlbCfg(1, 1));
    run();
    EXPECT_EQ(age.take(), (Lines{"withdrawn", "withdrawn"}));
    EXPECT_EQ(secu.take(), Lines{"hset vvlan_glb_cfg fields 6 7; secu_mode=1 age_time=1"});
}

TEST_P(StoreSubscriptions, AFullTableRefusesFieldsAsAWhole)
{
    std::vector<Recorder> recorders(subscription_count_max);
    for (size_t i = 1; i < subscription_count_max; i++) {
        reader_.subscribe(4, PortCfg(0), recorders[i]);
    }
    const uint32_t fields[] = {6, 7};
    const tq_mom_callback_t callbacks[] = {Recorder::callback, Recorder::callback};
    void *const users[] = {&seen_, &seen_};
    EXPECT_EQ(tq_mom_subscribe_field(reader_.ctx(), 4, GlbCfg(), 0, fields, callbacks, users, 2), TQ_MOM_E_MEMORY);
    run();
    EXPECT_EQ(seen_.take(), Lines{});
    reader_.subscribe(4, PortCfg(0), recorders[0]);
    EXPECT_EQ(tq_mom_subscribe(reader_.ctx(), 4, PortCfg(0), 0, Recorder::callback, &seen_), TQ_MOM_E_MEMORY);
    reader_.subscribe(4, PortCfg(0), recorders[0]); // made again: takes no room
}

TEST_P(StoreSubscriptions, CallbacksMayEndAndMakeSubscriptions)
{
    Recorder second;
    Recorder third;
    seen_.result = -4; // is counted and changes nothing
    seen_.on_line = [&](const std::string &line) {
        if (line == "set vvlan_port_cfg 1") {
            reader_.unsubscribe(4, PortCfg(0), seen_);
            reader_.unsubscribe(4, PortCfg(0), second);
            reader_.subscribe(4, PortCfg(0), third);
        }
    };
    reader_.subscribe(4, PortCfg(0), seen_);
    reader_.subscribe(4, PortCfg(0), second);
    writer_.set(4, PortCfg(1));
    run();
    writer_.set(4, PortCfg(2));
    run();
    EXPECT_EQ(seen_.take(), (Lines{"established", "set vvlan_port_cfg 1", "withdrawn"}));
    EXPECT_EQ(second.take(), (Lines{"established", "withdrawn"}));
    EXPECT_EQ(third.take(), (Lines{"established", "set vvlan_port_cfg 2"}));
    EXPECT_EQ(counters(reader_.ctx()).callback_failures, 3u);
    EXPECT_EQ(counters(reader_.ctx()).delivered, 7u);
}

} // namespace
} // namespace vvl::mom
