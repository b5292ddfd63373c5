// The forwarding-plane manager: what fp_udp.h's operation table works on.
//
// It keeps the desired state (ACLs, ACEs, bindings), checks every request,
// carries it to the plane at once or, during a reconciliation, in one step at
// its end, and reports each outcome from the loop. Success during a
// reconciliation is reported at its end, when it is known.
//
// A request that is refused, by the manager or by the plane, returns its code,
// is logged and changes nothing. A failure is reported too where the request
// was to set something and its descriptor can be read. Where the plane refuses
// the end of a reconciliation, all that came with it is undone and reported as
// failed.
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
#include "platform/fp/plane.h"

#include <cstdint>
#include <memory>

namespace vvl::fp
{

struct ManagerCounters {
    uint64_t accepted = 0;   // requests carried out
    uint64_t refused = 0;    // malformed requests, and requests that the plane refused
    uint64_t reconciled = 0; // reconciliations completed
    uint64_t timed_out = 0;  // reconciliations ended by FP_UDP_RECONCILE_LIMIT_MS
    uint64_t unreported = 0; // outcomes beyond what is held during a reconciliation
};

class Manager
{
  public:
    // Installs itself as the process's manager (fp_udp_get_mgr); one at a time.
    Manager(Plane &plane, Loop &loop);
    ~Manager();
    Manager(const Manager &) = delete;
    Manager &operator=(const Manager &) = delete;

    // The module is gone: its callbacks are dropped, reports on their way too.
    // What it installed stays. In a reconciliation the marks count as not
    // opened, the plane keeps the state it had, and the next expire call starts
    // the time limit over.
    void forget_module();

    // What is asked for (during a reconciliation the plane may still differ).
    const PlaneState &desired() const;
    const ManagerCounters &counters() const;

  private:
    struct Impl;
    friend struct Operations; // the C operation table
    std::unique_ptr<Impl> impl_;
};

} // namespace vvl::fp
