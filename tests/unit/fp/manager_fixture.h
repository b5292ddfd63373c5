// An application of the forwarding-plane library, as the manager sees it: the
// operation table, callbacks that write down what they are told, and a plane
// that records its state and refuses when it is told to.
#pragma once

#include "fp_udp.h"
#include "platform/base/log.h"
#include "platform/base/virtual_loop.h"
#include "platform/fp/manager.h"

#include <cstring>
#include <gtest/gtest.h>
#include <optional>
#include <string>
#include <vector>

namespace vvl::fp::test
{

inline constexpr const char *mac_vlan_app = "mac_vlan_app";
inline constexpr const char *voice_app = "vvlan_secu_pas_app";
inline constexpr const char *security_app = "vvlan_secu_deny_app";

// Remembers what it was told; next_result other than 0 is returned once, with
// nothing changed.
class RecordingPlane final : public Plane
{
  public:
    int set_rules(Acl acl, std::span<const Rule> rules) override
    {
        PlaneState next = state;
        next.rules[static_cast<size_t>(acl)].assign(rules.begin(), rules.end());
        return replace_all(next);
    }
    int set_binding(uint32_t phyid, uint8_t acls) override
    {
        PlaneState next = state;
        next.binding[phyid] = acls;
        std::erase_if(next.binding, [](const auto &entry) { return entry.second == 0; });
        return replace_all(next);
    }
    int replace_all(const PlaneState &next) override
    {
        const int result = std::exchange(next_result, 0);
        state = result == 0 ? next : state;
        changes += result == 0;
        return result;
    }
    int set_trap(uint32_t, bool) override { return 0; }
    void forget(uint16_t, const Mac &) override {}
    PlaneState installed() const override { return state; }

    PlaneState state;
    int next_result = 0;
    int changes = 0;
};

struct Field {
    const char *name;
    uint32_t kind;
    std::vector<uint8_t> value;
};

inline const std::vector<Field> voice_fields = {{"src_mac", 1, {2, 0x11, 0x22, 0, 0, 0, 0xff, 0xff, 0xff, 0, 0, 0}},
                                                {"vid", 1, {0x64, 0, 0xff, 0xff}},
                                                {"cos", 2, {6, 0, 0, 0, 0, 0}},
                                                {"ipv4_dscp", 2, {46, 0, 0, 0, 0, 0}},
                                                {"prio_in", 2, {6, 0, 0, 0, 0, 0}}};

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

    static vvlan_acl_desc_t desc(const char *app_type, uint32_t id = 101)
    {
        vvlan_acl_desc_t desc{.app_type = {}, .acl_id = id, .acl_kind = FP_UDP_ACL_KIND_VVLAN, .reserved = {}};
        std::memcpy(desc.app_type, app_type, std::strlen(app_type));
        return desc;
    }

    static int set_acl(const char *app_type, uint32_t id = 101)
    {
        const vvlan_acl_desc_t d = desc(app_type, id);
        return ops().acl_set(nullptr, &d);
    }

    static int set_ace(const char *app_type, uint64_t id, const std::vector<Field> &fields = voice_fields)
    {
        fp_udp_ace_t *ace = ops().ace_alloc(1, 0);
        ace->id = id;
        for (const Field &field : fields) {
            ace->fields->ops->field_add(ace->fields,
                                        ace->fields->ops->field_make(field.name, field.kind, field.value.data(),
                                                                     static_cast<uint32_t>(field.value.size())));
        }
        const vvlan_acl_desc_t d = desc(app_type);
        const int result = ops().ace_set(nullptr, &d, ace);
        ops().ace_free(ace);
        return result;
    }

    static vvlan_apply_t record(const char *app_type, uint32_t phyid)
    {
        vvlan_apply_t record{{}, phyid, app_type == std::string(mac_vlan_app), 0};
        std::memcpy(record.app_type, app_type, std::strlen(app_type));
        return record;
    }

    static int bind(const char *app_type, const vvlan_apply_t &record, uint8_t kind = FP_UDP_ACL_KIND_VVLAN)
    {
        fp_udp_apply_t *apply = ops().apply_alloc(&record);
        const vvlan_acl_desc_t d = desc(app_type);
        const int result = ops().apply_set(nullptr, &d, kind, apply);
        ops().apply_free(apply);
        return result;
    }

    static int bind(const char *app_type, uint32_t phyid) { return bind(app_type, record(app_type, phyid)); }

    static void expire_all()
    {
        for (const char *app_type : {voice_app, mac_vlan_app, security_app}) {
            for (auto expire : {ops().acl_expire, ops().ace_expire, ops().apply_expire}) {
                EXPECT_EQ(0, expire(nullptr, app_type));
            }
        }
    }

    // Answers all marks; before the last answer the plane must have this state, if one is given.
    int sweep_all(const PlaneState *before_last = nullptr)
    {
        int result = 0;
        for (const char *app_type : {voice_app, mac_vlan_app, security_app}) {
            for (auto sweep : {ops().acl_del_expired, ops().ace_del_expired, ops().apply_del_expired}) {
                EXPECT_EQ(0, result);
                EXPECT_TRUE(!before_last || *before_last == plane_.state);
                result = sweep(nullptr, app_type);
            }
        }
        return result;
    }

    std::vector<std::string> delivered()
    {
        loop_.run_pending();
        return std::exchange(reports, {});
    }

    static std::string of(const vvlan_acl_desc_t *d) { return d->app_type + (" " + std::to_string(d->acl_id)); }

    static std::string number(uint64_t id) { return " " + std::to_string(id); }
    static std::string failure(int err) { return err < 0 ? " failed" : " failed without a code"; }

    static inline std::vector<std::string> reports;
    static constexpr fp_udp_acl_cb_tbl_t callbacks = {
        [](void *, const vvlan_acl_desc_t *d) { reports.push_back("acl " + of(d)); },
        [](void *, const vvlan_acl_desc_t *d, int err) { reports.push_back("no acl " + of(d) + failure(err)); },
        [](void *, const vvlan_acl_desc_t *d, uint64_t id) { reports.push_back("ace " + of(d) + number(id)); },
        [](void *, const vvlan_acl_desc_t *d, uint64_t id, int err) {
            reports.push_back("no ace " + of(d) + number(id) + failure(err));
        },
        [](void *, const vvlan_acl_desc_t *d) { reports.push_back("apply " + of(d)); },
        [](void *, const vvlan_acl_desc_t *d, void *, int err) {
            reports.push_back("no apply " + of(d) + failure(err));
        },
    };

    VirtualLoop loop_;
    RecordingPlane plane_;
    std::optional<Manager> manager_;
    std::vector<std::string> log_;

  private:
    LogSink old_sink_;
};

} // namespace vvl::fp::test
