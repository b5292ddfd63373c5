// The keyed hash table, through the instances that the module exports. The MAC
// instance is compared with a naive model under random operations; after each
// one the table's own invariants are checked.
#include "tests/unit/module/module_test.h"

#include <cstring>
#include <map>
#include <random>
#include <utility>

namespace vvl::test
{
namespace
{

class HashTable : public ModuleTest
{
  protected:
    using Model = std::map<uint32_t, vvlan_mac_t *>;

    const vvlan_hash_t &table() { return *MODULE(udp_vvlan_mac_list); }
    // Most keys differ from others in their last byte alone.
    static vvlan_mac_t key(uint32_t number, uint32_t ifx = 0)
    {
        return {{2, static_cast<uint8_t>(number >> 8), 0, 0, 0, static_cast<uint8_t>(number)}, {}, ifx};
    }
    vvlan_mac_t *create(uint32_t number, uint32_t ifx = 0)
    {
        const vvlan_mac_t tmpl = key(number, ifx);
        vvlan_mac_t *out = nullptr;
        EXPECT_EQ(MODULE(udp_vvlan_mac_cache_create)(&out, &tmpl), out);
        return out;
    }
    void create_up_to(uint32_t end)
    {
        for (uint32_t number = 0; number < end; number++) {
            create(number);
        }
    }
    void destroy(uint32_t number)
    {
        const vvlan_mac_t tmpl = key(number);
        MODULE(udp_vvlan_mac_op)(&tmpl, 0);
    }
    vvlan_mac_t *find(uint32_t number)
    {
        const vvlan_mac_t tmpl = key(number);
        return MODULE(udp_vvlan_mac_hash_find)(&tmpl);
    }
    static int count_record(vvlan_mac_t *, void *count)
    {
        ++*static_cast<uint32_t *>(count);
        return 0;
    }
    // What does not hold, or nothing.
    std::string broken_invariant(const Model &model)
    {
        const vvlan_hash_t &t = table();
        uint32_t walked = 0;
        MODULE(udp_vvlan_mac_hash_traverse)(count_record, &walked);
        if (t.size != model.size() || MODULE(udp_vvlan_mac_hash_size)() != t.size || walked != t.size) {
            return "size";
        }
        if (t.n_buckets != 0 && (t.n_buckets < 4 || (t.n_buckets & (t.n_buckets - 1)) != 0 ||
                                 t.upper_bound != static_cast<uint32_t>(t.n_buckets * 0.77 + 0.5))) {
            return "n_buckets or upper_bound";
        }
        uint32_t counts[4] = {}; // of buckets, by flag
        for (uint32_t i = 0; i < t.n_buckets; i++) {
            counts[t.flags[i / 16] >> 2 * (i % 16) & 3]++;
        }
        if (t.n_occupied > t.upper_bound || counts[0] != t.size || counts[1] != t.n_occupied - t.size) {
            return "flags";
        }
        for (const auto &[number, record] : model) {
            if (find(number) != record) {
                return "record " + std::to_string(number) + " is lost";
            }
        }
        return "";
    }
};

TEST_F(HashTable, AgreesWithAModelUnderRandomOperations)
{
    for (const uint32_t seed : {1u, 2u, 3u, 4u}) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        std::mt19937 random(seed);
        const uint32_t key_count = 20u << 2 * (seed - 1); // 20 to 1280: much reuse, and growth
        Model model;
        MODULE(udp_vvlan_mac_release)(); // of the seed before
        MODULE(udp_vvlan_mac_init)();
        for (uint32_t step = 0; step < 1500; step++) {
            const uint32_t number = random() % key_count;
            if (random() % 10 < (step / 300 % 2 == 0 ? 7u : 3u)) { // waves of additions and of removals
                vvlan_mac_t *record = create(number, step);
                ASSERT_EQ(record->ifx, step) << "a present record takes the template's ifx";
                ASSERT_EQ(model.emplace(number, record).first->second, record) << "records never move";
            } else {
                destroy(number);
                model.erase(number);
                ASSERT_EQ(find(number), nullptr);
            }
            ASSERT_EQ(broken_invariant(model), "") << "step " << step;
        }
    }
}

TEST_F(HashTable, BoundariesOfInsertionAndRemoval)
{
    vvlan_mac_t item = key(7);
    vvlan_mac_t *out = &item;
    EXPECT_EQ(MODULE(udp_vvlan_mac_hash_insert)(&item), 0) << "no table yet";
    EXPECT_EQ(MODULE(udp_vvlan_mac_cache_create)(&out, &item), nullptr);
    EXPECT_EQ(out, nullptr);
    MODULE(udp_vvlan_mac_hash_remove)(&item);
    MODULE(udp_vvlan_mac_init)();
    destroy(7);
    EXPECT_EQ(find(7), nullptr) << "no buckets yet";
    create_up_to(3);
    EXPECT_EQ(table().n_buckets, 4u);
    create_up_to(5);
    vvlan_mac_t twin = key(1);
    EXPECT_EQ(MODULE(udp_vvlan_mac_hash_insert)(&twin), 0);
    EXPECT_NE(find(1), &twin) << "a present key is not replaced";
    create_up_to(12);
    EXPECT_EQ(table().n_buckets, 16u);
    for (uint32_t number = 0; number < 10; number++) {
        destroy(number);
    }
    EXPECT_EQ(table().n_occupied, 12u) << "only marked deleted";
    create(100);
    EXPECT_EQ(table().n_buckets, 16u) << "marks are cleared at the same size";
    EXPECT_EQ(table().n_occupied, 3u);
    MODULE(udp_vvlan_mac_hash_remove)(&item); // absent
    MODULE(udp_vvlan_mac_hash_remove)(nullptr);
    MODULE(udp_vvlan_mac_cache_destroy)(nullptr);
    EXPECT_EQ(MODULE(udp_vvlan_mac_op)(&item, 0), nullptr);
    EXPECT_EQ(MODULE(udp_vvlan_mac_hash_find)(nullptr), nullptr);
    EXPECT_EQ(table().size, 3u);
}

TEST_F(HashTable, WalksStopAndTile)
{
    MODULE(udp_vvlan_mac_init)();
    create_up_to(20);
    uint32_t count = 0;
    const auto stop_at_third = [](vvlan_mac_t *, void *arg) { return ++*static_cast<uint32_t *>(arg) == 3 ? -42 : 0; };
    EXPECT_EQ(MODULE(udp_vvlan_mac_hash_traverse)(stop_at_third, &count), -42);
    EXPECT_EQ(std::exchange(count, 0), 3u);
    for (const auto &[start, length] : {std::pair{0u, 5u}, {5u, 0u}, {5u, 6u}, {11u, UINT32_MAX}, {32u, 9u}}) {
        EXPECT_EQ(MODULE(udp_vvlan_mac_hash_traverse_with_index)(count_record, start, length, &count), 0);
    }
    EXPECT_EQ(std::exchange(count, 0), 20u);
    const auto replace_table = [](vvlan_mac_t *, void *arg) {
        const auto &[release, init] = *static_cast<std::pair<void (*)(), int (*)()> *>(arg);
        release();
        return init();
    };
    std::pair functions(&MODULE(udp_vvlan_mac_release), &MODULE(udp_vvlan_mac_init));
    EXPECT_EQ(MODULE(udp_vvlan_mac_hash_traverse)(replace_table, &functions), 0) << "the new table is empty";
}

TEST_F(HashTable, HashOfAKey)
{
    const struct {
        vvlan_mac_t key;
        uint32_t bucket; // of 1024; worked out apart from the module
    } rows[] = {{{{2, 0x11, 0x22, 0, 0, 1}, {}, 0}, 201},
                {{{2, 0x11, 0x22, 0, 0, 2}, {}, 0}, 693},
                {{{0xff, 0xee, 0xdd, 0xcc, 0xbb, 0xaa}, {}, 0}, 490},
                {{{}, {}, 0}, 644}};
    for (const auto &row : rows) {
        EXPECT_EQ(vvlan_mac_traits::hash(&row.key) % 1024, row.bucket);
    }
}

} // namespace
} // namespace vvl::test
