// A snapshot's objects as messages, shared by the scans of one type that are
// under way at the same time.
//
// A start-up scans the same type once for each port, and the store then hands
// out one snapshot. Its objects are unpacked once, and each template's choice of
// them is made once. The cache lives as long as one of its scans does.
#pragma once

#include "platform/mom/delivery.h"

#include <deque>
#include <optional>

namespace vvl::mom
{

class ScanCache
{
  public:
    // The objects that one template matches.
    struct Chosen {
        Match match;
        std::vector<const ProtobufCMessage *> messages;
        std::vector<const Object *> objects; // of these messages
        // Which list of subscriptions remembers them (Front::subscription_changes_); 0: none.
        uint64_t remembered = 0;
    };

    explicit ScanCache(const ObjectType &type) : type_(type) {}

    // Unpacks the snapshot, unless it is the one of the last call. Malformed
    // objects are counted and left out. The result lives until the next call
    // with another snapshot.
    Chosen &choose(Delivery &delivery, uint32_t db, const Snapshot &snapshot, const Match &match);

  private:
    void unpack(Delivery &delivery, uint32_t db, const Snapshot &snapshot);

    const ObjectType &type_;
    Snapshot snapshot_;
    std::optional<MessagePool> pool_;
    std::vector<const ProtobufCMessage *> messages_; // null: malformed
    std::deque<Chosen> chosen_;
};

} // namespace vvl::mom
