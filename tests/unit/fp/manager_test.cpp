// Requests one by one, reconciliations, and what a refusing plane leads to.
#include "platform/fp/error.h"
#include "tests/unit/fp/manager_fixture.h"

#include <cstring>

namespace vvl::fp::test
{
namespace
{

// ---- Requests ----

TEST_F(ManagerTest, RequestsOfOneTurnReachThePlaneTogether)
{
    play({{"acl v; ace v 9; ace v 7; acl m; ace m 3; acl s; ace s 1; bind v 12; bind v 11; bind m 12",
           "m3 v7 v9 s1 11=2 12=3 ",
           "acl v, ace v 9, ace v 7, acl m, ace m 3, acl s, ace s 1, apply v, apply v, apply m, "}});
    EXPECT_EQ(1, plane_.installs);
    Rule voice{.id = 7, .mac = {2, 0x11, 0x22}, .mask = {0xff, 0xff, 0xff}, .vid = 100, .vid_mask = 0xffff};
    voice.set_cos = voice.set_dscp = voice.set_prio = true;
    voice.cos = voice.prio = 6;
    voice.dscp = 46;
    PlaneState expected = plane_.state;
    expected.rules[0] = {{.id = 3, .form_mask = 3, .add_tag = true, .tag_vid = 100}};
    expected.rules[1][0] = voice;
    expected.rules[2] = {{.id = 1, .vid = 100, .vid_mask = 0xffff, .drop = true}};
    EXPECT_EQ(expected, plane_.state);
    EXPECT_EQ(expected, manager_->desired());

    ASSERT_EQ(0, set_ace('v', 7, {"cos 2 010000000000"}));           // replaces, as a whole
    play({{"acl v", "m3 v7 v9 s1 11=2 12=3 ", "ace v 7, acl v, "}}); // keeps
    expected.rules[1][0] = {.id = 7, .set_cos = true, .cos = 1};
    EXPECT_EQ(expected, plane_.state);
}

TEST_F(ManagerTest, OutcomesComeInTheOrderOfTheRequestsToAnApplicationThatLives)
{
    play({{"acl v 200; acl m; ace s 1 = -7; ace m 9; bind m 4; bind v 1 = -7", "m9 4=1 ",
           "acl v 200, acl m, no ace s 1 -7, ace m 9, apply m, no apply v -7, "},
          {"acl s; forget", "m9 4=1 "},
          {"attach; ace m 8; start", "m8 m9 4=1 "}}); // the next manager finds what the turn has changed
    manager_.reset();
    EXPECT_EQ(nullptr, fp_udp_get_mgr());
}

TEST_F(ManagerTest, DeletionsTakeWhatBelongsToThemAndAreNotReported)
{
    play({{"acl v; ace v 1; ace v 2; bind v 8; bind v 9; acl s; ace s 1; ace s 2; bind s 8; bind s 9",
           "v1 v2 s1 s2 8=6 9=6 ",
           "acl v, ace v 1, ace v 2, apply v, apply v, acl s, ace s 1, ace s 2, apply s, apply s, "},
          {"-acl v 102; -acl m; -ace v 3; -bind s 10; -bind m 8", "v1 v2 s1 s2 8=6 9=6 "},
          {"-acl v; -ace s 1; -bind s 8; -acl v", "s2 9=4 "}});
    EXPECT_EQ(0u, manager_->counters().refused);
}

TEST_F(ManagerTest, TagOfAVlanThatIsNotChosenYetIsNoRuleAndNoFault)
{
    play({{"acl m", "", "acl m, "}});
    for (const auto &[field, count] :
         {std::pair{"add_tag 2 00000000", 0u}, {"add_tag 2 64000000", 1u}, {"add_tag 2 00000000", 0u}}) {
        EXPECT_EQ(0, set_ace('m', 7, {field}));
        play({{"", count != 0 ? "m7 " : "", "ace m 7, "}});
        EXPECT_EQ(count, plane_.state.rules[0].size()) << field;
    }
    EXPECT_TRUE(log_.empty());
}

TEST_F(ManagerTest, FieldsThatCannotBeCarriedOutAreRefusedByName)
{
    const std::pair<char, Fields> rows[] = {
        {'v', {"src_mac2 1 000000000000", "a name that is longer than any field's is cut 1 00", " 1 00"}},
        {'v', {"cos 1 060000000000", "cos 0 060000000000", "src_mac 2 000000000000000000000000"}},
        {'v', {"src_mac 1 0000000000000000000000", "vid 1 6400", "fwd 2 ", "cos 2 " + std::string(600, '0')}},
        {'v', {"cos 2 080000000000", "cos 2 000000000001", "ipv4_dscp 2 400000000000", "prio_in 2 080000000000"}},
        {'v', {"vid 1 ff0fffff", "vlan_form 1 0303", "vlan_form 1 0004", "fwd 2 02", "add_tag 2 64000000"}},
        {'m', {"add_tag 2 ff0f0000", "add_tag 2 01000100", "fwd 2 00"}}};
    play({{"acl v; acl m", "", "acl v, acl m, "}});
    for (const auto &[app, fields] : rows) {
        for (const std::string &field : fields) {
            log_.clear();
            EXPECT_EQ(error_invalid, set_ace(app, 7, {field}));
            ASSERT_EQ(1u, log_.size()) << field;
            const std::string name = field.substr(0, std::min<size_t>(31, field.rfind(' ', field.rfind(' ') - 1)));
            const std::string text =
                "ACL " + name_of(app) + " 101: ACE 7: field " + (name.empty() ? "(no name)" : name);
            EXPECT_TRUE(log_[0].starts_with(text + ": ")) << log_[0];
            play({{"", "", std::string("no ace ") + app + " 7 -4, "}});
        }
    }
    EXPECT_EQ(error_invalid, set_ace('v', 7, {"fwd 2 00", "fwd 2 00"}));
    EXPECT_EQ(error_invalid, set_ace('v', 7, Fields(17, "fwd 2 00")));
    for (uint64_t id : {uint64_t{0}, uint64_t{FP_UDP_ACE_COUNT_MAX + 1}, uint64_t{1} << 32 | 5}) {
        EXPECT_EQ(error_invalid, set_ace('v', id, {}));
    }
}

TEST_F(ManagerTest, MalformedRequestsAreRefused)
{
    vvlan_acl_desc_t endless = desc('v'), kind = endless, unknown = desc('x');
    std::memset(endless.app_type, 'x', sizeof endless.app_type);
    kind.acl_kind = 5;
    const vvlan_acl_desc_t *const bad_descriptors[] = {nullptr, &endless, &kind, &unknown};
    for (const vvlan_acl_desc_t *bad : bad_descriptors) {
        EXPECT_EQ(error_invalid, ops().acl_set(nullptr, bad));
    }
    EXPECT_EQ(error_invalid, ops().ace_del(nullptr, nullptr, 1));
    EXPECT_EQ(error_invalid, ops().acl_expire(nullptr, "x"));
    EXPECT_EQ(error_invalid, ops().acl_del_expired(nullptr, nullptr));
    loop_.run_pending();
    reports.clear();
    play({{"acl v", "", "acl v, "},
          {"bind v 1 early = -4; bind v 1 foreign = -4; bind v 1 kind = -4; acl v 102 = -17", "",
           "no apply v -4, no apply v -4, no apply v -4, no acl v 102 -17, "}});
    EXPECT_EQ("", text_of(manager_->desired()));
}

TEST_F(ManagerTest, LimitsAreKept)
{
    const vvlan_acl_desc_t acl = desc('v');
    ops().acl_set(nullptr, &acl);
    for (uint32_t phyid = 0; phyid < bindings_max; phyid++) {
        ASSERT_EQ(0, bind('v', phyid, true, ""));
    }
    EXPECT_EQ(0, bind('v', 5, true, ""));
    EXPECT_EQ(error_full, bind('v', bindings_max, true, ""));
    loop_.run_pending();
    EXPECT_EQ(bindings_max, plane_.state.binding.size());
    for (size_t i = 0; i <= held_reports_max; i++) {
        ops().acl_set(nullptr, &acl);
    }
    EXPECT_EQ(1u, manager_->counters().unreported);
}

TEST_F(ManagerTest, RefusedTurnIsUndoneAsAWholeAndReported)
{
    const std::string before = "v1 1=2 ";
    play({{"acl v; ace v 1; bind v 1", before, "acl v, ace v 1, apply v, "},
          {"refuse; ace v 2", before, "no ace v 2 -5, "},
          {"refuse; -acl v", before},
          {"refuse; -ace v 1; bind v 3; -bind v 1", before, "no apply v -5, "},
          {"refuse; acl s; ace s 1; ace s 0 = -4", before, "no acl s -5, no ace s 1 -5, no ace s -4, "},
          {"ace s 1 = -7; ace v 2", "v1 v2 1=2 ", "no ace s 1 -7, ace v 2, "}});
    EXPECT_EQ(plane_.state, manager_->desired());
}

TEST_F(ManagerTest, WithNothingInstalledMarksHoldNothingBack)
{
    play({{"expire", ""}, {"acl v; ace v 1", "v1 ", "acl v, ace v 1, "}, {"sweep", "v1 "}});
    EXPECT_EQ(0u, manager_->counters().reconciled);
}

// ---- Reconciliation: the plane keeps its state until all marks are answered or time is up ----

class ReconcileTest : public ManagerTest
{
  protected:
    ReconcileTest()
    {
        play({{"acl v; ace v 1; ace v 2; bind v 1; bind v 2; acl s; ace s 1; bind s 3", before_,
               "acl v, ace v 1, ace v 2, apply v, apply v, acl s, ace s 1, apply s, "}});
        plane_.installs = 0;
    }

