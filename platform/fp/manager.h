// The forwarding-plane manager: what fp_udp.h's operation table works on.
//
// It keeps the desired state (ACLs, ACEs, bindings), checks every request,
// carries it to the plane at once or, during a reconciliation, in one step at
// its end, and reports each outcome from the loop.
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
    // What it installed stays.
    void forget_module();

    // What is asked for (during a reconciliation the plane may still differ).
    const PlaneState &desired() const;
    const ManagerCounters &counters() const;

  private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

} // namespace vvl::fp
