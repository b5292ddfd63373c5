// Outcome reports on their way to the application: from the loop, each with a
// copy of the descriptor, and none to an application that is gone.
#pragma once

#include "fp_udp.h"
#include "platform/base/loop.h"
#include "platform/fp/acl_table.h"

#include <cstdint>
#include <memory>
#include <vector>

namespace vvl::fp
{

// Reports held until the plane has answered: one for each ACL, ACE and binding
// that there can be. What comes beyond is not reported, since a report only
// informs and the state does not depend on it.
constexpr size_t held_reports_max = acl_count * (1 + FP_UDP_ACE_COUNT_MAX + bindings_max);

struct Report {
    Kind kind;
    vvlan_acl_desc_t desc; // app type is NUL-terminated
    uint64_t ace_id;       // of a Kind::ace
    int error;             // 0: success
};

class Reports
{
  public:
    explicit Reports(Loop &loop) : loop_(loop) {}

    // The table stays the application's; registering again replaces it.
    void set_callbacks(const fp_udp_acl_cb_tbl_t *callbacks);

    // Drops the callbacks and every report that has not been delivered.
    void forget();

    // Posts one report, before those that are held.
    void post(const Report &report) { post_all({report}); }
    // Keeps the report until release. Returns false where the limit is reached.
    bool hold(const Report &report);
    // Posts what was held, in order; error, if not 0, becomes the outcome of
    // each that was a success so far.
    void release(int error);

  private:
    struct Registration {
        const fp_udp_acl_cb_tbl_t *callbacks;
    };

    void post_all(std::vector<Report> reports);

    Loop &loop_;
    std::shared_ptr<Registration> registration_; // posted tasks look at it weakly
    std::vector<Report> held_;
};

} // namespace vvl::fp