    // The application comes back with the voice ACL alone: ACE 2, a new ACE 9, port 2.
    static constexpr const char *set_again = "expire; acl v; ace v 2; ace v 9; bind v 2";
    const std::string before_ = "v1 v2 s1 1=2 2=2 3=4 ";
    const std::string again_ = "v2 v9 2=2 ";
    const std::string good_ = "acl v, ace v 2, ace v 9, apply v, ";
    const std::string bad_ = "no acl v -5, no ace v 2 -5, no ace v 9 -5, no apply v -5, ";
};

TEST_F(ReconcileTest, PlaneKeepsItsStateUntilTheLastAnswer)
{
    play({{set_again, before_}, // success is not known yet
          {"ace m 1 = -7", before_, "no ace m 1 -7, "},
          {"sweep", again_, good_},
          {"ace v 10", "v2 v9 v10 2=2 ", "ace v 10, "},
          {"sweep", "v2 v9 v10 2=2 "}}); // removes nothing
    EXPECT_EQ(3, plane_.installs);
    loop_.advance(2 * limit_us);
    EXPECT_EQ(0u, manager_->counters().timed_out);
    EXPECT_EQ(1u, manager_->counters().reconciled);
}

TEST_F(ReconcileTest, SweepTakesOnlyTheMarkedOfItsKindAndAppType)
{
    const std::string more = "v1 v2 v3 s1 1=2 2=2 3=4 ";
    play({{"ace v 3; expire ace v; ace v 2", more, "ace v 3, "}, // what came before the first mark is in force
          {"sweep ace s; sweep binding v", more},
          {"sweep ace v", "v2 s1 1=2 2=2 3=4 ", "ace v 2, "}});
}

TEST_F(ReconcileTest, MarkedAclGivesWayToAnotherId)
{
    play({{"expire acl v; acl v 300; sweep acl v", "s1 3=4 ", "acl v 300, "},
          {"ace v 1 = -7", "s1 3=4 ", "no ace v 1 -7, "}});
}

TEST_F(ReconcileTest, TimeLimitTakesOverAndLeavesTheRestMarked)
{
    play({{set_again, before_}});
    loop_.advance(limit_us - 1);
    play({{"", before_}});
    loop_.advance(1);
    play({{"", "v1 v2 v9 s1 1=2 2=2 3=4 ", good_},
          {"expire ace v; ace v 2; ace v 9; sweep ace v", "v2 v9 s1 1=2 2=2 3=4 ", "ace v 2, ace v 9, "},
          {"sweep", again_}}); // the rest is swept late, with the turn
    EXPECT_EQ(1u, manager_->counters().timed_out);
    EXPECT_EQ(1u, manager_->counters().reconciled);
}

TEST_F(ReconcileTest, RestartsAndARefusedEndGoBackToTheStateBefore)
{
    for (int restart = 0; restart < 3; restart++) {
        play({{"expire; -acl s; acl v; ace v 20; sweep acl v", before_}});
        loop_.advance(limit_us / 2 + 1); // each start has the whole limit
        play({{"forget; attach", before_}});
    }
    play({{set_again, before_}, {"refuse; sweep = -5", before_, bad_}}); // what was there first
    EXPECT_EQ(plane_.state, manager_->desired());
    play({{set_again, before_}, {"sweep", again_, good_}});
    EXPECT_EQ(1u, manager_->counters().reconciled);
    EXPECT_EQ(0u, manager_->counters().timed_out);
    // The marks of an application that is gone need no answer.
    play({{"expire; forget; expire ace v; sweep ace v", "2=2 "}});
}

// A plane that outlives its agent, as the next agent finds it.
TEST_F(ReconcileTest, StateOfAnEarlierProcessIsKeptUntilTheFirstReconciliation)
{
    start();
    loop_.advance(2 * limit_us); // no store yet
    play({{set_again, before_}, {"sweep", again_, good_}, {"start; expire", again_}});
    EXPECT_EQ(1, plane_.installs);
    loop_.advance(limit_us - 1); // and this agent never finishes
    play({{"", again_}});
    loop_.advance(1);
    play({{"", ""}});
    EXPECT_EQ(1u, manager_->counters().timed_out);
}

} // namespace
} // namespace vvl::fp::test
