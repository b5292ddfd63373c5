// The objects in a server's replies.
//
// Values come from another process, so their Redis type and their size are checked
// here. A bad value is logged once with its key and skipped, so that it costs one
// object only.
#pragma once

#include "platform/mom/store.h"

#include <set>
#include <string>
#include <string_view>
#include <vector>

struct redisReply;

namespace vvl::mom
{

constexpr size_t redis_bad_values_logged_max = 256; // values that are remembered as logged

class RedisReader
{
  public:
    // The objects in the reply to a read or a scan, by key; none where it is
    // another reply. link: its name, for log lines.
    std::vector<Object> read(const std::string &link, const std::string &type, const redisReply &reply);

  private:
    bool read_value(const std::string &link, const std::string &type, const std::string &key, const redisReply &reply,
                    Value &value);

    std::set<std::string> bad_values_logged_;
};

} // namespace vvl::mom
