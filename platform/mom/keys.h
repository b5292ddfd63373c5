// Keys as text, and templates.
//
// An object's key is the sub-message in its key field. Its text form names the
// object in a store and in log lines: the sub-message's fields in the order of
// their numbers, joined by '/', where
//   a uint32        is decimal                                "5"
//   a string        is itself; every byte other than letters, digits and
//                   "._-" is written %XX                      "pkt_vvlan"
//   a MAC message   (option word 32) is its bytes in hexadecimal, joined by
//                   ':'; an absent one is "-"                 "00:04:76:00:00:00"
// and an empty string or an empty MAC is two quotation marks. Each key has
// one text and each text one key; fields of other kinds cannot be in a key.
// An OUI and its mask, for example:
//   p_bridge.vvlan_oui_cfg  00:04:76:00:00:00/ff:ff:ff:00:00:00
#pragma once

#include "platform/mom/messages.h"

#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace vvl::mom
{

constexpr size_t key_size_max = 1024; // bytes of the text

// The text of the object's key; empty for a keyless type. False where the key
// field is absent, of a kind that cannot be in a key, or too long. object is
// one of the platform's (messages.h).
bool encode_key(const ObjectType &type, const ProtobufCMessage &object, std::string &key);

// An object with nothing but this key, or null where the text is not what
// encode_key makes.
MessagePtr decode_key(const ObjectType &type, std::string_view key);

// What a template asks for: a set of key fields and their values.
class Match
{
  public:
    // flags as of tq_mom.h. TQ_MOM_MATCH_FIELDS takes the key fields with
    // TQ_MOM_OPTION_MATCH that the template gives a value other than zero (of a
    // MAC: any byte other than zero); everything else matches the whole type.
    Match(const ObjectType &type, const ProtobufCMessage &tmpl, uint32_t flags);

    bool matches(const ProtobufCMessage &object) const;

    // Two of one type are equal where they ask for the same.
    bool operator==(const Match &other) const { return wanted_ == other.wanted_; }

  private:
    const ProtobufCFieldDescriptor *key_;
    std::vector<std::pair<unsigned, std::string>> wanted_; // index of the key message's field, and its text
};

} // namespace vvl::mom
