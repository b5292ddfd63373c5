// The object store in a Redis server, so that the parts of a switch can be
// processes of their own and a crash of one loses nothing.
//
// docs/store.md describes what is kept in the server, and how an operator reads
// and writes it.
#pragma once

#include "platform/mom/store.h"

#include <memory>
#include <string>

namespace vvl::mom
{

// Limits of a link, which is a session's connection to one database.
constexpr uint32_t redis_answer_limit_ms = 800;     // a server that takes longer counts as lost
constexpr uint32_t redis_check_interval_ms = 250;   // how often a link looks after its server
constexpr uint32_t redis_backoff_min_ms = 50;       // before the first attempt to reconnect
constexpr uint32_t redis_backoff_max_ms = 2000;     // between attempts, doubled from the first; both with jitter
constexpr size_t redis_request_count_max = 100'000; // requests on their way; one more is refused with TQ_MOM_E_MEMORY

struct RedisOptions {
    // "redis://HOST:PORT" (port 6379 where it is left out; an IPv6 address in
    // brackets), "unix:PATH" or "sentinel://HOST:PORT,HOST:PORT/NAME".
    std::string address;
    std::string prefix;      // of every key and channel: letters, digits and "._-:", at most 64
    std::string credentials; // file with "PASSWORD" or "USER PASSWORD" in its first line; empty: none
};

// A store that connects when its sessions do. Null, with the reason in why,
// where the options are malformed, or the credentials file cannot be read or
// can be read by everybody. The process ignores SIGPIPE from then on.
std::unique_ptr<Store> make_redis_store(const RedisOptions &options, std::string &why);

} // namespace vvl::mom
