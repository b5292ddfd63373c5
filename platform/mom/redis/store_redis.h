// The object store in a Redis server, so that the parts of a switch can be
// processes of their own and a crash of one loses nothing.
//
// docs/store.md describes what is kept in the server, and how an operator reads
// and writes it.
#pragma once

#include "platform/mom/redis/address.h"
#include "platform/mom/store.h"

#include <memory>
#include <string>

namespace vvl::mom
{

// A store that connects when its sessions do. Null, with the reason in why,
// where the options are malformed, or the credentials file cannot be read or
// can be read by everybody. The process ignores SIGPIPE from then on.
std::unique_ptr<Store> make_redis_store(const RedisOptions &options, std::string &why);

} // namespace vvl::mom
