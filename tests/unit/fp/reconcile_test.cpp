// Reconciliation: the plane keeps the state that it had until all marks are
// answered or time is up, whatever happens to the application in between.
#include "tests/unit/fp/manager_fixture.h"

namespace vvl::fp::test
{
namespace
{

using Lines = std::vector<std::string>;

class ReconcileTest : public ManagerTest
{
  protected:
    // ACEs 1 and 2 of the voice ACL on ports 1 and 2, and the security ACL on port 3.
    ReconcileTest()
    {
        set_acl(voice_app);
        set_ace(voice_app, 1);
        set_ace(voice_app, 2);
        bind(voice_app, 1);
        bind(voice_app, 2);
        set_acl(security_app);
        set_ace(security_app, 1, {{"fwd", 2, {0}}});
        bind(security_app, 3);
        delivered();
        before_ = plane_.state;
        plane_.changes = 0;
    }

    // The application comes back with the voice ACL alone: ACE 2, a new ACE 9, port 2.
    static void set_again()
    {
        set_acl(voice_app);
        set_ace(voice_app, 2);
        set_ace(voice_app, 9);
        bind(voice_app, 2);
    }

    void expect_set_again()
    {
        ASSERT_EQ(2u, plane_.state.rules[1].size());
        EXPECT_EQ(2u, plane_.state.rules[1][0].id);
        EXPECT_EQ(9u, plane_.state.rules[1][1].id);
        EXPECT_TRUE(plane_.state.rules[2].empty());
        EXPECT_EQ((std::map<uint32_t, uint8_t>{{2, acl_bit(Acl::voice)}}), plane_.state.binding);
        EXPECT_EQ(plane_.state, manager_->desired());
    }

