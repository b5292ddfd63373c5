#include "platform/mom/owned_client.h"

#include <utility>

namespace vvl::mom
{

OwnedClient::OwnedClient(Store &store, Loop &loop, std::string name)
    : store_(store), loop_(loop), name_(std::move(name)), context_{this, nullptr}
{
}

OwnedClient::~OwnedClient()
{
    close();
}

int OwnedClient::connect_now(uint32_t db)
{
    const int result = attach_once();
    return result == TQ_MOM_OK ? tq_mom_client_connect_sync(&context_, db) : result;
}

int OwnedClient::connect(uint32_t db, std::function<void()> subscribe)
{
    int result = attach_once();
    if (result == TQ_MOM_OK) {
        result = tq_mom_client_set_reconnect_cb(&context_, db, on_reconnected, nullptr);
    }
    if (result != TQ_MOM_OK) {
        return result;
    }
    std::function<void()> &kept = subscribe_[db];
    kept = std::move(subscribe);
    return tq_mom_client_connect(&context_, db, on_connected, &kept);
}

void OwnedClient::close()
{
    if (std::exchange(attached_, false)) {
        detach(&context_);
    }
}

int OwnedClient::attach_once()
{
    if (attached_) {
        return TQ_MOM_OK;
    }
    const int result = attach(&context_, store_, loop_, name_);
    attached_ = result == TQ_MOM_OK;
    return result;
}

int OwnedClient::on_connected(void *, void *user)
{
    if (const auto &subscribe = *static_cast<std::function<void()> *>(user)) {
        subscribe();
    }
    return 0;
}

int OwnedClient::on_reconnected(void *ctx, uint32_t db, int32_t type)
{
    const auto *client = static_cast<OwnedClient *>(static_cast<tq_global_t *>(ctx)->host);
    const auto subscribe = client->subscribe_.find(db);
    if (type == reconnect_missed && subscribe->second) {
        subscribe->second();
    }
    return 0;
}

} // namespace vvl::mom
