#include "platform/mom/scan_cache.h"

#include <algorithm>

namespace vvl::mom
{

ScanCache::Chosen &ScanCache::choose(Delivery &delivery, uint32_t db, const Snapshot &snapshot, const Match &match)
{
    if (snapshot_ != snapshot) {
        unpack(delivery, db, snapshot);
    }
    const auto known = std::ranges::find(chosen_, match, &Chosen::match);
    if (known != chosen_.end()) {
        return *known;
    }
    Chosen &chosen = chosen_.emplace_back(Chosen{match, {}, {}});
    for (size_t i = 0; i < messages_.size(); i++) {
        if (messages_[i] != nullptr && match.matches(*messages_[i])) {
            chosen.messages.push_back(messages_[i]);
            chosen.objects.push_back(&(*snapshot_)[i]);
        }
    }
    return chosen;
}

void ScanCache::unpack(Delivery &delivery, uint32_t db, const Snapshot &snapshot)
{
    chosen_.clear();
    messages_.clear();
    messages_.reserve(snapshot->size());
    pool_.emplace(type_, snapshot->size());
    for (const Object &object : *snapshot) {
        messages_.push_back(delivery.build_in(*pool_, type_, db, object));
    }
    snapshot_ = snapshot;
}

} // namespace vvl::mom
