// The forwarding-plane manager: what fp_udp.h's operation table works on.
//
// It keeps the table of what is asked for (ACLs, ACEs, bindings), checks every
// request against it, and hands the plane the whole wanted state in one step:
// at the end of the turn of the loop in which requests came, or at the end of a
// reconciliation. So a turn is a small reconciliation, and a single update and
// a resynchronisation go the same way.
//
// A request that is malformed, beyond a limit or for an ACL that does not exist
// returns its code, is logged and changes nothing. Any other is accepted with 0;
// what the plane makes of it is known when the state is handed over. Where the
// plane refuses that, everything that came since it last accepted a state is
// undone, in the table as well, and reported as failed; so the table and the
// plane always agree. Outcomes are reported from the loop in the order of the
// requests (during a reconciliation, a malformed one at once and the others at
// its end). Only requests that set something and have a readable descriptor
// are reported.
//
// What a plane has from an earlier process is preserved like what the
// application of this one had: nothing changes before the first reconciliation,
// however long the application takes to begin it.
//
// An app type holds one ACL at a time. Another id is refused while the ACL
// lives, and takes its place once it is marked as expired.
#pragma once

#include "fp_udp.h"
#include "platform/base/loop.h"
#include "platform/fp/acl_table.h"
#include "platform/fp/plane.h"
#include "platform/fp/reports.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

namespace vvl::fp
{

struct ManagerCounters {
    uint64_t accepted = 0;   // requests that were well-formed
    uint64_t refused = 0;    // requests that were not, and states that the plane refused
    uint64_t reconciled = 0; // reconciliations completed
    uint64_t timed_out = 0;  // reconciliations ended by FP_UDP_RECONCILE_LIMIT_MS
    uint64_t unreported = 0; // outcomes beyond held_reports_max
};

class Manager
{
  public:
    // Installs itself as the process's manager (fp_udp_get_mgr); one at a time.
    // plane and loop outlive it.
    Manager(Plane &plane, Loop &loop);
    ~Manager(); // hands over what the current turn has changed
    Manager(const Manager &) = delete;
    Manager &operator=(const Manager &) = delete;

    // The operations of fp_udp.h, with the same arguments and results. The
    // del_expired call that ends a reconciliation returns what the plane answers.
    int acl_set(const vvlan_acl_desc_t *desc);
    int acl_del(const vvlan_acl_desc_t *desc);
    int ace_set(const vvlan_acl_desc_t *desc, const fp_udp_ace_t *ace);
    int ace_del(const vvlan_acl_desc_t *desc, uint64_t ace_id);
    int apply_set(const vvlan_acl_desc_t *desc, uint8_t acl_kind, const vvlan_apply_t *apply);
    int apply_del(const vvlan_acl_desc_t *desc, const vvlan_apply_t *record);
    int expire(Kind kind, const char *app_type);
    int del_expired(Kind kind, const char *app_type);
    void set_callbacks(const fp_udp_acl_cb_tbl_t *callbacks) { reports_.set_callbacks(callbacks); }

    // The module is gone: its callbacks are dropped, reports on their way too.
    // What it installed stays. In a reconciliation the marks count as not
    // opened, the plane keeps the state it had, and the next expire call starts
    // the time limit again.
    void forget_module();

    // What is asked for. The plane has it, except before the end of the turn
    // and during a reconciliation.
    PlaneState desired() const { return table_.state(); }
    const ManagerCounters &counters() const { return counters_; }

  private:
    struct Request;
    struct Turn {
    };

    // Finds the ACL that a request sets something in.
    int locate(const Request &request, Acl &acl, std::string &why) const;
    // Finds the ACL that a request removes something from; none where code says why.
    std::optional<Acl> find_removed(const Request &request, int &code);
    int accept(const Request &request);
    int refuse(const Request &request, int code, const std::string &why);
    int refuse_app_type(const char *app_type);
    void apply_later();
    // Hands the plane what is asked for. Returns 0, or the plane's code with
    // everything undone since it last accepted a state.
    int apply();
    void begin_reconciliation();
    int end_reconciliation(bool timed_out);
    void start_limit();

    Plane &plane_;
    Loop &loop_;
    Reports reports_;
    ManagerCounters counters_;
    AclTable table_;             // what is asked for
    AclTable accepted_;          // what the plane has accepted, with the marks of that time
    std::shared_ptr<Turn> turn_; // not null: apply() is posted; the posted task looks at it weakly

    // Of a reconciliation.
    bool reconciling_;
    bool restarted_;          // the application went away in it, maybe with an earlier process
    uint32_t open_marks_ = 0; // one bit per app type and kind
    LoopId limit_timer_ = 0;
};

} // namespace vvl::fp
