// The manager as an application of the forwarding-plane library sees it, over a
// plane that records its state and refuses when it is told to.
//
// m, v and s stand for the three app types; ACLs have the id 101 unless another one is given.
#include "platform/fp/manager.h"

#include "fp_udp.h"
#include "platform/base/log.h"
#include "platform/base/virtual_loop.h"
#include "platform/fp/error.h"

#include <cstring>
#include <gtest/gtest.h>
#include <optional>
#include <sstream>

namespace vvl::fp::test
{
namespace
{

using Lines = std::vector<std::string>;

constexpr const char *voice_app = "vvlan_secu_pas_app";

// next_result other than 0 is returned once, with nothing changed.
class RecordingPlane final : public Plane
{
  public:
    int install(const PlaneState &next) override
    {
        installs++;
        const int result = std::exchange(next_result, 0);
        state = result == 0 ? next : state;
        return result;
    }
    int set_trap(uint32_t, bool) override { return 0; }
    void forget(uint16_t, const Mac &) override {}
    PlaneState installed() const override { return state; }

    PlaneState state;
    int next_result = 0;
    int installs = 0;
};

// "v1 v2 1=2 " for ACEs 1 and 2 of v, and port 1 bound to v alone.
std::string text_of(const PlaneState &state)
{
    std::ostringstream out;
    for (size_t i = 0; i < acl_count; i++) {
        for (const Rule &rule : state.rules[i]) {
            out << "mvs"[i] << rule.id << ' ';
        }
    }
    for (const auto &[phyid, acls] : state.binding) {
        out << phyid << '=' << unsigned{acls} << ' ';
    }
    return out.str();
}

struct Field {
    const char *name;
    uint32_t kind;
    std::vector<uint8_t> value;
};
using Fields = std::vector<Field>;

const Field vid_field = {"vid", 1, {0x64, 0, 0xff, 0xff}};

const Fields &fields_of(char app)
{
    static const Fields mac_vlan = {{"vlan_form", 1, {0, 3}}, {"add_tag", 2, {0x64, 0, 0, 0}}};
    static const Fields voice = {{"src_mac", 1, {2, 0x11, 0x22, 0, 0, 0, 0xff, 0xff, 0xff, 0, 0, 0}},
                                 vid_field,
                                 {"cos", 2, {6, 0, 0, 0, 0, 0}},
                                 {"ipv4_dscp", 2, {46, 0, 0, 0, 0, 0}},
                                 {"prio_in", 2, {6, 0, 0, 0, 0, 0}}};
    static const Fields security = {vid_field, {"fwd", 2, {0}}};
    return app == 'm' ? mac_vlan : app == 'v' ? voice : security;
}

class ManagerTest : public ::testing::Test
{
  protected:
    ManagerTest()
    {
        reports.clear();
        old_sink_ = set_log_sink([this](LogLevel, const std::string &text) { log_.push_back(text); });
        manager_.emplace(plane_, loop_);
        attach();
    }
    ~ManagerTest() override { set_log_sink(std::move(old_sink_)); }

    void attach() { ASSERT_EQ(0, fp_udp_register_acl_handler(nullptr, FP_UDP_APP_VVLAN, &callbacks)); }

    static const fp_udp_mgr_ops_t &ops() { return *fp_udp_get_mgr()->ops; }

    static std::string name_of(char app)
    {
        return app == 'm' ? "mac_vlan_app" : app == 'v' ? voice_app : app == 's' ? "vvlan_secu_deny_app" : "other_app";
    }

    static vvlan_acl_desc_t desc(char app, uint32_t id = 101)
    {
        vvlan_acl_desc_t desc{.app_type = {}, .acl_id = id, .acl_kind = FP_UDP_ACL_KIND_VVLAN, .reserved = {}};
        name_of(app).copy(desc.app_type, sizeof desc.app_type);
        return desc;
    }

    static int set_ace(char app, uint64_t id, const Fields &fields)
    {
        fp_udp_ace_t *ace = ops().ace_alloc(1, 0);
        ace->id = id;
        for (const Field &field : fields) {
            ace->fields->ops->field_add(ace->fields,
                                        ace->fields->ops->field_make(field.name, field.kind, field.value.data(),
                                                                     static_cast<uint32_t>(field.value.size())));
        }
        const vvlan_acl_desc_t d = desc(app);
        const int result = ops().ace_set(nullptr, &d, ace);
        ops().ace_free(ace);
        return result;
    }

