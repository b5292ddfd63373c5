// A store client for the platform's own parts: it owns its context, attaches it
// when the first database is connected, and detaches it when it is destroyed.
//
// ctx() is what the operations of tq_mom.h and client.h take. Before the first
// connection they answer TQ_MOM_E_INVALID.
#pragma once

#include "platform/mom/client.h"
#include "tq_global.h"

#include <functional>
#include <map>
#include <string>

namespace vvl::mom
{

class OwnedClient
{
  public:
    // name is used in log lines. store and loop outlive the client.
    OwnedClient(Store &store, Loop &loop, std::string name);
    ~OwnedClient();
    OwnedClient(const OwnedClient &) = delete;
    OwnedClient &operator=(const OwnedClient &) = delete;

    // Connects to a database and waits for it, TQ_MOM_SYNC_LIMIT_MS at most.
    // Returns 0 or a code of tq_mom.h.
    int connect_now(uint32_t db);

    // Connects to a database without waiting. subscribe (may be empty) is called
    // from the loop when subscriptions have to be made: once the database is
    // connected, and each time that it comes back after changes may have been
    // missed. It must not destroy or close the client. Returns 0 or a code of
    // tq_mom.h. Once for each database.
    int connect(uint32_t db, std::function<void()> subscribe = {});

    // Detaches: no callback comes afterwards. A later connect attaches again.
    void close();

    void *ctx() { return &context_; }

  private:
    static int on_connected(void *ctx, void *user);
    static int on_reconnected(void *ctx, uint32_t db, int32_t type);
    int attach_once();

    Store &store_;
    Loop &loop_;
    std::string name_;
    tq_global_t context_{}; // its host word leads back here
    bool attached_ = false;
    std::map<uint32_t, std::function<void()>> subscribe_; // by database
};

} // namespace vvl::mom
