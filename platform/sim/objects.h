// Stored objects by the names that a scenario gives them: "u_bridge.vvlan_join 3".
#pragma once

#include "platform/mom/messages.h"

#include <cstdint>
#include <string>

namespace vvl::sim
{

struct NamedType {
    const char *name; // full name of the message; the type has a key
    uint32_t db;
    bool key_is_oui = false; // the key is an address and its mask
};

// The row of this full name, or null.
const NamedType *find_named_type(std::string_view name);

// The names as "a|b|c", for an argument's words.
extern const char *const named_type_words;

// An object of the type with this key and nothing else. The key is the store's
// text for it (keys.h), or an OUI as an operator writes it. Null where it is not
// a key of the type.
mom::MessagePtr make_keyed(const NamedType &type, const std::string &key);

} // namespace vvl::sim