    static vvlan_apply_t record(char app, uint32_t phyid)
    {
        vvlan_apply_t record{{}, phyid, app == 'm', 0};
        name_of(app).copy(record.app_type, sizeof record.app_type);
        return record;
    }

    static int bind(char app, const vvlan_apply_t &record, uint8_t kind = FP_UDP_ACL_KIND_VVLAN)
    {
        fp_udp_apply_t *apply = ops().apply_alloc(&record);
        const vvlan_acl_desc_t d = desc(app);
        const int result = ops().apply_set(nullptr, &d, kind, apply);
        ops().apply_free(apply);
        return result;
    }

    // One request in words: "acl v", "acl v 102", "ace v 7", "bind v 12"; with "-" in front, the removal.
    static int ask(const std::string &words)
    {
        std::istringstream in(words);
        std::string verb;
        char app = 0;
        uint32_t number = 0;
        in >> verb >> app >> number;
        const vvlan_acl_desc_t acl = desc(app), d = desc(app, verb.ends_with("acl") && number ? number : 101);
        const vvlan_apply_t port = record(app, number);
        return verb == "acl"    ? ops().acl_set(nullptr, &d)
               : verb == "-acl" ? ops().acl_del(nullptr, &d)
               : verb == "ace"  ? set_ace(app, number, fields_of(app))
               : verb == "-ace" ? ops().ace_del(nullptr, &acl, number)
               : verb == "bind" ? bind(app, port)
                                : ops().apply_del(nullptr, &acl, &port);
    }

    static void ask_all(const Lines &requests)
    {
        for (const std::string &request : requests) {
            EXPECT_EQ(0, ask(request)) << request;
        }
    }

    // The same, to the end of the turn. Returns what was reported.
    Lines turn(const Lines &requests)
    {
        ask_all(requests);
        return delivered();
    }

    Lines delivered()
    {
        loop_.run_pending();
        return std::exchange(reports, {});
    }

    std::string state() const { return text_of(plane_.state); }
    std::string desired() const { return text_of(manager_->desired()); }

    static void expire_all()
    {
        for (const char app : {'v', 'm', 's'}) {
            for (auto expire : {ops().acl_expire, ops().ace_expire, ops().apply_expire}) {
                EXPECT_EQ(0, expire(nullptr, name_of(app).c_str()));
            }
        }
    }

    // Answers all marks; up to the last answer the plane must have this state, if one is given.
    int sweep_all(const std::optional<std::string> &before_last = {})
    {
        int result = 0;
        for (const char app : {'v', 'm', 's'}) {
            for (auto sweep : {ops().acl_del_expired, ops().ace_del_expired, ops().apply_del_expired}) {
                EXPECT_EQ(0, result);
                loop_.run_pending();
                EXPECT_EQ(before_last.value_or(state()), state());
                result = sweep(nullptr, name_of(app).c_str());
            }
        }
        return result;
    }

    // "ace v 101 7", "no ace v 101 7 -5"
    static void report(const char *what, const vvlan_acl_desc_t *d, int err, const std::string &id)
    {
        std::string app = d->app_type;
        for (const char letter : {'m', 'v', 's'}) {
            app = app == name_of(letter) ? std::string(1, letter) : app;
        }
        reports.push_back((err ? "no " : "") + std::string(what) + " " + app + " " + std::to_string(d->acl_id) + id +
                          (err ? " " + std::to_string(err) : ""));
    }
    static std::string number(uint64_t id) { return " " + std::to_string(id); }

    static inline Lines reports;
    static constexpr fp_udp_acl_cb_tbl_t callbacks = {
        [](void *, const vvlan_acl_desc_t *d) { report("acl", d, 0, ""); },
        [](void *, const vvlan_acl_desc_t *d, int err) { report("acl", d, err, ""); },
        [](void *, const vvlan_acl_desc_t *d, uint64_t id) { report("ace", d, 0, number(id)); },
        [](void *, const vvlan_acl_desc_t *d, uint64_t id, int err) { report("ace", d, err, number(id)); },
        [](void *, const vvlan_acl_desc_t *d) { report("apply", d, 0, ""); },
        [](void *, const vvlan_acl_desc_t *d, void *, int err) { report("apply", d, err, ""); },
    };

