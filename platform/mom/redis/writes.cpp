#include "platform/mom/redis/writes.h"

namespace vvl::mom
{
namespace
{

// Of one call: the server works on it without a pause, and its functions take
// no more than 1000 objects.
constexpr size_t write_count_max = 256;
constexpr size_t write_bytes_max = 262'144;

} // namespace

bool RedisWrites::has_room_for(const std::string &type, const std::string &owner) const
{
    return empty() ||
           (type_ == type && owner_ == owner && count() < write_count_max && bytes_.size() < write_bytes_max);
}

void RedisWrites::add(const std::string &type, const std::string &owner, std::string_view key, std::string_view value,
                      uint64_t request)
{
    if (empty()) {
        type_ = type;
        owner_ = owner;
        first_ = request;
    }
    for (const std::string_view part : {key, value}) {
        bytes_ += part;
        ends_.push_back(bytes_.size());
    }
}

std::vector<std::string_view> RedisWrites::arguments() const
{
    std::vector<std::string_view> arguments{type_, owner_};
    size_t begin = 0;
    for (const size_t end : ends_) {
        arguments.push_back(std::string_view(bytes_).substr(begin, end - begin));
        begin = end;
    }
    return arguments;
}

void RedisWrites::clear()
{
    ends_.clear();
    bytes_.clear();
}

std::vector<RedisWritten> share_out(size_t count, uint64_t last, const std::vector<uint64_t> &refused)
{
    if (refused.size() > count || last < count - refused.size()) {
        return {};
    }
    uint64_t number = last - (count - refused.size());
    auto next = refused.begin();
    std::vector<RedisWritten> written(count);
    for (size_t i = 0; i < count; i++) {
        written[i].is_refused = next != refused.end() && *next == i + 1;
        next += written[i].is_refused;
        number += !written[i].is_refused;
        written[i].number = number;
    }
    return next == refused.end() ? written : std::vector<RedisWritten>();
}

} // namespace vvl::mom
