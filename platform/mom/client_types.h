// Limits, constants, counters and callbacks of a client of an object store.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>

namespace vvl::mom
{

constexpr size_t subscription_count_max = 64; // one more is refused with TQ_MOM_E_MEMORY
constexpr int32_t reconnect_complete = 1;     // reconnect callback's type: nothing was missed
constexpr int32_t reconnect_missed = 2;       // changes may have been missed

struct ClientCounters {
    uint64_t delivered = 0;         // records given to callbacks
    uint64_t callback_failures = 0; // callbacks of any kind that returned non-zero
    uint64_t refused = 0;           // calls that returned non-zero, and reads that failed
    uint64_t malformed = 0;         // stored objects that could not be decoded and were skipped
};

class Session; // store.h

// Called from the loop, with the client's own session, before the client is told
// that a database is connected, or back with changes missed. It may put right
// what an earlier process has left in the store. It must not end the client.
using Preparation = std::function<void(uint32_t db, Session &session)>;

} // namespace vvl::mom