    PlaneState before_;
};

TEST_F(ReconcileTest, PlaneKeepsItsStateUntilTheLastAnswer)
{
    expire_all();
    set_again();
    EXPECT_EQ(Lines(), delivered()); // success is not known yet
    EXPECT_EQ(0, sweep_all(&before_));
    EXPECT_EQ(1, plane_.changes); // in one step
    expect_set_again();
    EXPECT_EQ(4u, delivered().size());

    EXPECT_EQ(0, set_ace(voice_app, 10)); // and from here on at once
    EXPECT_EQ(3u, plane_.state.rules[1].size());
    sweep_all(); // sweeping again removes nothing
    EXPECT_EQ(3u, plane_.state.rules[1].size());
    loop_.advance(uint64_t{FP_UDP_RECONCILE_LIMIT_MS} * 2000);
    EXPECT_EQ(0u, manager_->counters().timed_out);
    EXPECT_EQ(1u, manager_->counters().reconciled);
}

TEST_F(ReconcileTest, SweepTakesOnlyTheMarkedOfItsKindAndAppType)
{
    ASSERT_EQ(0, ops().ace_expire(nullptr, voice_app));
    EXPECT_EQ(0, set_ace(voice_app, 2));
    EXPECT_EQ(0, ops().ace_del_expired(nullptr, security_app));
    EXPECT_EQ(0, ops().apply_del_expired(nullptr, voice_app));
    EXPECT_EQ(before_, plane_.state); // the one open mark has no answer yet
    EXPECT_EQ(0, ops().ace_del_expired(nullptr, voice_app));
    PlaneState expected = before_;
    expected.rules[1].erase(expected.rules[1].begin());
    EXPECT_EQ(expected, plane_.state);
}

TEST_F(ReconcileTest, MarkedAclGivesWayToAnotherId)
{
    expire_all();
    EXPECT_EQ(0, set_acl(voice_app, 300));
    sweep_all();
    EXPECT_EQ(PlaneState{}, plane_.state);
    EXPECT_GT(0, set_ace(voice_app, 1)); // 101 is gone
}

TEST_F(ReconcileTest, TimeLimitTakesOverAndLeavesTheRestMarked)
{
    expire_all();
    set_again();
    loop_.advance(uint64_t{FP_UDP_RECONCILE_LIMIT_MS} * 1000 - 1);
    EXPECT_EQ(before_, plane_.state);
    loop_.advance(1);
    EXPECT_EQ(3u, plane_.state.rules[1].size()); // 1, still marked, 2 and 9
    EXPECT_EQ(before_.rules[2], plane_.state.rules[2]);
    EXPECT_EQ(1u, manager_->counters().timed_out);
    EXPECT_EQ(4u, delivered().size());
    sweep_all(); // late, and then at once
    expect_set_again();
    EXPECT_EQ(0u, manager_->counters().reconciled);
}

TEST_F(ReconcileTest, RestartsAndARefusedEndGoBackToTheStateBefore)
{
    const uint64_t half_limit = uint64_t{FP_UDP_RECONCILE_LIMIT_MS} * 500;
    for (int restart = 0; restart < 3; restart++) {
        expire_all();
        const vvlan_acl_desc_t security = desc(security_app);
        ops().acl_del(nullptr, &security);
        set_acl(voice_app);
        set_ace(voice_app, static_cast<uint64_t>(20 + restart));
        ops().acl_del_expired(nullptr, voice_app);
        loop_.advance(half_limit + 1); // each start has the whole limit
        manager_->forget_module();
        EXPECT_EQ(before_, plane_.state);
        attach();
    }
    expire_all();
    set_again();
    plane_.next_result = -5;
    EXPECT_EQ(-5, sweep_all(&before_)); // what is gone back to is what was there first
    EXPECT_EQ(before_, plane_.state);
    EXPECT_EQ(before_, manager_->desired());
    EXPECT_EQ(Lines({"no acl vvlan_secu_pas_app 101 failed", "no ace vvlan_secu_pas_app 101 2 failed",
                     "no ace vvlan_secu_pas_app 101 9 failed", "no apply vvlan_secu_pas_app 101 failed"}),
              delivered());
    expire_all();
    set_again();
    EXPECT_EQ(0, sweep_all(&before_));
    expect_set_again();
    EXPECT_EQ(0u, manager_->counters().timed_out);

    expire_all(); // the marks of an application that is gone need no answer
    manager_->forget_module();
    EXPECT_EQ(0, ops().ace_expire(nullptr, voice_app));
    EXPECT_EQ(0, ops().ace_del_expired(nullptr, voice_app));
    EXPECT_TRUE(plane_.state.rules[1].empty());
}

TEST_F(ManagerTest, WithNothingInstalledMarksHoldNothingBack)
{
    expire_all();
    set_acl(voice_app);
    set_ace(voice_app, 1);
    EXPECT_EQ(1u, plane_.state.rules[1].size());
    EXPECT_EQ(2u, delivered().size());
    sweep_all();
    EXPECT_EQ(1u, plane_.state.rules[1].size());
    EXPECT_EQ(0u, manager_->counters().reconciled);
}

// A plane that outlives its agent, as the next agent finds it.
TEST_F(ReconcileTest, StateOfAnEarlierProcessIsKeptUntilTheFirstReconciliation)
{
    manager_.reset();
    manager_.emplace(plane_, loop_);
    attach();
    loop_.advance(uint64_t{FP_UDP_RECONCILE_LIMIT_MS} * 2000); // no store yet
    EXPECT_EQ(before_, plane_.state);
    expire_all();
    set_again();
    EXPECT_EQ(0, plane_.changes);
    EXPECT_EQ(0, sweep_all(&before_));
    EXPECT_EQ(1, plane_.changes);
    expect_set_again();

    // The same agent dies half-way, and the next one never finishes.
    before_ = plane_.state;
    manager_.reset();
    manager_.emplace(plane_, loop_);
    attach();
    expire_all();
    loop_.advance(uint64_t{FP_UDP_RECONCILE_LIMIT_MS} * 1000 - 1);
    EXPECT_EQ(before_, plane_.state);
    loop_.advance(1);
    EXPECT_EQ(PlaneState{}, plane_.state);
    EXPECT_EQ(1u, manager_->counters().timed_out);
}

} // namespace
} // namespace vvl::fp::test
