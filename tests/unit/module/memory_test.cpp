// Memory that runs out at each allocation in turn: the operation fails with its
// code, nothing is left half done, and the module works on once there is memory.
#include "tests/unit/module/module_test.h"

namespace vvl::test
{
namespace
{

class PoorMemory : public ModuleTest
{
  protected:
    PoorMemory() : ModuleTest(VVLAN_MODULE_POOR) { start(); }

    // Runs the operation with so many allocations, and then no more.
    template <typename Operation> auto with_memory(int allocations, Operation operation)
    {
        platform().allocations_left = allocations;
        auto result = operation();
        platform().allocations_left = -1;
        return result;
    }
};

TEST_F(PoorMemory, StartUpFailsWithoutATableButNotWithoutATrackerNode)
{
    const auto tracker = [this] { return MODULE(udp_vvlan_mom_init)(), 0; };
    with_memory(3, tracker);
    EXPECT_CALLS("global.finish");
    EXPECT_LOGS("error", "error <init> add mom event(8) failed, rv = -1.");
    MODULE(udp_vvlan_recover_release)();
    for (int tables = 0; tables < 3; tables++) {
        MODULE(udp_vvlan_port_release)();
        MODULE(udp_vvlan_mac_release)();
        EXPECT_NE(with_memory(tables, MODULE(udp_vvlan_glb_cfg_init)), 0) << tables;
    }
}

// A record needs up to three blocks: itself, and the flags and the keys of a
// table that grows for it.
TEST_F(PoorMemory, PortAndOuiAreRefusedWhole)
{
    for (int allocations = 0; allocations < 3; allocations++) {
        EXPECT_EQ(with_memory(allocations, [this] { return set_port(5, 1, 1); }), -2) << allocations;
        EXPECT_EQ(port(5), nullptr);
        EXPECT_EQ(MODULE(udp_vvlan_port_hash_size)(), 0u);
        EXPECT_LOGS("error", "error Assert:node add fail, ifx=5");
    }
    EXPECT_EQ(with_memory(0, [this] { return set_oui(oui_phone, mask24); }), -11);
    EXPECT_LOGS("error", "error Assert:malloc OUI fail / error Assert: vvlan_oui, add node fail !");
    EXPECT_CALLS("");
    EXPECT_EQ(set_port(5, 1, 1), 0);
    EXPECT_EQ(set_oui(oui_phone, mask24), 0);
}

TEST_F(PoorMemory, MacIsNotKeptButItsPortIsMarked)
{
    set_oui(oui_phone, mask24);
    set_port(5, 1, 1);
    EXPECT_EQ(with_memory(0, [this] { return set_mac("021122000001", 5); }), 0);
    EXPECT_EQ(macs_of(5), "");
    EXPECT_EQ(bits(5), "EAJtm");
    EXPECT_LOGS("error", "error Assert:add mac(0211.2200.0001) to mac_hash fail!");
}

TEST_F(PoorMemory, TableThatCannotGrowStaysWhole)
{
    const auto add = [this](uint32_t ifx) { return MODULE(udp_vvlan_add_recover_entry)(ifx) != nullptr; };
    const auto all_there = [this] {
        return MODULE(udp_vvlan_get_recover_entry)(1) != nullptr && MODULE(udp_vvlan_get_recover_entry)(2) != nullptr &&
               MODULE(udp_vvlan_get_recover_entry)(3) != nullptr && MODULE(udp_vvlan_recover_hash_size)() == 3;
    };
    EXPECT_TRUE(add(1) && add(2) && add(3));
    for (int allocations = 0; allocations < 3; allocations++) {
        EXPECT_FALSE(with_memory(allocations, [&] { return add(4); })) << allocations;
        EXPECT_TRUE(with_memory(0, [&] { return add(2); })) << "a present one needs no memory";
        EXPECT_TRUE(all_there());
    }
    tq_mom_record_t join = record(TQ_MOM_SET, u_bridge__vvlan_join__descriptor, "{index{ifx:4}}");
    const auto decode = [&] { return MODULE(udp_vvlan_recover_vvlan_cfg)(&platform().global, &join, nullptr); };
    EXPECT_EQ(with_memory(0, decode), -6);
    EXPECT_EQ(decode(), 0);
}

} // namespace
} // namespace vvl::test
