#include "platform/mom/redis/reader.h"

#include "platform/base/log.h"
#include "platform/mom/redis/changes.h"

#include <hiredis/hiredis.h>

#include <algorithm>
#include <utility>

namespace vvl::mom
{

std::vector<Object> RedisReader::read(const std::string &link, const std::string &type, const redisReply &reply)
{
    // Sorted before they become objects, which cost more to move.
    std::vector<std::pair<std::string_view, const redisReply *>> found;
    for (size_t i = 1; reply.type == REDIS_REPLY_ARRAY && i + 1 < reply.elements; i += 2) {
        const redisReply &key = *reply.element[i];
        // The numbers of the cycles are among the objects.
        if (key.type == REDIS_REPLY_STRING && (key.len == 0 || key.str[0] != '#')) {
            found.emplace_back(std::string_view(key.str, static_cast<size_t>(key.len)), reply.element[i + 1]);
        }
    }
    std::ranges::sort(found);
    std::vector<Object> objects;
    objects.reserve(found.size());
    for (const auto &[key, value] : found) {
        Object object{std::string(key), {}};
        if (read_value(link, type, object.key, *value, object.value)) {
            objects.push_back(std::move(object));
        }
    }
    return objects;
}

bool RedisReader::read_value(const std::string &link, const std::string &type, const std::string &key,
                             const redisReply &reply, Value &value)
{
    const char *fault = nullptr;
    if (reply.type != REDIS_REPLY_STRING) {
        fault = "has the wrong Redis type";
    } else if (static_cast<size_t>(reply.len) > object_size_max) {
        fault = "is larger than 65536 bytes";
    } else if (key.empty() ? !parse_redis_fields({reply.str, static_cast<size_t>(reply.len)}, value.fields) : false) {
        fault = "has malformed fields";
    }
    if (fault == nullptr) {
        if (!key.empty()) {
            value.bytes.assign(reply.str, static_cast<size_t>(reply.len));
        }
        return true;
    }
    const std::string name = type + (key.empty() ? "" : ":" + key);
    if (bad_values_logged_.size() < redis_bad_values_logged_max &&
        bad_values_logged_.insert(link + " " + name).second) {
        log_line(LogLevel::error, link + ": " + name + " " + fault + " and is skipped");
    }
    return false;
}

} // namespace vvl::mom
