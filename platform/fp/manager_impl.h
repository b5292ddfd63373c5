// The manager's inside, shared by its requests (manager.cpp) and its C
// operation table (operations.cpp). Not for users of the manager.
#pragma once

#include "platform/fp/acl_table.h"
#include "platform/fp/manager.h"
#include "platform/fp/reports.h"

#include <cstdint>
#include <optional>
#include <string>

namespace vvl::fp
{

// What a request is about, for its log line and its report.
struct Request {
    Kind kind;
    const vvlan_acl_desc_t *desc; // as given; may be null or malformed
    uint64_t subject;             // ACE id or phyid
    bool reported = true;         // deletions are not
};

struct Manager::Impl {
  public:
    Impl(Plane &plane, Loop &loop)
        : plane_(plane), loop_(loop), reports_(loop), active_(plane.installed()), reconciling_(active_ != PlaneState{}),
          restarted_(reconciling_)
    {
    }
    ~Impl();
    Impl(const Impl &) = delete;
    Impl &operator=(const Impl &) = delete;

    static inline Impl *current = nullptr; // the process's manager, or null

    // The operations of fp_udp.h, with the same arguments and results.
    int acl_set(const vvlan_acl_desc_t *desc);
    int acl_del(const vvlan_acl_desc_t *desc);
    int ace_set(const vvlan_acl_desc_t *desc, const fp_udp_ace_t *ace);
    int ace_del(const vvlan_acl_desc_t *desc, uint64_t ace_id);
    int apply_set(const vvlan_acl_desc_t *desc, uint8_t acl_kind, const vvlan_apply_t *apply);
    int apply_del(const vvlan_acl_desc_t *desc, const vvlan_apply_t *record);
    int expire(Kind kind, const char *app_type);
    int del_expired(Kind kind, const char *app_type);

    void set_callbacks(const fp_udp_acl_cb_tbl_t *callbacks) { reports_.set_callbacks(callbacks); }
    void forget_module();
    const PlaneState &desired() const { return desired_; }
    const ManagerCounters &counters() const { return counters_; }

  private:
    // Finds the ACL that a request is for.
    int locate(const Request &request, Acl &acl, std::string &why) const;
    // Makes next the desired state, and during no reconciliation the plane's.
    int adopt(const Request &request, AclTable next);
    // The same for one port and one ACL; the port is the request's subject.
    int bind(const Request &request, Acl acl, bool bound);
    void accept(const Request &request);
    int refuse(const Request &request, int code, const std::string &why);
    int refuse_app_type(const char *app_type);
    std::optional<Acl> find_removed(const Request &request, int &code);
    template <typename Remove> int remove(const Request &request, Remove &&how);
    void start_limit();
    int end_reconciliation(bool timed_out);

    Plane &plane_;
    Loop &loop_;
    Reports reports_;
    ManagerCounters counters_;
    AclTable table_;     // what is asked for
    PlaneState desired_; // what follows from it
    PlaneState active_;  // what the plane has; during no reconciliation the same

    // Of a reconciliation.
    bool reconciling_;
    bool restarted_;          // the application went away in it, maybe with an earlier process
    uint32_t open_marks_ = 0; // one bit per app type and kind
    AclTable kept_;           // what was asked for before, should the plane refuse the end
    LoopId limit_timer_ = 0;
};

} // namespace vvl::fp
