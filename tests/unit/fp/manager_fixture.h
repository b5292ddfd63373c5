// The manager as an application of the forwarding-plane library sees it, over a
// plane that records its state and refuses when it is told to.
//
// A test is a list of steps: actions in words, then the plane's state and the
// reports that the steps lead to. m, v and s stand for the three app types; ACLs
// have the id 101 unless they name another one.
#pragma once

#include "fp_udp.h"
#include "platform/base/log.h"
#include "platform/base/virtual_loop.h"
#include "platform/fp/manager.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <optional>
#include <sstream>

namespace vvl::fp::test
{

constexpr uint64_t limit_us = uint64_t{FP_UDP_RECONCILE_LIMIT_MS} * 1000;
constexpr const char *apps = "mvs"; // by Acl

inline std::string name_of(char app)
{
    return app == 'm' ? "mac_vlan_app" : app == 'v' ? "vvlan_secu_pas_app" : app == 's' ? "vvlan_secu_deny_app" : "x";
}

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

// "v1 v2 1=2 ": ACEs 1 and 2 of v, and port 1 bound to v alone.
inline std::string text_of(const PlaneState &state)
{
    std::ostringstream out;
    for (size_t i = 0; i < acl_count; i++) {
        for (const Rule &rule : state.rules[i]) {
            out << apps[i] << rule.id << ' ';
        }
    }
    for (const auto &[phyid, acls] : state.binding) {
        out << phyid << '=' << unsigned{acls} << ' ';
    }
    return out.str();
}

// What an application gives: a list of "name kind value", the value in hexadecimal.
using Fields = std::vector<std::string>;

inline const Fields default_fields[] = {
    {"vlan_form 1 0003", "add_tag 2 64000000"},
    {"src_mac 1 021122000000ffffff000000", "vid 1 6400ffff", "cos 2 060000000000", "ipv4_dscp 2 2e0000000000",
     "prio_in 2 060000000000"},
    {"vid 1 6400ffff", "fwd 2 00"},
};

inline void add_field(fp_udp_fields_t &fields, const std::string &text)
{
    const size_t first = text.rfind(' ', text.rfind(' ') - 1), second = text.rfind(' ');
    std::vector<uint8_t> value;
    for (size_t at = second + 1; at < text.size(); at += 2) {
        value.push_back(static_cast<uint8_t>(std::stoul(text.substr(at, 2), nullptr, 16)));
    }
    const auto kind = static_cast<uint32_t>(std::stoul(text.substr(first + 1)));
    fields.ops->field_add(&fields, fields.ops->field_make(text.substr(0, first).c_str(), kind, value.data(),
                                                          static_cast<uint32_t>(value.size())));
}

struct Step {
    const char *actions; // separated by "; ", each perhaps with the result that it has instead of 0: "acl x = -4"
    std::string state;
    std::string reports = {}; // "ace v 7, no ace v 7 -5, "
};

class ManagerTest : public ::testing::Test
{
  protected:
    ManagerTest()
    {
        reports.clear();
        old_sink_ = set_log_sink([this](LogLevel, const std::string &text) { log_.push_back(text); });
        start();
    }
    ~ManagerTest() override { set_log_sink(std::move(old_sink_)); }

    void start()
    {
        manager_.reset();
        manager_.emplace(plane_, loop_);
        attach();
    }

    void attach() { ASSERT_EQ(0, fp_udp_register_acl_handler(nullptr, FP_UDP_APP_VVLAN, &callbacks)); }

    static const fp_udp_mgr_ops_t &ops() { return *fp_udp_get_mgr()->ops; }

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
        for (const std::string &field : fields) {
            add_field(*ace->fields, field);
        }
        const vvlan_acl_desc_t d = desc(app);
        const int result = ops().ace_set(nullptr, &d, ace);
        ops().ace_free(ace);
        return result;
    }

    // fault: "early" for the other stage, "foreign" for another app type, "kind" for another ACL kind.
    static int bind(char app, uint32_t phyid, bool on, const std::string &fault)
    {
        vvlan_apply_t record{{}, phyid, (app == 'm') != (fault == "early"), 0};
        name_of(fault == "foreign" ? 's' : app).copy(record.app_type, sizeof record.app_type);
        const vvlan_acl_desc_t d = desc(app);
        if (!on) {
            return ops().apply_del(nullptr, &d, &record);
        }
        fp_udp_apply_t *apply = ops().apply_alloc(&record);
        const int result = ops().apply_set(nullptr, &d, fault == "kind" ? 5 : FP_UDP_ACL_KIND_VVLAN, apply);
        ops().apply_free(apply);
        return result;
    }

