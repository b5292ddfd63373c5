// The order in which a walk visits the ports. A walk stops at the first port
// that fails, and a later error report overwrites an earlier one, so the order
// shows. It is that of the module's keyed table, and this is the one thing that
// the model takes from the module. States are printed in another order, so that
// a port which the table loses is still missed.
#pragma once

#include "udp_vvlan_hash.h"

#include <memory>
#include <vector>

namespace vvl::walk
{

class WalkOrder
{
  public:
    void insert(uint32_t key) { Table::create(table_.get(), &key); }
    void remove(uint32_t key) { Table::destroy(table_.get(), Table::find(table_.get(), &key)); }
    std::vector<uint32_t> keys() const // in the order of a walk
    {
        const auto collect = [](uint32_t *key, void *keys) {
            static_cast<std::vector<uint32_t> *>(keys)->push_back(*key);
            return 0;
        };
        std::vector<uint32_t> keys;
        Table::traverse(table_.get(), collect, 0, UINT32_MAX, &keys);
        return keys;
    }

  private:
    struct Traits {
        using record = uint32_t;
        static uint32_t hash(const uint32_t *key) { return udp_vvlan_hash_lookup2(*key, 0, sizeof *key); }
        static bool equal(const uint32_t *a, const uint32_t *b) { return *a == *b; }
        static void update(uint32_t *, const uint32_t *) {}
    };
    using Table = vvlan_hash_ops<Traits>;
    std::shared_ptr<vvlan_hash_t> table_{udp_vvlan_hash_create(), Table::release}; // of one owner
};

} // namespace vvl::walk
