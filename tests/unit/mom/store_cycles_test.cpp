#include "tests/unit/mom/store_harness.h"

namespace vvl::mom
{
namespace
{

using StoreCycles = StoreTest;
INSTANTIATE_TEST_SUITE_P(Stores, StoreCycles, testing::ValuesIn(stores_under_test()), row_name);

TEST_P(StoreCycles, SweepRemovesWhatIsStillMarkedAndTells)
{
    for (uint32_t ifx = 1; ifx <= 4; ifx++) {
        writer_.set(8, PortCfg(ifx));
    }
    writer_.set(4, PortCfg(1));
    reader_.subscribe(8, PortCfg(0), seen_);
    ASSERT_EQ(tq_mom_dsbegin(reader_.ctx(), 8, PortCfg(0), 0, 1000, Recorder::callback, &seen_), 0);
    writer_.set(8, PortCfg(2)); // the marks are the store's: any client clears them
    apply(reader_, 8, PortCfg(3), 'c', 0);
    writer_.set(8, PortCfg(9));
    ASSERT_EQ(tq_mom_dsend(reader_.ctx(), 8, PortCfg(0), 0, Recorder::callback, &seen_), 0);
    run();
    EXPECT_EQ(seen_.take(), (Lines{"established", "open", "set vvlan_port_cfg 2", "set vvlan_port_cfg 9",
                                   "del vvlan_port_cfg 1", "del vvlan_port_cfg 4", "done"}));
    EXPECT_EQ(reader_.scan_now(4, PortCfg(0)).size(), 1u);
}

TEST_P(StoreCycles, ObjectsLiveWhileAnyOwnerHoldsThem)
{
    // Operations (store_harness.h) with their owners, and whether the object
    // lives afterwards.
    const struct {
        const char *operations;
        bool lives;
    } rows[] = {
        {"+1 -1", false},
        {"+1 +2 -1", true},
        {"+1 +2 -2 -1", false},
        {"s0 +1 -1", true}, // written without an owner: lives until del
        {"+1 s0 -1", true},
        {"+1 +2 d0", false},
        {"+1 [1 ]1", false},
        {"+1 +2 [1 ]1", true},
        {"+1 +2 [1 ]1 -2", false},
        {"+1 [1 +1 ]1", true},
        {"+1 +2 [1 +2 ]1 -2", false}, // another owner's write does not keep this one's hold
        {"+1 [1 c0 ]1", true},
        {"s0 +1 [1 ]1", true},
        {"+1 [0 ]0", false}, // the plain cycle is about objects, whoever holds them
        {"+1 [0 +2 ]0", true},
        {"s0 [0 c0 ]0", true},
        {"s0 [0 s0 ]0 ]0", true},
        {"s0 [0 s0 [0 ]0", false}, // opening again starts over
    };
    const PortCfg object(7);
    for (const auto &row : rows) {
        reader_.subscribe(6, PortCfg(0), seen_);
        for (const char *p = row.operations; *p != '\0'; p += p[2] == ' ' ? 3 : 2) {
            apply(writer_, 6, object, p[0], static_cast<uint64_t>(p[1] - '0'));
        }
        run();
        EXPECT_EQ(reader_.scan_now(6, object).size(), row.lives ? 1u : 0u) << row.operations;
        EXPECT_EQ(seen_.take().back(), row.lives ? "set vvlan_port_cfg 7" : "del vvlan_port_cfg 7") << row.operations;
        writer_.del(6, object);
        run();
        seen_.take();
    }
}

} // namespace
} // namespace vvl::mom