    // "acl v [ID]", "ace v 7", "bind v 12 [FAULT]"; with "-" in front, the removal.
    static int request(const std::string &verb, std::istream &in)
    {
        char app = 0;
        uint32_t number = 0;
        std::string fault;
        in >> app >> number;
        in.clear();
        in >> fault;
        const vvlan_acl_desc_t acl = desc(app), d = desc(app, verb.ends_with("acl") && number ? number : 101);
        return verb == "acl"    ? ops().acl_set(nullptr, &d)
               : verb == "-acl" ? ops().acl_del(nullptr, &d)
               : verb == "ace"  ? set_ace(app, number, default_fields[std::string(apps).find(app)])
               : verb == "-ace" ? ops().ace_del(nullptr, &acl, number)
                                : bind(app, number, verb == "bind", fault);
    }

    // "expire [KIND APP]", "sweep [KIND APP]"; without a kind all of them, where the plane changes with the last one
    // alone.
    int mark(bool expire, const std::string &kind, const std::string &app)
    {
        using Mark = int (*)(void *, const char *);
        const std::pair<const char *, Mark> marks[] = {
            {"acl", expire ? ops().acl_expire : ops().acl_del_expired},
            {"ace", expire ? ops().ace_expire : ops().ace_del_expired},
            {"binding", expire ? ops().apply_expire : ops().apply_del_expired},
        };
        int result = 0;
        const int installs = plane_.installs;
        for (const char one_app : app.empty() ? std::string(apps) : app) {
            for (const auto &[name, function] : marks) {
                if (kind.empty() || kind == name) {
                    EXPECT_EQ(std::pair(0, installs), std::pair(result, plane_.installs));
                    result = function(nullptr, name_of(one_app).c_str());
                }
            }
        }
        return result;
    }

    int act(const std::string &action)
    {
        std::istringstream in(action);
        std::string verb, kind, app;
        in >> verb;
        if (verb == "expire" || verb == "sweep") {
            in >> kind >> app;
            return mark(verb == "expire", kind == "=" ? "" : kind, kind == "=" ? "" : app);
        }
        if (verb == "forget") {
            manager_->forget_module();
        } else if (verb == "attach") {
            attach();
        } else if (verb == "start") {
            start();
        } else if (verb == "refuse") { // the next state
            plane_.next_result = -5;
        } else {
            return request(verb, in);
        }
        return 0;
    }

    // Takes the steps, each to the end of its turn.
    void play(const std::vector<Step> &steps)
    {
        for (const Step &step : steps) {
            SCOPED_TRACE(step.actions);
            std::istringstream actions(step.actions);
            for (std::string action; std::getline(actions >> std::ws, action, ';');) {
                const size_t result = action.find("= ");
                EXPECT_EQ(result == std::string::npos ? 0 : std::stoi(action.substr(result + 2)), act(action))
                    << action;
            }
            loop_.run_pending();
            EXPECT_EQ(step.state, text_of(plane_.state));
            EXPECT_EQ(step.reports, std::exchange(reports, {}));
        }
    }

    static void report(const char *what, const vvlan_acl_desc_t *d, int err, uint64_t id = 0)
    {
        const auto app = std::find_if(apps, apps + acl_count, [&](char one) { return name_of(one) == d->app_type; });
        reports += std::string(err ? "no " : "") + what + " " + *app;
        for (const int64_t number : {int64_t{d->acl_id}, static_cast<int64_t>(id), int64_t{err}}) {
            reports += number != 0 && number != 101 ? " " + std::to_string(number) : "";
        }
        reports += ", ";
    }

    static inline std::string reports;
    static const fp_udp_acl_cb_tbl_t callbacks;

    VirtualLoop loop_;
    RecordingPlane plane_;
    std::optional<Manager> manager_;
    std::vector<std::string> log_;

  private:
    LogSink old_sink_;
};

inline const fp_udp_acl_cb_tbl_t ManagerTest::callbacks = {
    [](void *, const vvlan_acl_desc_t *d) { report("acl", d, 0); },
    [](void *, const vvlan_acl_desc_t *d, int err) { report("acl", d, err); },
    [](void *, const vvlan_acl_desc_t *d, uint64_t id) { report("ace", d, 0, id); },
    [](void *, const vvlan_acl_desc_t *d, uint64_t id, int err) { report("ace", d, err, id); },
    [](void *, const vvlan_acl_desc_t *d) { report("apply", d, 0); },
    [](void *, const vvlan_acl_desc_t *d, void *, int err) { report("apply", d, err); },
};

} // namespace vvl::fp::test
