// Addresses are split by hand: they are three short forms, of which a general
// URL parser knows one.
#include "platform/mom/redis/address.h"

#include <sys/stat.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <fstream>
#include <string_view>

namespace vvl::mom
{
namespace
{

constexpr uint16_t port_redis = 6379;
constexpr uint16_t port_sentinel = 26379;
constexpr size_t socket_path_size_max = 107; // of sockaddr_un, without its end

bool take_scheme(std::string_view &text, std::string_view scheme)
{
    if (!text.starts_with(scheme)) {
        return false;
    }
    text.remove_prefix(scheme.size());
    return true;
}

// "HOST", "HOST:PORT", "[IPV6]" or "[IPV6]:PORT".
bool parse_host(std::string_view text, uint16_t port, RedisEndpoint &endpoint)
{
    std::string_view host = text;
    std::string_view rest;
    if (text.starts_with('[')) {
        const size_t end = text.find(']');
        if (end == std::string_view::npos) {
            return false;
        }
        host = text.substr(1, end - 1);
        rest = text.substr(end + 1);
    } else if (const size_t colon = text.find(':'); colon != std::string_view::npos) {
        host = text.substr(0, colon);
        rest = text.substr(colon);
    }
    if (host.empty() || host.find_first_of("/@ ") != std::string_view::npos) {
        return false;
    }
    if (!rest.empty()) {
        const auto [end, error] = std::from_chars(rest.data() + 1, rest.data() + rest.size(), port);
        if (rest[0] != ':' || error != std::errc() || end != rest.data() + rest.size() || port == 0) {
            return false;
        }
    }
    endpoint = {{}, std::string(host), port};
    return true;
}

bool parse_sentinels(std::string_view text, RedisAddress &address)
{
    const size_t slash = text.find('/');
    if (slash == std::string_view::npos || slash + 1 == text.size()) {
        return false;
    }
    address.group = text.substr(slash + 1);
    if (address.group.find_first_of("/ ") != std::string::npos) {
        return false;
    }
    text = text.substr(0, slash);
    while (true) {
        const size_t comma = text.find(',');
        RedisEndpoint endpoint;
        if (address.endpoints.size() == redis_sentinel_count_max ||
            !parse_host(text.substr(0, comma), port_sentinel, endpoint)) {
            return false;
        }
        address.endpoints.push_back(endpoint);
        if (comma == std::string_view::npos) {
            return true;
        }
        text.remove_prefix(comma + 1);
    }
}

} // namespace

std::string RedisEndpoint::text() const
{
    return path.empty() ? host + ":" + std::to_string(port) : path;
}

bool parse_redis_address(const std::string &text, RedisAddress &address, std::string &why)
{
    RedisAddress parsed;
    RedisEndpoint endpoint;
    std::string_view rest = text;
    bool good = false;
    if (take_scheme(rest, "unix:")) {
        if (rest.starts_with("///")) {
            rest.remove_prefix(2);
        }
        endpoint.path = rest;
        good = !rest.empty() && rest.size() <= socket_path_size_max;
        parsed.endpoints.push_back(endpoint);
    } else if (take_scheme(rest, "redis://")) {
        good = parse_host(rest, port_redis, endpoint);
        parsed.endpoints.push_back(endpoint);
    } else if (take_scheme(rest, "sentinel://")) {
        good = parse_sentinels(rest, parsed);
    }
    if (!good) {
        why = "store address \"" + text + "\": not redis://HOST:PORT, unix:PATH or sentinel://HOST:PORT,HOST:PORT/NAME";
        return false;
    }
    address = std::move(parsed);
    return true;
}

bool read_redis_credentials(const std::string &file, RedisCredentials &credentials, std::string &why)
{
    struct stat status = {};
    std::ifstream stream(file);
    if (!stream || stat(file.c_str(), &status) != 0) {
        why = "credentials file " + file + ": " + std::strerror(errno);
        return false;
    }
    if ((status.st_mode & S_IROTH) != 0) {
        why = "credentials file " + file + ": everybody can read it; chmod o-r";
        return false;
    }
    std::string line;
    std::getline(stream, line);
    const size_t space = line.find(' ');
    RedisCredentials read;
    if (space == std::string::npos) {
        read.password = line;
    } else {
        read.user = line.substr(0, space);
        read.password = line.substr(space + 1);
    }
    if (read.password.empty()) {
        why = "credentials file " + file + ": its first line is not PASSWORD or USER PASSWORD";
        return false;
    }
    credentials = std::move(read);
    return true;
}

bool check_redis_prefix(const std::string &prefix, std::string &why)
{
    const bool good = prefix.size() <= redis_prefix_size_max && std::ranges::all_of(prefix, [](unsigned char c) {
                          return std::isalnum(c) != 0 || std::strchr("._-:", c) != nullptr;
                      });
    if (!good) {
        why = "store prefix \"" + prefix + "\": longer than 64 characters, or not of letters, digits and \"._-:\"";
    }
    return good;
}

} // namespace vvl::mom
