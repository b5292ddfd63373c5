// The manager behind the operation table. A request is worked out on a copy of
// the table of ACLs, a binding on its port alone; the plane is told the
// difference; only what it accepts becomes the desired state.
//
// A reconciliation takes the plane out of this: it keeps the state that it had
// when the first mark was opened, requests change the desired state alone, and
// the answer to the last open mark hands the whole over. The state that it had
// is kept apart from what is being built, so an application that dies half-way
// and starts again does not turn its own half into the state to go back to.
#include "platform/fp/manager.h"

#include "platform/base/log.h"
#include "platform/fp/ace.h"
#include "platform/fp/acl_table.h"
#include "platform/fp/error.h"
#include "platform/fp/manager_impl.h"

#include <cstring>
#include <utility>

namespace vvl::fp
{
namespace
{

// The bit of a mark, among the open ones.
uint32_t mark_bit(Acl acl, Kind kind)
{
    return 1u << (static_cast<size_t>(acl) * kind_count + static_cast<size_t>(kind));
}

bool has_app_type(const vvlan_acl_desc_t *desc)
{
    return desc && std::memchr(desc->app_type, '\0', sizeof desc->app_type);
}

std::string name_of(const Request &request)
{
    std::string name = "ACL ";
    name += has_app_type(request.desc) ? request.desc->app_type : "(unreadable descriptor)";
    if (request.desc) {
        name += ' ';
        name += std::to_string(request.desc->acl_id);
    }
    if (request.kind == Kind::ace) {
        name += ": ACE ";
        name += std::to_string(request.subject);
    } else if (request.kind == Kind::binding) {
        name += ": port ";
        name += std::to_string(request.subject);
    }
    return name;
}

// Reads the descriptor of a request that sets something.
int read_descriptor(const vvlan_acl_desc_t *desc, Acl &acl, std::string &why)
{
    if (!has_app_type(desc)) {
        why = "descriptor is missing or its app type has no end";
    } else if (!acl_of_app_type(desc->app_type, acl)) {
        why = "unknown app type";
    } else if (desc->acl_kind != FP_UDP_ACL_KIND_VVLAN) {
        why = "unknown ACL kind " + std::to_string(desc->acl_kind);
    } else {
        return 0;
    }
    return error_invalid;
}

void set_bound(PlaneState &state, uint32_t phyid, uint8_t acls)
{
    if (acls == 0) {
        state.binding.erase(phyid);
    } else {
        state.binding[phyid] = acls;
    }
}

} // namespace

Manager::Impl::~Impl()
{
    if (reconciling_) {
        loop_.cancel_timer(limit_timer_);
    }
}

int Manager::Impl::acl_set(const vvlan_acl_desc_t *desc)
{
    const Request request{Kind::acl, desc, 0};
    Acl acl{};
    std::string why;
    if (const int code = read_descriptor(desc, acl, why)) {
        return refuse(request, code, why);
    }
    AclTable next = table_;
    AclEntry &entry = next.at(acl);
    if (entry.present && entry.id != desc->acl_id) {
        if (!entry.marked) {
            return refuse(request, error_exists, "the app type holds ACL " + std::to_string(entry.id));
        }
        entry = {};
    }
    entry.present = true;
    entry.marked = false;
    entry.id = desc->acl_id;
    return adopt(request, std::move(next));
}

int Manager::Impl::ace_set(const vvlan_acl_desc_t *desc, const fp_udp_ace_t *ace)
{
    const Request request{Kind::ace, desc, ace ? ace->id : 0};
    Acl acl{};
    std::string why;
    if (const int code = locate(request, acl, why)) {
        return refuse(request, code, why);
    }
    Rule rule;
    if (!ace) {
        return refuse(request, error_invalid, "no ACE object");
    }
    if (!read_ace(*ace, acl, rule, why)) {
        return refuse(request, error_invalid, why);
    }
    AclTable next = table_;
    next.at(acl).aces[rule.id] = {rule, false};
    return adopt(request, std::move(next));
}

int Manager::Impl::apply_set(const vvlan_acl_desc_t *desc, uint8_t acl_kind, const vvlan_apply_t *apply)
{
    const Request request{Kind::binding, desc, apply ? apply->phyid : 0};
    Acl acl{};
    std::string why;
    if (const int code = locate(request, acl, why)) {
        return refuse(request, code, why);
    }
    if (!apply || acl_kind != desc->acl_kind) {
        return refuse(request, error_invalid, apply ? "another ACL kind than the descriptor's" : "no apply object");
    }
    if (std::strncmp(apply->app_type, desc->app_type, sizeof apply->app_type) != 0) {
        return refuse(request, error_invalid, "the apply object is for another app type");
    }
    if (apply->apply_opt != (acl == Acl::mac_vlan ? 1u : 0u)) {
        return refuse(request, error_invalid, "the ACL cannot act at that stage");
    }
    const auto &bindings = table_.at(acl).bindings;
    if (bindings.size() == bindings_max && !bindings.contains(apply->phyid)) {
        return refuse(request, error_full, "the ACL is bound to too many ports");
    }
    return bind(request, acl, true);
}

// Finds the ACL of a request that removes something; none where code says why
// there is nothing to do. An application may let go of what it never had, with
// a descriptor that it has not filled in yet.
std::optional<Acl> Manager::Impl::find_removed(const Request &request, int &code)
{
    Acl acl{};
    code = 0;
    if (!has_app_type(request.desc)) {
        code = refuse(request, error_invalid, "descriptor is missing or its app type has no end");
        return {};
    }
    if (!acl_of_app_type(request.desc->app_type, acl) || !table_.at(acl).present ||
        table_.at(acl).id != request.desc->acl_id) {
        return {};
    }
    return acl;
}

template <typename Remove> int Manager::Impl::remove(const Request &request, Remove &&how)
{
    int code = 0;
    const std::optional<Acl> acl = find_removed(request, code);
    if (!acl) {
        return code;
    }
    AclTable next = table_;
    how(next.at(*acl));
    return adopt(request, std::move(next));
}

int Manager::Impl::acl_del(const vvlan_acl_desc_t *desc)
{
    return remove({Kind::acl, desc, 0, false}, [](AclEntry &entry) { entry = {}; });
}

int Manager::Impl::ace_del(const vvlan_acl_desc_t *desc, uint64_t ace_id)
{
    return remove({Kind::ace, desc, ace_id, false}, [&](AclEntry &entry) { entry.aces.erase(ace_id); });
}

int Manager::Impl::apply_del(const vvlan_acl_desc_t *desc, const vvlan_apply_t *record)
{
    if (!record) {
        return refuse({Kind::binding, desc, 0, false}, error_invalid, "no apply record");
    }
    const Request request{Kind::binding, desc, record->phyid, false};
    int code = 0;
    const std::optional<Acl> acl = find_removed(request, code);
    return acl ? bind(request, *acl, false) : code;
}

int Manager::Impl::expire(Kind kind, const char *app_type)
{
    Acl acl{};
    if (!app_type || !acl_of_app_type(app_type, acl)) {
        return refuse_app_type(app_type);
    }
    if (!reconciling_ && !table_.empty()) {
        reconciling_ = true;
        kept_ = table_;
        start_limit();
    } else if (reconciling_ && restarted_) {
        loop_.cancel_timer(limit_timer_);
        start_limit();
    }
    restarted_ = false;
    open_marks_ |= mark_bit(acl, kind);
    table_.mark(acl, kind);
    counters_.accepted++;
    return 0;
}

int Manager::Impl::del_expired(Kind kind, const char *app_type)
{
    Acl acl{};
    if (!app_type || !acl_of_app_type(app_type, acl)) {
        return refuse_app_type(app_type);
    }
    AclTable next = table_;
    next.sweep(acl, kind);
    vvlan_acl_desc_t desc{};
    std::memcpy(desc.app_type, app_type, std::strlen(app_type));
    desc.acl_id = table_.at(acl).id;
    const int code = adopt({Kind::acl, &desc, 0, false}, std::move(next));
    const uint32_t answered = open_marks_ & mark_bit(acl, kind);
    open_marks_ &= ~answered;
    if (answered == 0 || open_marks_ != 0) {
        return code;
    }
    const int end_code = reconciling_ ? end_reconciliation(false) : code;
    log_line(LogLevel::info, "forwarding plane: reconciliation ended");
    return end_code;
}

void Manager::Impl::forget_module()
{
    reports_.forget();
    open_marks_ = 0;
    restarted_ = reconciling_;
}

void Manager::Impl::start_limit()
{
    limit_timer_ = loop_.add_timer(uint64_t{FP_UDP_RECONCILE_LIMIT_MS} * 1000, [this] {
        log_line(LogLevel::warn, "forwarding plane: reconciliation not completed in time, taking over what there is");
        end_reconciliation(true);
    });
}

int Manager::Impl::end_reconciliation(bool timed_out)
{
    loop_.cancel_timer(limit_timer_);
    reconciling_ = false;
    restarted_ = false;
    open_marks_ = 0;
    counters_.timed_out += timed_out;
    const int code = plane_.replace_all(desired_);
    if (code < 0) {
        log_line(LogLevel::error,
                 "forwarding plane: reconciled state refused (" + std::to_string(code) + "), the earlier one stays");
        counters_.refused++;
        table_ = std::exchange(kept_, {});
        desired_ = active_;
    } else {
        counters_.reconciled += !timed_out;
        kept_ = {};
        active_ = desired_;
    }
    reports_.release(code < 0 ? code : 0);
    return code < 0 ? code : 0;
}

int Manager::Impl::locate(const Request &request, Acl &acl, std::string &why) const
{
    if (const int code = read_descriptor(request.desc, acl, why)) {
        return code;
    }
    const AclEntry &entry = table_.at(acl);
    if (!entry.present || entry.id != request.desc->acl_id) {
        why = "the ACL does not exist";
        return error_not_found;
    }
    return 0;
}

int Manager::Impl::adopt(const Request &request, AclTable next)
{
    PlaneState state = next.state();
    if (!reconciling_) {
        if (const int code = carry_out(plane_, active_, state); code < 0) {
            return refuse(request, code, "refused by the plane (" + std::to_string(code) + ")");
        }
        active_ = state;
    }
    table_ = std::move(next);
    desired_ = std::move(state);
    accept(request);
    return 0;
}

// Worked out on the one port that it concerns: every port is bound at a
// start-up, and copies of all ports for each would cost their square.
int Manager::Impl::bind(const Request &request, Acl acl, bool bound)
{
    const auto phyid = static_cast<uint32_t>(request.subject);
    const auto found = desired_.binding.find(phyid);
    const uint8_t before = found == desired_.binding.end() ? 0 : found->second;
    const auto after = static_cast<uint8_t>(bound ? before | acl_bit(acl) : before & ~acl_bit(acl));
    if (!reconciling_ && after != before) {
        if (const int code = plane_.set_binding(phyid, after); code < 0) {
            return refuse(request, code, "refused by the plane (" + std::to_string(code) + ")");
        }
        set_bound(active_, phyid, after);
    }
    set_bound(desired_, phyid, after);
    auto &bindings = table_.at(acl).bindings;
    if (bound) {
        bindings[phyid] = false;
    } else {
        bindings.erase(phyid);
    }
    accept(request);
    return 0;
}

void Manager::Impl::accept(const Request &request)
{
    counters_.accepted++;
    if (request.reported) {
        const Report report{request.kind, *request.desc, request.subject, 0};
        if (!reconciling_) {
            reports_.post(report);
        } else if (!reports_.hold(report)) {
            counters_.unreported++;
        }
    }
}

int Manager::Impl::refuse(const Request &request, int code, const std::string &why)
{
    counters_.refused++;
    log_line(LogLevel::error, name_of(request) + ": " + why);
    if (request.reported && has_app_type(request.desc)) {
        reports_.post({request.kind, *request.desc, request.subject, code});
    }
    return code;
}

int Manager::Impl::refuse_app_type(const char *app_type)
{
    counters_.refused++;
    log_line(LogLevel::error, std::string("app type ") + (app_type ? app_type : "(none)") + ": unknown");
    return error_invalid;
}

void Manager::forget_module()
{
    impl_->forget_module();
}

const PlaneState &Manager::desired() const
{
    return impl_->desired();
}

const ManagerCounters &Manager::counters() const
{
    return impl_->counters();
}

} // namespace vvl::fp
