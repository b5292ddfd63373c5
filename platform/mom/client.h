// Object-store clients as the platform makes them.
//
// The operations of tq_mom.h work on a context; attach() is what makes a
// context a client of a store. Each client has its own connections, its own
// subscriptions and its own view of what it has been told, so that the module,
// the packet side, the bridge side and the control side meet only in the store.
#pragma once

#include "platform/base/loop.h"
#include "platform/mom/client_types.h"
#include "tq_mom.h"

#include <cstddef>
#include <cstdint>
#include <string>

namespace vvl::mom
{

class Store; // store.h

// Makes ctx a client of the store. name is used in log lines. store and loop
// must outlive the client; prepare may be empty. Returns 0, or TQ_MOM_E_INVALID
// where ctx is null or a client already.
int attach(void *ctx, Store &store, Loop &loop, const std::string &name, Preparation prepare = {});

// Ends the client: connections, subscriptions and deliveries on their way are
// dropped; no callback comes afterwards. The store keeps its objects and its
// stale marks. An unknown ctx is ignored.
void detach(void *ctx);

// All zero for an unknown ctx.
ClientCounters counters(void *ctx);

// ---- Operations that only the platform's own clients use ----

// Tells the subscribers of the type (TQ_MOM_PUBLISH) without storing anything.
// Field subscriptions are not told, since no field changes.
int publish(void *ctx, uint32_t db, const ProtobufCMessage *object);

// Writes the named fields of a keyless object, default values included, and
// leaves the others alone. callback as of tq_mom_set.
int set_fields(void *ctx, uint32_t db, const ProtobufCMessage *object, const uint32_t *fields, uint32_t count,
               tq_mom_callback_t callback = nullptr, void *user = nullptr);

// Cuts the client's connection to a database (up false) or lets it come back.
// While it is cut, operations answer TQ_MOM_E_UNREACHABLE and nothing is
// delivered, not even what was on its way at the cut; the disconnect callback
// and, on return, the reconnect callback (type 2) come from the loop. Connect
// callbacks that were armed wait for the return. Subscriptions are silent
// until they are made again.
int set_link(void *ctx, uint32_t db, bool up);

// Makes one request on a database fail with TQ_MOM_E_UNREACHABLE: the number-th
// from now (1: the next; 0: none). Connecting is no request.
int refuse_request(void *ctx, uint32_t db, uint32_t number);

} // namespace vvl::mom
