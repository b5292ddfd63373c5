// The order in which a walk visits the ports. A walk stops at the first port
// that fails, and a later error report overwrites an earlier one, so the order
// shows. It is that of the buckets of the keyed table, which are kept here in
// the plainest way: a state and a key each.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace vvl::walk
{

class WalkOrder
{
  public:
    void insert(uint32_t key);
    void remove(uint32_t key);
    std::vector<uint32_t> keys() const; // in the order of a walk

  private:
    enum class State { empty, live, deleted };
    struct Bucket {
        State state = State::empty;
        uint32_t key = 0;
    };

    static size_t bound(size_t bucket_count);
    void rehash(size_t bucket_count);

    std::vector<Bucket> buckets_;
    size_t live_ = 0;
    size_t occupied_ = 0; // live and deleted
};

} // namespace vvl::walk
