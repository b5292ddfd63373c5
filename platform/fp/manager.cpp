// The manager's requests. Each is checked completely and then changes the table
// of what is asked for; apply() takes the table to the plane.
//
// A reconciliation delays apply(): the plane keeps the state that it had when the
// first mark was opened until the last open mark is answered. That state is also
// what the manager goes back to where the plane refuses the new one, and it is
// not replaced by an application that dies half-way and starts again.
#include "platform/fp/manager.h"

#include "platform/base/log.h"
#include "platform/fp/ace.h"
#include "platform/fp/error.h"

#include <cstring>

namespace vvl::fp
{

// What a request is about, for its log line and its report.
struct Manager::Request {
    Kind kind;
    const vvlan_acl_desc_t *desc; // as given; may be null or malformed
    uint64_t subject;             // ACE id or phyid
    bool reported = true;         // deletions are not
};

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

std::string name_of(const vvlan_acl_desc_t *desc, Kind kind, uint64_t subject)
{
    std::string name = "ACL ";
    name += has_app_type(desc) ? desc->app_type : "(unreadable descriptor)";
    if (desc) {
        name += ' ';
        name += std::to_string(desc->acl_id);
    }
    if (kind != Kind::acl) {
        name += kind == Kind::ace ? ": ACE " : ": port ";
        name += std::to_string(subject);
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

// Why an apply object cannot bind the ACL, or null.
const char *fault_of(const vvlan_acl_desc_t &desc, Acl acl, uint8_t acl_kind, const vvlan_apply_t *apply)
{
    if (!apply) {
        return "no apply object";
    }
    if (acl_kind != desc.acl_kind) {
        return "another ACL kind than the descriptor's";
    }
    if (std::strncmp(apply->app_type, desc.app_type, sizeof apply->app_type) != 0) {
        return "the apply object is for another app type";
    }
    return apply->apply_opt == (acl == Acl::mac_vlan ? 1u : 0u) ? nullptr : "the ACL cannot act at that stage";
}

} // namespace

// ---- Requests that set something ------------------------------------------

int Manager::acl_set(const vvlan_acl_desc_t *desc)
{
    const Request request{Kind::acl, desc, 0};
    Acl acl{};
    std::string why;
    if (const int code = read_descriptor(desc, acl, why)) {
        return refuse(request, code, why);
    }
    AclEntry &entry = table_.at(acl);
    if (entry.present && entry.id != desc->acl_id) {
        if (!entry.marked) {
            return refuse(request, error_exists, "the app type holds ACL " + std::to_string(entry.id));
        }
        entry = {};
    }
    entry.present = true;
    entry.marked = false;
    entry.id = desc->acl_id;
    return accept(request);
}

int Manager::ace_set(const vvlan_acl_desc_t *desc, const fp_udp_ace_t *ace)
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
    // A tag with VLAN 0 is one of a voice VLAN that is not chosen yet. The
    // application sets the ACE again when it is.
    if (rule.add_tag && rule.tag_vid == 0) {
        table_.at(acl).remove_ace(rule.id);
    } else {
        table_.at(acl).set_ace(rule);
    }
    return accept(request);
}

int Manager::apply_set(const vvlan_acl_desc_t *desc, uint8_t acl_kind, const vvlan_apply_t *apply)
{
    const Request request{Kind::binding, desc, apply ? apply->phyid : 0};
    Acl acl{};
    std::string why;
    if (const int code = locate(request, acl, why)) {
        return refuse(request, code, why);
    }
    if (const char *fault = fault_of(*desc, acl, acl_kind, apply)) {
        return refuse(request, error_invalid, fault);
    }
    if (!table_.at(acl).bind(apply->phyid)) {
        return refuse(request, error_full, "the ACL is bound to too many ports");
    }
    return accept(request);
}

int Manager::locate(const Request &request, Acl &acl, std::string &why) const
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

// ---- Requests that remove something ---------------------------------------

int Manager::acl_del(const vvlan_acl_desc_t *desc)
{
    const Request request{Kind::acl, desc, 0, false};
    int code = 0;
    const std::optional<Acl> acl = find_removed(request, code);
    if (!acl) {
        return code;
    }
    table_.at(*acl) = {};
    return accept(request);
}

int Manager::ace_del(const vvlan_acl_desc_t *desc, uint64_t ace_id)
{
    const Request request{Kind::ace, desc, ace_id, false};
    int code = 0;
    const std::optional<Acl> acl = find_removed(request, code);
    if (!acl) {
        return code;
    }
    table_.at(*acl).remove_ace(ace_id);
    return accept(request);
}

int Manager::apply_del(const vvlan_acl_desc_t *desc, const vvlan_apply_t *record)
{
    const Request request{Kind::binding, desc, record ? record->phyid : 0, false};
    if (!record) {
        return refuse(request, error_invalid, "no apply record");
    }
    int code = 0;
    const std::optional<Acl> acl = find_removed(request, code);
    if (!acl) {
        return code;
    }
    table_.at(*acl).unbind(record->phyid);
    return accept(request);
}

// An application may remove what it never had, with a descriptor that it has
// not filled in yet.
std::optional<Acl> Manager::find_removed(const Request &request, int &code)
{
    Acl acl{};
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

// ---- Reconciliation -------------------------------------------------------

int Manager::expire(Kind kind, const char *app_type)
{
    Acl acl{};
    if (!app_type || !acl_of_app_type(app_type, acl)) {
        return refuse_app_type(app_type);
    }
    begin_reconciliation();
    open_marks_ |= mark_bit(acl, kind);
    table_.mark(acl, kind);
    counters_.accepted++;
    return 0;
}

void Manager::begin_reconciliation()
{
    if (turn_) {
        apply(); // what came before the first mark belongs to the state that is kept
    }
    if (!reconciling_ && !table_.empty()) {
        reconciling_ = true;
        start_limit();
    } else if (reconciling_ && restarted_) {
        loop_.cancel_timer(limit_timer_);
        start_limit();
    }
    restarted_ = false;
}

int Manager::del_expired(Kind kind, const char *app_type)
{
    Acl acl{};
    if (!app_type || !acl_of_app_type(app_type, acl)) {
        return refuse_app_type(app_type);
    }
    table_.sweep(acl, kind);
    counters_.accepted++;
    apply_later();
    const uint32_t answered = open_marks_ & mark_bit(acl, kind);
    open_marks_ &= ~answered;
    if (answered == 0 || open_marks_ != 0) {
        return 0;
    }
    const int code = reconciling_ ? end_reconciliation(false) : 0;
    log_line(LogLevel::info, "forwarding plane: reconciliation ended");
    return code;
}

void Manager::start_limit()
{
    limit_timer_ = loop_.add_timer(uint64_t{FP_UDP_RECONCILE_LIMIT_MS} * 1000, [this] {
        log_line(LogLevel::warn, "forwarding plane: reconciliation not completed in time, taking over what there is");
        end_reconciliation(true);
    });
}

int Manager::end_reconciliation(bool timed_out)
{
    loop_.cancel_timer(limit_timer_);
    reconciling_ = false;
    restarted_ = false;
    open_marks_ = 0;
    const int code = apply();
    counters_.timed_out += timed_out;
    counters_.reconciled += code == 0 && !timed_out;
    return code;
}

void Manager::forget_module()
{
    reports_.forget();
    open_marks_ = 0;
    restarted_ = reconciling_;
}

// ---- The way to the plane -------------------------------------------------

// What an application changes in one callback belongs together: a device that is
// added takes a rule that tags it and one that marks it, and frames come in all
// the while. So the requests of one turn come into force together.
void Manager::apply_later()
{
    if (reconciling_ || turn_) {
        return;
    }
    turn_ = std::make_shared<Turn>();
    loop_.post([this, turn = std::weak_ptr<Turn>(turn_)] {
        if (!turn.expired()) {
            apply();
        }
    });
}

int Manager::apply()
{
    turn_.reset();
    const int code = plane_.install(table_.state());
    if (code == 0) {
        accepted_ = table_;
    } else {
        log_line(LogLevel::error,
                 "forwarding plane: new state refused (" + std::to_string(code) + "), the earlier one stays");
        counters_.refused++;
        table_ = accepted_;
    }
    reports_.release(code);
    return code;
}

int Manager::accept(const Request &request)
{
    counters_.accepted++;
    if (request.reported && !reports_.hold({request.kind, *request.desc, request.subject, 0})) {
        counters_.unreported++;
    }
    apply_later();
    return 0;
}

int Manager::refuse(const Request &request, int code, const std::string &why)
{
    counters_.refused++;
    log_line(LogLevel::error, name_of(request.desc, request.kind, request.subject) + ": " + why);
    if (!request.reported || !has_app_type(request.desc)) {
        return code;
    }
    const Report report{request.kind, *request.desc, request.subject, code};
    if (!turn_) {
        reports_.post(report); // there is nothing before it that waits for the plane's answer
    } else if (!reports_.hold(report)) {
        counters_.unreported++;
    }
    return code;
}

int Manager::refuse_app_type(const char *app_type)
{
    counters_.refused++;
    log_line(LogLevel::error, std::string("app type ") + (app_type ? app_type : "(none)") + ": unknown");
    return error_invalid;
}

} // namespace vvl::fp
