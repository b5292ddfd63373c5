// Messages of a database's channel, as the server's functions publish them.
//
// What one call changes is one message: "NUMBER COUNT KIND TYPE FIELDS\n", NUMBER
// being that of the first change, and then for each of the COUNT changes
// "KEYSIZE VALUESIZE\n", key and value.
#pragma once

#include "platform/mom/store.h"

#include <string>
#include <string_view>

namespace vvl::mom
{

struct ChangeMessage {
    uint64_t number = 0; // of the next change
    uint64_t count = 0;  // of changes that are left
    std::string text;
    size_t offset = 0; // of the next change in text
    Change change;     // the last one taken; before that, what all have in common
};

// Reads a message's first line. False where it is malformed.
bool read_message(uint32_t db, std::string_view text, ChangeMessage &message);

// Reads the next change into message.change. False where it is malformed, and
// the message ends there. At least one must be left.
bool take_change(ChangeMessage &message);

// Fields of a keyless object: for each "NUMBER SIZE\n" and its bytes. False where
// the text is malformed.
bool parse_redis_fields(std::string_view text, FieldMap &fields);

} // namespace vvl::mom