    VirtualLoop loop_;
    RecordingPlane plane_;
    std::optional<Manager> manager_;
    Lines log_;

  private:
    LogSink old_sink_;
};

// ---- Requests ----

TEST_F(ManagerTest, RequestsOfOneTurnReachThePlaneTogether)
{
    ask_all(
        {"acl v", "ace v 9", "ace v 7", "acl m", "ace m 3", "acl s", "ace s 1", "bind v 12", "bind v 11", "bind m 12"});
    EXPECT_EQ(0, plane_.installs);
    loop_.run_pending();
    EXPECT_EQ(1, plane_.installs);
    Rule voice{.id = 7, .mac = {2, 0x11, 0x22}, .mask = {0xff, 0xff, 0xff}, .vid = 100, .vid_mask = 0xffff};
    voice.set_cos = voice.set_dscp = voice.set_prio = true;
    voice.cos = voice.prio = 6;
    voice.dscp = 46;
    PlaneState expected;
    expected.rules[0] = {{.id = 3, .form_mask = 3, .add_tag = true, .tag_vid = 100}};
    expected.rules[1] = {voice, voice};
    expected.rules[1][1].id = 9;
    expected.rules[2] = {{.id = 1, .vid = 100, .vid_mask = 0xffff, .drop = true}};
    expected.binding = {{11, acl_bit(Acl::voice)}, {12, acl_bit(Acl::voice) | acl_bit(Acl::mac_vlan)}};
    EXPECT_EQ(expected, plane_.state);
    EXPECT_EQ(expected, manager_->desired());

    ASSERT_EQ(0, set_ace('v', 7, {{"cos", 2, {1, 0, 0, 0, 0, 0}}})); // replaces, as a whole
    turn({"acl v"});                                                 // keeps
    expected.rules[1][0] = {.id = 7, .set_cos = true, .cos = 1};
    EXPECT_EQ(expected, plane_.state);
}

TEST_F(ManagerTest, OutcomesComeFromTheLoopInTheOrderOfTheRequests)
{
    ask_all({"acl v 200", "acl m"});
    EXPECT_EQ(error_not_found, ask("ace s 1"));
    ask_all({"ace m 9", "bind m 4"});
    EXPECT_EQ(error_not_found, ask("bind v 1"));
    EXPECT_TRUE(reports.empty());
    EXPECT_EQ(Lines({"acl v 200", "acl m 101", "no ace s 101 1 -7", "ace m 101 9", "apply m 101", "no apply v 101 -7"}),
              delivered());

    ask("acl s");
    manager_->forget_module();
    EXPECT_EQ(Lines(), delivered());
    attach();
    ask_all({"ace m 8"});
    manager_.reset(); // hands over the turn; what is on its way must not reach into a manager that is gone
    EXPECT_EQ("m8 m9 4=1 ", state());
    EXPECT_EQ(Lines(), delivered());
    EXPECT_EQ(nullptr, fp_udp_get_mgr());
}

TEST_F(ManagerTest, DeletionsTakeWhatBelongsToThemAndAreNotReported)
{
    for (const std::string app : {"v", "s"}) {
        turn({"acl " + app, "ace " + app + " 1", "ace " + app + " 2", "bind " + app + " 8", "bind " + app + " 9"});
    }
    EXPECT_EQ(Lines(), turn({"-acl v 102", "-acl m", "-ace v 3", "-bind s 10", "-bind m 8"}));
    EXPECT_EQ("v1 v2 s1 s2 8=6 9=6 ", state());
    EXPECT_EQ(Lines(), turn({"-acl v", "-ace s 1", "-bind s 8", "-acl v"}));
    EXPECT_EQ("s2 9=4 ", state());
    EXPECT_EQ(0u, manager_->counters().refused);
}

TEST_F(ManagerTest, FieldsThatCannotBeCarriedOutAreRefusedByName)
{
    using Value = std::vector<uint8_t>;
    const struct {
        char app;
        Field field;
    } rows[] = {{'v', {"src_mac2", 1, Value(6)}},
                {'v', {"a name that is longer than any field's is cut", 1, Value(6)}},
                {'v', {"", 1, Value(6)}},
                {'v', {"cos", 1, Value(6)}},
                {'v', {"cos", 0, Value(6)}},
                {'v', {"src_mac", 2, Value(12)}},
                {'v', {"src_mac", 1, Value(11)}},
                {'v', {"vid", 1, Value(2)}},
                {'v', {"fwd", 2, {}}},
                {'v', {"cos", 2, Value(300)}},
                {'v', {"cos", 2, {8, 0, 0, 0, 0, 0}}},
                {'v', {"cos", 2, {0, 0, 0, 0, 0, 1}}},
                {'v', {"ipv4_dscp", 2, {64, 0, 0, 0, 0, 0}}},
                {'v', {"prio_in", 2, {8, 0, 0, 0, 0, 0}}},
                {'v', {"vid", 1, {0xff, 0x0f, 0xff, 0xff}}},
                {'v', {"vlan_form", 1, {3, 3}}},
                {'v', {"vlan_form", 1, {0, 4}}},
                {'v', {"fwd", 2, {2}}},
                {'v', {"add_tag", 2, {0x64, 0, 0, 0}}},
                {'m', {"add_tag", 2, {0, 0, 0, 0}}},
                {'m', {"add_tag", 2, {0xff, 0x0f, 0, 0}}},
                {'m', {"add_tag", 2, {1, 0, 1, 0}}},
                {'m', {"fwd", 2, {0}}}};
    turn({"acl v", "ace v 7", "acl m"});
    for (const auto &[app, field] : rows) {
        log_.clear();
        const std::string name = std::string(field.name).substr(0, 31);
        EXPECT_EQ(error_invalid, set_ace(app, 7, {field}));
        ASSERT_EQ(1u, log_.size()) << name;
        const std::string expected =
            "ACL " + name_of(app) + " 101: ACE 7: field " + (name.empty() ? "(no name)" : name);
        EXPECT_TRUE(log_[0].starts_with(expected + ": ")) << log_[0];
        EXPECT_EQ(Lines({std::string("no ace ") + app + " 101 7 -4"}), delivered());
    }
    EXPECT_GT(0, set_ace('v', 7, {vid_field, vid_field}));
    EXPECT_GT(0, set_ace('v', 7, Fields(17, vid_field)));
    for (uint64_t id : {uint64_t{0}, uint64_t{FP_UDP_ACE_COUNT_MAX + 1}, uint64_t{1} << 32 | 5}) {
        EXPECT_GT(0, set_ace('v', id, {}));
    }
    EXPECT_EQ("v7 ", desired());
}

TEST_F(ManagerTest, MalformedRequestsAreRefused)
{
    vvlan_acl_desc_t endless = desc('v'), kind = endless;
    std::memset(endless.app_type, 'x', sizeof endless.app_type);
    kind.acl_kind = 5;
    const vvlan_acl_desc_t *const bad_descriptors[] = {nullptr, &endless, &kind};
    for (const vvlan_acl_desc_t *bad : bad_descriptors) {
        EXPECT_GT(0, ops().acl_set(nullptr, bad));
    }
    EXPECT_GT(0, ask("acl x"));
    EXPECT_EQ(Lines({"no acl v 101 -4", "no acl other_app 101 -4"}), delivered());
    EXPECT_GT(0, ops().acl_expire(nullptr, "other_app"));

    turn({"acl v"});
    vvlan_apply_t early = record('v', 1);
    early.apply_opt = 1;
    EXPECT_GT(0, bind('v', early));
    EXPECT_GT(0, bind('v', record('s', 1)));
    EXPECT_GT(0, bind('v', record('v', 1), 5));
    EXPECT_EQ(error_exists, ask("acl v 102"));
    EXPECT_EQ("", desired());
}

TEST_F(ManagerTest, LimitsAreKept)
{
    ask("acl v");
    for (uint32_t phyid = 0; phyid < bindings_max; phyid++) {
        ASSERT_EQ(0, bind('v', record('v', phyid)));
    }
    EXPECT_EQ(0, ask("bind v 5"));
    EXPECT_EQ(error_full, ask("bind v 5000"));
    EXPECT_EQ(bindings_max + 3, delivered().size());
    EXPECT_EQ(bindings_max, plane_.state.binding.size());
    for (size_t i = 0; i <= held_reports_max; i++) {
        ask("acl v");
    }
    EXPECT_EQ(held_reports_max, delivered().size());
    EXPECT_EQ(1u, manager_->counters().unreported);
}

TEST_F(ManagerTest, RefusedTurnIsUndoneAsAWholeAndReported)
{
    turn({"acl v", "ace v 1", "bind v 1"});
    const struct {
        Lines requests;
        Lines outcomes;
    } turns[] = {{{"ace v 2"}, {"no ace v 101 2 -5"}},
                 {{"-acl v"}, {}},
                 {{"-ace v 1", "bind v 3", "-bind v 1"}, {"no apply v 101 -5"}},
                 {{"acl s", "ace s 1", "ace v 1"}, {"no acl s 101 -5", "no ace s 101 1 -5", "no ace v 101 1 -5"}}};
    for (const auto &row : turns) {
        plane_.next_result = -5;
        EXPECT_EQ(row.outcomes, turn(row.requests));
        EXPECT_EQ("v1 1=2 ", state());
        EXPECT_EQ("v1 1=2 ", desired());
    }
    ask("ace v 3");
    EXPECT_EQ(error_not_found, ask("ace s 1")); // its ACL is undone, too
    plane_.next_result = -5;
    EXPECT_EQ(Lines({"no ace v 101 3 -5", "no ace s 101 1 -7"}), delivered());
    turn({"ace v 2"});
    EXPECT_EQ("v1 v2 1=2 ", state());
}

// ---- Reconciliation: the plane keeps its state until all marks are answered or time is up ----

constexpr uint64_t limit_us = uint64_t{FP_UDP_RECONCILE_LIMIT_MS} * 1000;

class ReconcileTest : public ManagerTest
{
  protected:
    ReconcileTest()
    {
        turn({"acl v", "ace v 1", "ace v 2", "bind v 1", "bind v 2", "acl s", "ace s 1", "bind s 3"});
        plane_.installs = 0;
    }

