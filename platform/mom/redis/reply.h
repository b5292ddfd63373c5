// What the parts of a link read in a reply of the server's.
#pragma once

#include <hiredis/hiredis.h>

#include <cstdint>
#include <string_view>

namespace vvl::mom
{

// The text of a bulk, status or error reply; empty for others. Lives as long as the reply.
inline std::string_view text_of(const redisReply &reply)
{
    return reply.str != nullptr ? std::string_view(reply.str, static_cast<size_t>(reply.len)) : std::string_view();
}

// The number of the last change before the reply, which is the reply itself or
// its first element; false where there is none.
inline bool number_of(const redisReply &reply, uint64_t &number)
{
    const redisReply *first = reply.type == REDIS_REPLY_ARRAY && reply.elements > 0 ? reply.element[0] : &reply;
    number = first->type == REDIS_REPLY_INTEGER ? static_cast<uint64_t>(first->integer) : 0;
    return first->type == REDIS_REPLY_INTEGER && first->integer >= 0;
}

} // namespace vvl::mom
