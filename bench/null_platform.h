// The platform as a benchmark of the module wants it: every function that the
// module can call succeeds and does nothing, so that what is measured is the
// module. Writes are counted and forgotten. What asks for an answer
// (subscriptions, scans, cycles) is queued, for a driver that answers it.
//
// Nothing here allocates once the queue has its room, so an allocation that is
// counted during events is the module's.
#pragma once

#include "tq_global.h"
#include "tq_mom.h"
#include "tq_thread.h"

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

namespace vvl::bench
{

// A call of the module that is to be answered from the loop.
struct Request {
    enum class Kind { subscription, cycle, scan, cycle_end };
    Kind kind;
    std::string_view type; // message type; lives as long as the module is loaded
    tq_mom_callback_t callback;
    void *user;
};

struct NullPlatform {
    tq_global_t global{}; // context of every call
    tq_mom_connect_cb_t connect = nullptr;
    std::vector<void *> connect_users; // one per database, in the order of the calls
    tq_thread_func_t timer = nullptr;  // armed last
    std::vector<Request> requests;     // oldest first; the driver empties it
    uint64_t writes = 0;               // objects set and removed, calls of the plane
};

// The one platform of the process.
NullPlatform &null_platform();

// Forgets everything, for the next module; there is room for so many requests.
void reset_null_platform(size_t request_count);

// The heap of the whole process, all libraries included.
struct HeapState {
    uint64_t allocations = 0; // since the process began; a realloc counts as one
    uint64_t live_bytes = 0;  // in use now, by malloc_usable_size
};
HeapState heap_state();

} // namespace vvl::bench
