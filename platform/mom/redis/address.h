// Where a Redis server is, and who asks: read from what an operator wrote.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace vvl::mom
{

constexpr size_t redis_sentinel_count_max = 16;
constexpr size_t redis_prefix_size_max = 64;

struct RedisOptions {
    // "redis://HOST:PORT" (port 6379 where it is left out; an IPv6 address in
    // brackets), "unix:PATH" or "sentinel://HOST:PORT,HOST:PORT/NAME".
    std::string address;
    std::string prefix;      // of every key and channel: letters, digits and "._-:", at most 64
    std::string credentials; // file with "PASSWORD" or "USER PASSWORD" in its first line; empty: none
};

// One server: a socket's path, or a host and a port.
struct RedisEndpoint {
    std::string path; // empty: host and port
    std::string host;
    uint16_t port = 0;
    std::string text() const; // for log lines
};

struct RedisAddress {
    std::vector<RedisEndpoint> endpoints; // the server; of a group: its Sentinels, in the order of asking
    std::string group;                    // name of the group that the Sentinels watch; empty: no Sentinels
};

struct RedisCredentials {
    std::string user; // empty: the default user
    std::string password;
};

// False with the reason in why, and nothing changed, where text is malformed.
bool parse_redis_address(const std::string &text, RedisAddress &address, std::string &why);

// Reads the file of RedisOptions::credentials.
bool read_redis_credentials(const std::string &file, RedisCredentials &credentials, std::string &why);

bool check_redis_prefix(const std::string &prefix, std::string &why);

} // namespace vvl::mom
