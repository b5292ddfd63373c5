// Open addressing with triangular steps and a load of 0.77, hashed with
// lookup2. Growing moves the keys in place, bucket by bucket: a key that lands
// on one which has not moved yet pushes it out and takes its place.
#include "tests/walk/walk_order.h"

#include <algorithm>
#include <utility>

namespace vvl::walk
{
namespace
{

constexpr size_t bucket_count_min = 4;
constexpr double load_max = 0.77;

// Bob Jenkins' lookup2 of the key's four bytes, least significant first.
uint32_t hash_of(uint32_t key)
{
    uint32_t a = 0x9e3779b9 + key;
    uint32_t b = 0x9e3779b9;
    uint32_t c = 4;
    const auto mix = [](uint32_t &x, uint32_t y, uint32_t z) {
        x -= y;
        x -= z;
    };
    mix(a, b, c), a ^= c >> 13;
    mix(b, c, a), b ^= a << 8;
    mix(c, a, b), c ^= b >> 13;
    mix(a, b, c), a ^= c >> 12;
    mix(b, c, a), b ^= a << 16;
    mix(c, a, b), c ^= b >> 5;
    mix(a, b, c), a ^= c >> 3;
    mix(b, c, a), b ^= a << 10;
    mix(c, a, b), c ^= b >> 15;
    return c;
}

// The buckets that a key may be in, in order.
std::vector<size_t> way_of(uint32_t key, size_t bucket_count)
{
    std::vector<size_t> way;
    size_t bucket = hash_of(key) % bucket_count;
    for (size_t step = 1; step <= bucket_count; step++) {
        way.push_back(bucket);
        bucket = (bucket + step) % bucket_count;
    }
    return way;
}

} // namespace

size_t WalkOrder::bound(size_t bucket_count)
{
    return static_cast<size_t>(static_cast<double>(bucket_count) * load_max + 0.5);
}

void WalkOrder::insert(uint32_t key)
{
    if (buckets_.empty() || occupied_ >= bound(buckets_.size())) {
        const bool is_worn = buckets_.size() > 2 * live_; // by deleted marks
        rehash(is_worn ? buckets_.size() : std::max(bucket_count_min, 2 * buckets_.size()));
    }
    Bucket *target = nullptr;
    for (const size_t i : way_of(key, buckets_.size())) {
        Bucket &bucket = buckets_[i];
        if (bucket.state == State::live && bucket.key == key) {
            return;
        }
        if (bucket.state != State::live && target == nullptr) {
            target = &bucket;
        }
        if (bucket.state == State::empty) {
            break;
        }
    }
    occupied_ += target->state == State::empty;
    live_++;
    *target = {State::live, key};
}

void WalkOrder::remove(uint32_t key)
{
    for (Bucket &bucket : buckets_) {
        if (bucket.state == State::live && bucket.key == key) {
            bucket.state = State::deleted;
            live_--;
        }
    }
}

std::vector<uint32_t> WalkOrder::keys() const
{
    std::vector<uint32_t> keys;
    for (const Bucket &bucket : buckets_) {
        if (bucket.state == State::live) {
            keys.push_back(bucket.key);
        }
    }
    return keys;
}

void WalkOrder::rehash(size_t bucket_count)
{
    std::vector<Bucket> old = std::exchange(buckets_, std::vector<Bucket>(bucket_count));
    for (size_t i = 0; i < old.size(); i++) {
        bool is_carrying = old[i].state == State::live;
        uint32_t carried = old[i].key;
        old[i].state = State::deleted;
        while (is_carrying) {
            const auto way = way_of(carried, bucket_count);
            const size_t free =
                *std::find_if(way.begin(), way.end(), [&](size_t b) { return buckets_[b].state == State::empty; });
            buckets_[free] = {State::live, carried};
            is_carrying = free < old.size() && old[free].state == State::live;
            if (is_carrying) {
                carried = old[free].key;
                old[free].state = State::deleted;
            }
        }
    }
    occupied_ = live_;
}

} // namespace vvl::walk
