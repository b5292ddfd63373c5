// The forwarding-plane manager, called through its C operations with any
// descriptors, fields and app types, over a plane that refuses now and then.
// Whenever no reconciliation is open, the plane has what was asked for, and
// what was asked for is something that a plane can take.
#include "platform/base/log.h"
#include "platform/base/virtual_loop.h"
#include "platform/fp/manager.h"
#include "tests/fuzz/byte_reader.h"

namespace vvl::test
{
namespace
{

// Keeps what it is told.
class KeepingPlane final : public fp::Plane
{
  public:
    int set_rules(fp::Acl acl, std::span<const fp::Rule> rules) override
    {
        return take([&] { state.rules[static_cast<size_t>(acl)].assign(rules.begin(), rules.end()); });
    }
    int set_binding(uint32_t phyid, uint8_t acls) override
    {
        return take([&] {
            state.binding[phyid] = acls;
            std::erase_if(state.binding, [](const auto &row) { return row.second == 0; });
        });
    }
    int replace_all(const fp::PlaneState &next) override
    {
        return take([&] { state = next; });
    }
    int set_trap(uint32_t, bool) override { return 0; }
    void forget(uint16_t, const Mac &) override {}

    fp::PlaneState state;
    bool refuses = false;

  private:
    template <typename Change> int take(Change change)
    {
        if (refuses) {
            return -1;
        }
        change();
        return 0;
    }
};

void read_app_type(ByteReader &in, char (&text)[FP_UDP_APP_TYPE_SIZE])
{
    static constexpr const char *known[] = {"mac_vlan_app", "vvlan_secu_pas_app", "vvlan_secu_deny_app"};
    const uint32_t choice = in.below(16);
    if (choice < 15) {
        std::strncpy(text, known[choice % 3], sizeof text - 1);
    } else {
        const auto any = in.bytes(sizeof text); // perhaps without an end
        std::copy(any.begin(), any.end(), text);
    }
}

class Caller
{
  public:
    explicit Caller(ByteReader &in) : in_(in) {}

    void call()
    {
        const fp_udp_mgr_ops_t &ops = *fp_udp_get_mgr()->ops;
        const vvlan_acl_desc_t desc = read_desc();
        const vvlan_acl_desc_t *given = in_.below(32) == 31 ? nullptr : &desc;
        switch (in_.below(8)) {
        case 0:
            ops.acl_set(nullptr, given);
            break;
        case 1:
            ops.acl_del(nullptr, given);
            break;
        case 2:
        case 3:
            set_ace(ops, given);
            break;
        case 4:
            ops.ace_del(nullptr, given, in_.one_of({1, 2, 3, 0}));
            break;
        case 5:
            bind(ops, given);
            break;
        default:
            expire(ops);
        }
    }

  private:
    vvlan_acl_desc_t read_desc()
    {
        vvlan_acl_desc_t desc{};
        read_app_type(in_, desc.app_type);
        desc.acl_id = in_.one_of({101, 101, 102, 100, 0});
        desc.acl_kind = static_cast<uint8_t>(in_.one_of({4, 4, 4, 0}));
        desc.reserved[34] = in_.below(32) == 31;
        return desc;
    }

    void add_field(const fp_udp_fields_ops_t &ops, fp_udp_fields_t *fields)
    {
        static constexpr struct {
            const char *name;
            uint32_t kind;
            uint32_t length;
        } known[] = {{"src_mac", 1, 12}, {"vid", 1, 4},     {"vlan_form", 1, 2}, {"cos", 2, 6}, {"ipv4_dscp", 2, 6},
                     {"prio_in", 2, 6},  {"add_tag", 2, 4}, {"fwd", 2, 1},       {"", 1, 1}};
        const auto &field = known[in_.u8() % std::size(known)];
        const auto length = in_.below(16) == 15 ? in_.one_of({0, 228, 229, 255}) % 512 : field.length;
        std::vector<uint8_t> value(length);
        if (length > 0) {
            value[0] = in_.u8() % 128;
        }
        if (length > 1 && in_.flag()) {
            value[1] = in_.u8() % 32;
        }
        const uint32_t kind = in_.below(16) == 15 ? in_.u8() : field.kind;
        ops.field_add(fields, ops.field_make(field.name, kind, value.data(), length));
    }

    void set_ace(const fp_udp_mgr_ops_t &ops, const vvlan_acl_desc_t *desc)
    {
        fp_udp_ace_t *ace = ops.ace_alloc(in_.one_of({1, 2, 3, 127, 0}), 0);
        if (ace != nullptr) {
            for (uint32_t count = in_.below(20); count > 0 && !in_.at_end(); count--) {
                add_field(*ace->fields->ops, ace->fields);
            }
        }
        ops.ace_set(nullptr, desc, ace);
        ops.ace_free(ace);
    }

    void bind(const fp_udp_mgr_ops_t &ops, const vvlan_acl_desc_t *desc)
    {
        vvlan_apply_t record{};
        read_app_type(in_, record.app_type);
        record.phyid = in_.one_of({256, 257, 258});
        record.apply_opt = in_.one_of({0, 1, 1});
        if (in_.flag()) {
            fp_udp_apply_t *apply = ops.apply_alloc(&record);
            ops.apply_set(nullptr, desc, static_cast<uint8_t>(in_.one_of({4, 4, 4, 0})), apply);
            ops.apply_free(apply);
        } else {
            ops.apply_del(nullptr, desc, &record);
        }
    }

    void expire(const fp_udp_mgr_ops_t &ops)
    {
        char app_type[FP_UDP_APP_TYPE_SIZE] = {};
        read_app_type(in_, app_type);
        app_type[sizeof app_type - 1] = '\0'; // here it is a C string
        int (*const calls[])(void *, const char *) = {ops.acl_expire,      ops.acl_del_expired, ops.ace_expire,
                                                      ops.ace_del_expired, ops.apply_expire,    ops.apply_del_expired};
        calls[in_.below(6)](nullptr, app_type);
    }

    ByteReader &in_;
};

void check(const fp::Manager &manager, const KeepingPlane &plane)
{
    std::string why;
    for (const auto &rules : manager.desired().rules) {
        require(fp::check_rules(rules, why), "what is asked for is what a plane can take");
    }
    require(manager.desired() == plane.state, "the plane has what was asked for");
}

} // namespace
} // namespace vvl::test

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    using namespace vvl::test;
    static const auto quiet = vvl::set_log_sink([](vvl::LogLevel, const std::string &) {});
    ByteReader in({data, size});
    vvl::VirtualLoop loop;
    KeepingPlane plane;
    vvl::fp::Manager manager(plane, loop);
    Caller caller(in);
    while (!in.at_end()) {
        const uint8_t host = in.u8();
        plane.refuses = host >= 0xe0;
        caller.call();
        if (host % 16 == 1) {
            manager.forget_module();
        } else if (host % 16 == 2) {
            loop.advance(uint64_t{FP_UDP_RECONCILE_LIMIT_MS} * 1000);
        }
        loop.run_pending();
    }
    plane.refuses = false;
    loop.advance(uint64_t{FP_UDP_RECONCILE_LIMIT_MS} * 1000); // ends what is open
    check(manager, plane);
    return 0;
}
