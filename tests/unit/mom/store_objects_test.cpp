#include "tests/unit/mom/store_harness.h"

namespace vvl::mom
{
namespace
{

using StoreObjects = StoreTest;
INSTANTIATE_TEST_SUITE_P(Stores, StoreObjects, testing::ValuesIn(stores_under_test()),
                         testing::PrintToStringParamName());

constexpr uint32_t glb_secu_mode = 6;
constexpr uint32_t glb_age_time = 7;

TEST_P(StoreObjects, SetReplacesTheWholeObject)
{
    writer_.set(4, PortCfg(5, 1));
    PortCfg enabled(5);
    enabled.object.enable = 1;
    writer_.set(4, enabled);
    EXPECT_EQ(reader_.scan_now(4, PortCfg(0)), Lines{"set vvlan_port_cfg 5 enable=1"});

    uint32_t out = 99;
    ProtobufCMessage *found = tq_mom_get_sync(reader_.ctx(), 4, PortCfg(5), &out);
    ASSERT_NE(found, nullptr);
    EXPECT_EQ(out, 0u);
    // What was read can be written again as it is.
    EXPECT_EQ(tq_mom_set(reader_.ctx(), 4, found, nullptr, nullptr), 0);
    tq_mom_tq_obj_free(found);
    out = 99;
    EXPECT_EQ(tq_mom_get_sync(reader_.ctx(), 4, PortCfg(6), &out), nullptr); // absent, which is no failure
    EXPECT_EQ(out, 0u);
}

TEST_P(StoreObjects, DatabasesAndTypesAreApart)
{
    UBridge__VvlanIndex index = U_BRIDGE__VVLAN_INDEX__INIT;
    index.ifx = 5;
    UBridge__VvlanPortCfg trap = U_BRIDGE__VVLAN_PORT_CFG__INIT; // the same short name in another package
    trap.index = &index;
    writer_.set(4, PortCfg(5, 1));
    writer_.set(8, PortCfg(5, 2));
    writer_.set(4, &trap.base);
    writer_.del(4, PortCfg(5));
    EXPECT_EQ(reader_.scan_now(4, PortCfg(0)), Lines{});
    EXPECT_EQ(reader_.scan_now(8, PortCfg(0)), Lines{"set vvlan_port_cfg 5 mode=2"});
    EXPECT_EQ(reader_.scan_now(4, &trap.base), Lines{"set vvlan_port_cfg 5"});
}

TEST_P(StoreObjects, CompletionsComeFromTheLoopAfterTheChange)
{
    reader_.subscribe(4, PortCfg(0), seen_);
    run();
    seen_.take();
    EXPECT_EQ(tq_mom_set(reader_.ctx(), 4, PortCfg(5), Recorder::callback, &seen_), 0);
    EXPECT_EQ(tq_mom_del(reader_.ctx(), 4, PortCfg(5), Recorder::callback, &seen_), 0);
    EXPECT_EQ(tq_mom_clear_expire(reader_.ctx(), 4, PortCfg(6), Recorder::callback, &seen_), 0);
    EXPECT_EQ(seen_.take(), Lines{});
    run();
    EXPECT_EQ(seen_.take(), (Lines{"set vvlan_port_cfg 5", "done", "del vvlan_port_cfg 5", "done", "done"}));
}

TEST_P(StoreObjects, RefusedCallsChangeNothingAndAreCounted)
{
    LogCapture log;
    PBridge__VvlanPortCfg keyless = P_BRIDGE__VVLAN_PORT_CFG__INIT;
    PBridge__BQos part = P_BRIDGE__B_QOS__INIT;
    const PacketLibrary large("app", std::string(TQ_MOM_OBJECT_SIZE_MAX, 'x'));
    const PacketLibrary long_key(std::string(2000, 'x'), "file");
    const uint32_t unknown_field = 99;
    reader_.subscribe(4, GlbCfg(), seen_);
    run();
    seen_.take();
    const ClientCounters before = counters(writer_.ctx());

    auto set = [&](uint32_t db, const ProtobufCMessage *object) {
        return tq_mom_set(writer_.ctx(), db, object, Recorder::callback, &seen_);
    };
    EXPECT_EQ(set(4, nullptr), TQ_MOM_E_INVALID);
    EXPECT_EQ(set(4, &keyless.base), TQ_MOM_E_INVALID);
    EXPECT_EQ(set(4, &part.base), TQ_MOM_E_INVALID);
    EXPECT_EQ(log.count("p_bridge.vvlan_port_cfg comes without its key"), 1u);
    EXPECT_EQ(log.count("p_bridge.b_qos is not an object type"), 1u);
    EXPECT_EQ(set(0, large), TQ_MOM_E_INVALID);
    EXPECT_EQ(set(0, long_key), TQ_MOM_E_INVALID);
    EXPECT_EQ(log.count("s_cluster.reg_pkt_info "), 2u);
    EXPECT_EQ(set(16, PortCfg(1)), TQ_MOM_E_INVALID);
    EXPECT_EQ(set(5, PortCfg(1)), TQ_MOM_E_UNREACHABLE);
    EXPECT_EQ(set(5, PortCfg(1)), TQ_MOM_E_UNREACHABLE);
    EXPECT_EQ(log.count("database 5"), 1u);
    EXPECT_EQ(set_fields(writer_.ctx(), 4, GlbCfg(1), &unknown_field, 1), TQ_MOM_E_INVALID);
    EXPECT_EQ(set_fields(writer_.ctx(), 4, PortCfg(1), &glb_secu_mode, 1), TQ_MOM_E_INVALID);
    EXPECT_EQ(tq_mom_scan(writer_.ctx(), 4, PortCfg(0), 1, Recorder::callback, &seen_), TQ_MOM_E_INVALID);
    EXPECT_EQ(tq_mom_scan(writer_.ctx(), 4, PortCfg(0), 0, nullptr, nullptr), TQ_MOM_E_INVALID);
    EXPECT_EQ(tq_mom_set(&part, 4, PortCfg(1), nullptr, nullptr), TQ_MOM_E_INVALID); // no client

    run();
    EXPECT_EQ(seen_.take(), Lines{});
    EXPECT_EQ(reader_.scan_now(4, PortCfg(0)), Lines{});
    EXPECT_EQ(reader_.scan_now(0, PacketLibrary("", "")), Lines{});
    EXPECT_EQ(counters(writer_.ctx()).refused - before.refused, 12u);
}

TEST_P(StoreObjects, AFullDatabaseRefusesNewObjectsOnly)
{
    auto fill = [&](uint32_t ifx) { return tq_mom_set(writer_.ctx(), 8, PortCfg(ifx), nullptr, nullptr); };
    for (uint32_t ifx = 0; ifx < database_object_count_max; ifx++) {
        ASSERT_EQ(fill(ifx), 0);
    }
    EXPECT_EQ(fill(database_object_count_max), TQ_MOM_E_MEMORY);
    EXPECT_EQ(fill(7), 0);
    writer_.del(8, PortCfg(7));
    EXPECT_EQ(fill(database_object_count_max), 0);
}

TEST_P(StoreObjects, KeylessObjectKeepsFieldsThatWereWrittenWithTheirDefault)
{
    const uint32_t both[] = {glb_age_time, glb_secu_mode};
    reader_.scan(4, GlbCfg(), seen_);
    EXPECT_EQ(set_fields(writer_.ctx(), 4, GlbCfg(0, 30), both, 2), 0);
    reader_.scan(4, GlbCfg(), seen_);
    EXPECT_EQ(set_fields(writer_.ctx(), 4, GlbCfg(1, 99), both + 1, 1), 0);
    reader_.scan(4, GlbCfg(), seen_);
    run();
    EXPECT_EQ(seen_.take(), (Lines{"over", "hset vvlan_glb_cfg fields 6 7; age_time=30", "over",
                                   "hset vvlan_glb_cfg fields 6 7; secu_mode=1 age_time=30", "over"}));
}

TEST_P(StoreObjects, KeylessSetNotifiesWrittenAndRemovedFields)
{
    reader_.subscribe(4, GlbCfg(), seen_);
    writer_.set(4, GlbCfg(1));
    writer_.set(4, GlbCfg(1)); // a report that repeats the one before is a report
    writer_.set(4, GlbCfg(0, 30));
    writer_.set(4, GlbCfg());
    writer_.del(4, GlbCfg());
    writer_.del(4, GlbCfg());
    run();
    EXPECT_EQ(
        seen_.take(),
        (Lines{"established", "hset vvlan_glb_cfg fields 6; secu_mode=1", "hset vvlan_glb_cfg fields 6; secu_mode=1",
               "hset vvlan_glb_cfg fields 6 7; age_time=30", "hset vvlan_glb_cfg fields 7;", "del vvlan_glb_cfg"}));
}

TEST_P(StoreObjects, LiveWhileAnyOwnerHoldsThem)
{
    // Operations (store_harness.h) with their owners. What is written without
    // an owner lives until del; another owner's write does not keep this one's
    // hold; the plain cycle is about objects, whoever holds them, and opening it
    // again starts over.
    const char *const kept[] = {"+1 +2 -1",    "s0 +1 -1",    "+1 s0 -1",    "+1 +2 [1 ]1", "+1 [1 +1 ]1",
                                "+1 [1 c0 ]1", "s0 +1 [1 ]1", "+1 [0 +2 ]0", "s0 [0 c0 ]0", "s0 [0 s0 ]0 ]0"};
    const char *const gone[] = {"+1 -1",          "+1 +2 -2 -1",       "+1 +2 d0", "+1 [1 ]1",
                                "+1 +2 [1 ]1 -2", "+1 +2 [1 +2 ]1 -2", "+1 [0 ]0", "s0 [0 s0 [0 ]0"};
    const PortCfg object(7);
    reader_.subscribe(life_db, PortCfg(0), seen_);
    const auto expect_end = [&](const char *operations, const Lines &left, const char *last) {
        for (const char *p = operations; *p != '\0'; p += p[2] == ' ' ? 3 : 2) {
            apply(writer_, object, p[0], static_cast<uint64_t>(p[1] - '0'));
        }
        run();
        EXPECT_EQ(reader_.scan_now(life_db, object), left) << operations;
        EXPECT_EQ(seen_.take().back(), last) << operations;
        writer_.del(life_db, object);
    };
    for (const char *operations : kept) {
        expect_end(operations, {"set vvlan_port_cfg 7"}, "set vvlan_port_cfg 7");
    }
    for (const char *operations : gone) {
        expect_end(operations, {}, "del vvlan_port_cfg 7");
    }
}

TEST_P(StoreObjects, SweepRemovesWhatIsStillMarkedAndTells)
{
    for (uint32_t ifx = 1; ifx <= 4; ifx++) {
        writer_.set(8, PortCfg(ifx));
    }
    writer_.set(4, PortCfg(1));
    reader_.subscribe(8, PortCfg(0), seen_);
    ASSERT_EQ(tq_mom_dsbegin(reader_.ctx(), 8, PortCfg(0), 0, 1000, Recorder::callback, &seen_), 0);
    writer_.set(8, PortCfg(2)); // the marks are the store's: any client clears them
    ASSERT_EQ(tq_mom_clear_expire(reader_.ctx(), 8, PortCfg(3), nullptr, nullptr), 0);
    writer_.set(8, PortCfg(9));
    ASSERT_EQ(tq_mom_dsend(reader_.ctx(), 8, PortCfg(0), 0, Recorder::callback, &seen_), 0);
    run();
    EXPECT_EQ(seen_.take(), (Lines{"established", "open", "set vvlan_port_cfg 2", "set vvlan_port_cfg 9",
                                   "del vvlan_port_cfg 1", "del vvlan_port_cfg 4", "done"}));
    EXPECT_EQ(reader_.scan_now(4, PortCfg(0)).size(), 1u);
}

} // namespace
} // namespace vvl::mom
