// The contract of store.h and tq_mom.h as scripts (Play of store_harness.h): w
// writes, r reads, and a, b, c are what r is told.
#include "tests/unit/mom/store_harness.h"

namespace vvl::mom
{
namespace
{

struct Script {
    const char *name;
    const char *steps;
};

const Script scripts[] = {
    {"set_replaces_the_whole_object",
     R"(w set 4 port 5 mode=1; w set 4 port 5 enable=1; r get 4 port 5 > a; r get 4 port 6 > a; a! port 5 enable=1, none)"},
    {"databases_and_types_are_apart",
     R"(w set 4 port 5 mode=1; w set 8 port 5 mode=2; w set 4 trap 5; w del 4 port 5; r list 4 port 0 > a
        r list 8 port 0 > a; r list 4 trap 0 > a; a! set port 5 mode=2, set trap 5)"},
    {"completions_come_from_the_loop_after_the_change",
     R"(r subscribe 4 port 0 > a; a: established; r set 4 port 5 > a; r del 4 port 5 > a; r clear_expire 4 port 6 > a
        a!; a: set port 5, done, del port 5, done, done)"},
    {"keyless_object_keeps_fields_that_were_written_with_their_default",
     R"(r scan 4 glb > a; w set_fields 4 glb age_time=300 secu_mode=0; r scan 4 glb > a; w set_fields 4 glb secu_mode=1
        r scan 4 glb > a
        a: over, hset glb fields 6 7 age_time=300, over, hset glb fields 6 7 secu_mode=1 age_time=300, over)"},
    {"keyless_set_notifies_written_and_removed_fields",
     R"(r subscribe 4 glb > a; w set 4 glb secu_mode=1; w set 4 glb secu_mode=1; w set 4 glb age_time=30; w set 4 glb
        w del 4 glb; w del 4 glb
        a: established, hset glb fields 6 secu_mode=1, hset glb fields 6 secu_mode=1, hset glb fields 6 7 age_time=30, hset glb fields 7, del glb)"},
    {"a_sweep_removes_what_is_still_marked_and_tells",
     R"(w set 8 port 1; w set 8 port 2; w set 8 port 3; w set 8 port 4; w set 4 port 1; r subscribe 8 port 0 > a
        r begin 8 port 0 > a; w set 8 port 2; r clear_expire 8 port 3; w set 8 port 9; r end 8 port 0 > a
        a: established, open, set port 2, set port 9, del port 1, del port 4, done; r list 4 port 0 > a; a! set port 1)"},
    {"subscriptions_deliver_what_changes_after_they_were_made",
     R"(w set 4 port 1; r subscribe 4 port 0 > a; w set 4 port 2 mode=1; w set 4 oui 00:04:76:00:00:00/ff:ff:ff:00:00:00
        w del 4 port 2; w publish 4 port 3; a!; a: established, set port 2 mode=1, del port 2 mode=1, publish port 3
        r list 4 port 0 > a; a! set port 1)"},
    {"snapshot_and_changes_are_in_one_order",
     R"(r subscribe 4 port 0 > a; w set 4 port 1; w set 4 port 2; r scan 4 port 0 > a; w del 4 port 1
        w set 4 port 2 mode=1; r scan 4 port 0 > a
        a: established, set port 1, set port 2, set port 1, set port 2, over, del port 1, set port 2 mode=1, set port 2 mode=1, over)"},
    {"subscriptions_are_one_per_match_callback_and_user",
     R"(r subscribe_match 6 mac 10/0/- > a; r subscribe_match 6 mac 10/0/- > a; r subscribe_match 6 mac 11/0/- > a
        r subscribe_match 6 mac 10/0/- > b; w set 6 mac 10/0/00:04:76:22:20:17; w set 6 mac 11/0/00:04:76:22:20:17
        a: established, established, established, set mac 10/0/00:04:76:22:20:17, set mac 11/0/00:04:76:22:20:17
        b: established, set mac 10/0/00:04:76:22:20:17)"},
    // The match fields that the template gives; zeros are not given.
    {"filter_compares_the_match_fields_of_the_template",
     R"(r subscribe 6 mac 10/0/- > all; r subscribe_match 6 mac 0/0/- > any; r subscribe_match 6 mac 10/0/- > vid
        r subscribe_match 6 mac 10/0/00:00 > zero; r subscribe_match 6 mac 10/2/- > type
        r subscribe_match 6 mac 10/0/01 > mac; r subscribe_match 6 mac 12/0/- > none
        w set 6 mac 10/0/01; w set 6 mac 10/0/02; w set 6 mac 10/2/01; w set 6 mac 11/2/01
        all: established, set mac 10/0/01, set mac 10/0/02, set mac 10/2/01, set mac 11/2/01
        any: established, set mac 10/0/01, set mac 10/0/02, set mac 10/2/01, set mac 11/2/01
        vid: established, set mac 10/0/01, set mac 10/0/02, set mac 10/2/01
        zero: established, set mac 10/0/01, set mac 10/0/02, set mac 10/2/01
        type: established, set mac 10/2/01; mac: established, set mac 10/0/01, set mac 10/2/01; none: established
        w del 6 mac 10/2/01; type: del mac 10/2/01; r scan_match 6 mac 10/0/01 > a; a: set mac 10/0/01, over)"},
    {"unsubscribing_withdraws_once_and_leaves_the_others",
     R"(r subscribe 4 port 0 > a; w set 4 port 9; r subscribe 4 port 0 > b; a: established, set port 9; b: established
        w set 4 port 1; r unsubscribe 4 port 0 > a; w set 4 port 2; a!; a: withdrawn; b: set port 1, set port 2
        r unsubscribe 4 port 0 > b; r unsubscribe 4 port 0 > a; w set 4 port 3; a:; b: withdrawn)"},
    // 7 and 8 differ in nothing but the field.
    {"each_field_is_told_of_its_own_changes_with_the_whole_list",
     R"(r subscribe_fields 4 glb secu_mode=0 > a; r subscribe_fields 4 glb age_time=0 qos=0 > b
        w set 4 glb secu_mode=1 age_time=30; w set_fields 4 glb age_time=40; w publish 4 glb secu_mode=1 age_time=1
        w set 4 glb age_time=40; w del 4 glb
        a: established, hset glb fields 6 7 secu_mode=1 age_time=30, hset glb fields 6 7 age_time=40
        b: established, established, hset glb fields 6 7 secu_mode=1 age_time=30, hset glb fields 7 secu_mode=1 age_time=40, hset glb fields 6 7 age_time=40, del glb
        r unsubscribe 4 glb > b; w set 4 glb secu_mode=1 age_time=1; b: withdrawn, withdrawn
        a: hset glb fields 6 7 secu_mode=1 age_time=1)"},
    {"connect_callback_comes_once_and_waits_for_a_lost_link",
     R"(r connect 4 > a; a!; a: connected; r connect 4 > a; r cut 4; r connect 4 > a; a:; r.links! lost 4; r restore 4
        a: connected, connected; r.links! back 4 type 2; r connect_sync 16 = -4; r cut 5 = -11)"},
    {"a_cut_link_refuses_and_drops_what_is_on_its_way",
     R"(r subscribe 4 port 0 > a; r subscribe 6 port 0 > a; a: established, established; w set 4 port 1
        r scan 4 port 0 > a; r set 4 port 2 > a; r cut 4; r cut 4; w set 6 port 10; w set 4 port 3; r set 4 port 9 = -11
        r get 4 port 1 > b = -11; r scan 4 port 0 > a = -11; r unsubscribe 4 port 0 > a = -11
        r begin_sync 4 port 0 = -11; r connect_sync 4 = -11; r restore 4; b: none; w set 6 port 11
        a: set port 10, set port 11; r.links: lost 4, back 4 type 2; r list 4 port 0 > a
        a! set port 1, set port 2, set port 3)"},
    {"a_detached_client_is_silent",
     R"(r subscribe 4 port 0 > a; a: established; w set 4 port 1; r scan 4 port 0 > a; r connect 4 > a; r cut 6
        r detach; a:; r.links:)"},
    // Subscribed, and then read, at the start and after a loss.
    {"a_client_that_follows_is_told_what_the_store_holds",
     R"(w set 4 port 1; r subscribe 4 port 0 > a; r scan 4 port 0 > a; w set 4 port 2; w set 4 port 3
        a: established, set port 1, over, set port 2, set port 3; r cut 4; w del 4 port 1; w del 4 port 2; w set 4 port 2 mode=5
        w set 4 port 4; r restore 4; r subscribe 4 port 0 > a; r scan 4 port 0 > a; w del 4 port 3; r scan 4 port 0 > a
        a: established, del port 1, set port 2 mode=5, set port 3, set port 4, over, del port 3, set port 2 mode=5, set port 4, over)"},
    // a and b know by subscription, c by a scan; b ends and forgets what it knew.
    {"missed_deletions_are_delivered_once_and_to_who_subscribes_again",
     R"(r subscribe 4 port 0 > a; r subscribe 4 port 0 > b; r subscribe_match 4 mac 10/0/- > c; w set 4 port 2 mode=1
        w set 4 port 3; w set 4 mac 10/0/00:04:76:22:20:17; w set 4 mac 11/0/00:04:76:22:20:17; r list 4 mac 0/0/- > d
        b: established, set port 2 mode=1, set port 3; r cut 4; w set 4 port 5; w del 4 port 5; w del 4 port 2
        w del 4 mac 10/0/00:04:76:22:20:17; w del 4 mac 11/0/00:04:76:22:20:17; r restore 4
        a: established, set port 2 mode=1, set port 3; w del 4 port 3; a:; r subscribe 4 port 0 > a
        a: established, del port 2 mode=1, del port 3; r subscribe 4 port 0 > a; a: established
        r subscribe_match 4 mac 10/0/- > c; r unsubscribe 4 port 0 > b; r subscribe 4 port 0 > b
        c: established, set mac 10/0/00:04:76:22:20:17, established, del mac 10/0/00:04:76:22:20:17
        b: withdrawn, established)"},
    {"missed_deletion_of_a_keyless_object_reaches_its_fields",
     R"(r subscribe_fields 4 glb secu_mode=0 > a; w set 4 glb secu_mode=1; b:; r cut 4; w del 4 glb; r restore 4
        a: established, hset glb fields 6 secu_mode=1; r subscribe_fields 4 glb secu_mode=0 > a
        a: established, del glb)"},
};

using Row = std::tuple<StoreUnderTest, Script>;
class StoreScripts : public testing::TestWithParam<Row>
{
};
INSTANTIATE_TEST_SUITE_P(Stores, StoreScripts,
                         testing::Combine(testing::ValuesIn(stores_under_test()), testing::ValuesIn(scripts)),
                         [](const testing::TestParamInfo<Row> &row) {
                             return std::string(std::get<0>(row.param).name) + "_" + std::get<1>(row.param).name;
                         });

TEST_P(StoreScripts, Play)
{
    VirtualLoop loop;
    const std::unique_ptr<Store> store = std::get<0>(GetParam()).make();
    Play play(*store, loop);
    play(std::get<1>(GetParam()).steps);
}

} // namespace
} // namespace vvl::mom