    // The application comes back with the voice ACL alone: ACE 2, a new ACE 9, port 2.
    static void set_again() { ask_all({"acl v", "ace v 2", "ace v 9", "bind v 2"}); }

    const std::string before_ = "v1 v2 s1 1=2 2=2 3=4 ";
    const std::string again_ = "v2 v9 2=2 ";
};

TEST_F(ReconcileTest, PlaneKeepsItsStateUntilTheLastAnswer)
{
    expire_all();
    set_again();
    EXPECT_EQ(error_not_found, ask("ace m 1"));
    EXPECT_EQ(Lines({"no ace m 101 1 -7"}), delivered()); // success is not known yet
    EXPECT_EQ(0, sweep_all(before_));
    EXPECT_EQ(1, plane_.installs); // in one step
    EXPECT_EQ(again_, state());
    EXPECT_EQ(Lines({"acl v 101", "ace v 101 2", "ace v 101 9", "apply v 101"}), delivered());

    turn({"ace v 10"}); // and from here on with each turn
    sweep_all();        // sweeping again removes nothing
    loop_.advance(2 * limit_us);
    EXPECT_EQ("v2 v9 v10 2=2 ", state());
    EXPECT_EQ(0u, manager_->counters().timed_out);
    EXPECT_EQ(1u, manager_->counters().reconciled);
}

TEST_F(ReconcileTest, SweepTakesOnlyTheMarkedOfItsKindAndAppType)
{
    ask("ace v 3"); // before the first mark, so in force at once
    ASSERT_EQ(0, ops().ace_expire(nullptr, voice_app));
    EXPECT_EQ("v1 v2 v3 s1 1=2 2=2 3=4 ", state());
    EXPECT_EQ(0, ask("ace v 2"));
    EXPECT_EQ(0, ops().ace_del_expired(nullptr, "vvlan_secu_deny_app"));
    EXPECT_EQ(0, ops().apply_del_expired(nullptr, voice_app));
    EXPECT_EQ(1, plane_.installs); // the one open mark has no answer yet
    EXPECT_EQ(0, ops().ace_del_expired(nullptr, voice_app));
    EXPECT_EQ("v2 s1 1=2 2=2 3=4 ", state());
}

TEST_F(ReconcileTest, MarkedAclGivesWayToAnotherId)
{
    expire_all();
    EXPECT_EQ(0, ask("acl v 300"));
    sweep_all();
    EXPECT_EQ("", state());
    EXPECT_GT(0, ask("ace v 1")); // 101 is gone
}

TEST_F(ReconcileTest, TimeLimitTakesOverAndLeavesTheRestMarked)
{
    expire_all();
    set_again();
    loop_.advance(limit_us - 1);
    EXPECT_EQ(before_, state());
    loop_.advance(1);
    EXPECT_EQ("v1 v2 v9 s1 1=2 2=2 3=4 ", state()); // 1 is still marked
    EXPECT_EQ(1u, manager_->counters().timed_out);
    EXPECT_EQ(4u, delivered().size());
    sweep_all(); // late, and then with the turn
    loop_.run_pending();
    EXPECT_EQ(again_, state());
    EXPECT_EQ(0u, manager_->counters().reconciled);
}

TEST_F(ReconcileTest, RestartsAndARefusedEndGoBackToTheStateBefore)
{
    for (int restart = 0; restart < 3; restart++) {
        expire_all();
        ask_all({"-acl s", "acl v", "ace v 2" + std::to_string(restart)});
        ops().acl_del_expired(nullptr, voice_app);
        loop_.advance(limit_us / 2 + 1); // each start has the whole limit
        manager_->forget_module();
        EXPECT_EQ(before_, state());
        attach();
    }
    expire_all();
    set_again();
    plane_.next_result = -5;
    EXPECT_EQ(-5, sweep_all(before_)); // what is gone back to is what was there first
    EXPECT_EQ(before_, state());
    EXPECT_EQ(before_, desired());
    EXPECT_EQ(Lines({"no acl v 101 -5", "no ace v 101 2 -5", "no ace v 101 9 -5", "no apply v 101 -5"}), delivered());
    expire_all();
    set_again();
    EXPECT_EQ(0, sweep_all(before_));
    EXPECT_EQ(again_, state());
    EXPECT_EQ(1u, manager_->counters().reconciled);
    EXPECT_EQ(0u, manager_->counters().timed_out);

    expire_all(); // the marks of an application that is gone need no answer
    manager_->forget_module();
    EXPECT_EQ(0, ops().ace_expire(nullptr, voice_app));
    EXPECT_EQ(0, ops().ace_del_expired(nullptr, voice_app));
    EXPECT_EQ("2=2 ", state());
}

TEST_F(ManagerTest, WithNothingInstalledMarksHoldNothingBack)
{
    expire_all();
    EXPECT_EQ(2u, turn({"acl v", "ace v 1"}).size());
    EXPECT_EQ("v1 ", state());
    sweep_all("v1 ");
    loop_.run_pending();
    EXPECT_EQ("v1 ", state());
    EXPECT_EQ(0u, manager_->counters().reconciled);
}

// A plane that outlives its agent, as the next agent finds it.
TEST_F(ReconcileTest, StateOfAnEarlierProcessIsKeptUntilTheFirstReconciliation)
{
    const auto start_again = [this] {
        manager_.reset();
        manager_.emplace(plane_, loop_);
        attach();
    };
    start_again();
    loop_.advance(2 * limit_us); // no store yet
    expire_all();
    set_again();
    EXPECT_EQ(0, plane_.installs);
    EXPECT_EQ(0, sweep_all(before_));
    EXPECT_EQ(again_, state());

    start_again(); // and this agent never finishes
    expire_all();
    loop_.advance(limit_us - 1);
    EXPECT_EQ(again_, state());
    loop_.advance(1);
    EXPECT_EQ("", state());
    EXPECT_EQ(1u, manager_->counters().timed_out);
}

} // namespace
} // namespace vvl::fp::test
