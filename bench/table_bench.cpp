// The module's keyed table against std::unordered_map: same hash function, same
// keys, values that are record pointers, 4- and 6-byte keys.
//
// Look-ups go through the keys in an order that has nothing to do with the
// order of insertion. Erasing takes every key out of a full table; filling it
// is not part of the time. Both sides leave the records alone.
#include "app/proc/udp_vvlan_mac.h"
#include "app/proc/udp_vvlan_recover.h"
#include "bench/times.h"

#include <chrono>
#include <cstdint>
#include <cstring>
#include <functional>
#include <memory>
#include <random>
#include <unordered_map>

namespace
{

using vvl::bench::Times;

// A key alone, as std::unordered_map stores it: the record type of a table
// would put members into its nodes that the map has no use for.
template <typename Traits> struct Key;

template <> struct Key<vvlan_recover_traits> {
    uint32_t value;
    explicit Key(const vvlan_recover_t &record) : value(record.ifx) {}
    bool operator==(const Key &other) const { return value == other.value; }
    size_t hash() const { return udp_vvlan_hash_lookup2(value, 0, sizeof value); }
};

template <> struct Key<vvlan_mac_traits> {
    uint8_t value[VVLAN_MAC_SIZE];
    explicit Key(const vvlan_mac_t &record) { std::memcpy(value, record.mac, sizeof value); }
    bool operator==(const Key &other) const { return std::memcmp(value, other.value, sizeof value) == 0; }
    size_t hash() const
    {
        uint32_t low;
        uint16_t high;
        std::memcpy(&low, value, sizeof low);
        std::memcpy(&high, value + sizeof low, sizeof high);
        return udp_vvlan_hash_lookup2(low, high, sizeof value);
    }
};

template <typename Traits> struct KeyHash {
    size_t operator()(const Key<Traits> &key) const { return key.hash(); }
};

void set_key(vvlan_recover_t &record, uint64_t value)
{
    record.ifx = static_cast<uint32_t>(value);
}

void set_key(vvlan_mac_t &record, uint64_t value)
{
    std::memcpy(record.mac, &value, sizeof record.mac);
}

// Distinct, scattered keys: multiplication by an odd number is one to one.
uint64_t key_value(uint64_t index)
{
    return index * 0x9e3779b97f4a7c15u >> 16 << 32 | (index * 0x9e3779b1u & 0xffffffffu);
}

template <typename Traits> struct Setup {
    using Record = typename Traits::record;
    using Ops = vvlan_hash_ops<Traits>;
    using Map = std::unordered_map<Key<Traits>, Record *, KeyHash<Traits>>;

    explicit Setup(uint32_t count)
    {
        std::mt19937_64 random(count);
        for (uint32_t i = 0; i < count; i++) {
            records.push_back(std::make_unique<Record>());
            set_key(*records.back(), key_value(i));
            hits.push_back(*records.back());
            misses.push_back(*records.back());
            set_key(misses.back(), key_value(count + i));
        }
        fill_table();
        fill_map();
        std::shuffle(hits.begin(), hits.end(), random);
        std::shuffle(misses.begin(), misses.end(), random);
    }
    // The records are ours, so the table is emptied before it is released.
    ~Setup()
    {
        for (const auto &record : records) {
            Ops::remove(table, record.get());
        }
        Ops::release(table);
    }
    Setup(const Setup &) = delete;
    Setup &operator=(const Setup &) = delete;

    void fill_table()
    {
        for (const auto &record : records) {
            Ops::insert(table, record.get());
        }
    }
    void fill_map()
    {
        for (const auto &record : records) {
            map.emplace(Key<Traits>(*record), record.get());
        }
    }

    std::vector<std::unique_ptr<Record>> records;
    std::vector<Record> hits;   // present keys, shuffled
    std::vector<Record> misses; // absent keys, shuffled
    vvlan_hash_t *table = udp_vvlan_hash_create();
    Map map;
};

template <typename Traits>
void find_in_table(benchmark::State &state, const Setup<Traits> &setup,
                   const std::vector<typename Traits::record> &keys)
{
    size_t next = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(vvlan_hash_ops<Traits>::find(setup.table, &keys[next]));
        next = next + 1 < keys.size() ? next + 1 : 0;
    }
}

template <typename Traits>
void find_in_map(benchmark::State &state, const Setup<Traits> &setup, const std::vector<typename Traits::record> &keys)
{
    size_t next = 0;
    for (auto _ : state) {
        const auto found = setup.map.find(Key<Traits>(keys[next]));
        benchmark::DoNotOptimize(found == setup.map.end() ? nullptr : found->second);
        next = next + 1 < keys.size() ? next + 1 : 0;
    }
}

// Times erase(key) for every key, with fill() before each round outside the time.
template <typename Setup, typename Erase, typename Fill>
void erase_all(benchmark::State &state, Setup &setup, Erase erase, Fill fill)
{
    for (auto _ : state) {
        const auto start = std::chrono::steady_clock::now();
        for (const auto &key : setup.hits) {
            erase(key);
        }
        const std::chrono::duration<double> time = std::chrono::steady_clock::now() - start;
        state.SetIterationTime(time.count() / static_cast<double>(setup.hits.size()));
        fill();
    }
}

template <typename Traits> void register_size(const std::string &suffix, uint32_t count, uint32_t erase_rounds)
{
    // Lives until the process ends: the benchmarks run after registration.
    auto &setup = *new Setup<Traits>(count);
    using benchmark::RegisterBenchmark;
    for (const auto &[what, keys] : {std::pair{"hit_", &setup.hits}, std::pair{"miss_", &setup.misses}}) {
        RegisterBenchmark((what + suffix + "/table").c_str(),
                          [&setup, keys](benchmark::State &state) { find_in_table(state, setup, *keys); });
        RegisterBenchmark((what + suffix + "/std").c_str(),
                          [&setup, keys](benchmark::State &state) { find_in_map(state, setup, *keys); });
    }
    const auto erase_from_table = [&setup](benchmark::State &state) {
        erase_all(
            state, setup, [&](const auto &key) { vvlan_hash_ops<Traits>::remove(setup.table, &key); },
            [&] { setup.fill_table(); });
    };
    const auto erase_from_map = [&setup](benchmark::State &state) {
        erase_all(
            state, setup, [&](const auto &key) { setup.map.erase(Key<Traits>(key)); }, [&] { setup.fill_map(); });
    };
    for (const auto &[name, run] :
         {std::pair<const char *, std::function<void(benchmark::State &)>>{"/table", erase_from_table},
          {"/std", erase_from_map}}) {
        RegisterBenchmark(("erase_" + suffix + name).c_str(), run)->UseManualTime()->Iterations(erase_rounds);
    }
}

} // namespace

int main(int argc, char **argv)
{
    struct Size {
        const char *name;
        uint32_t count;
        uint32_t erase_rounds; // so that each repetition erases about a million keys
    };
    static constexpr Size sizes[] = {{"100", 100, 10000}, {"10k", 10'000, 100}, {"1m", 1'000'000, 1}};
    for (const Size &size : sizes) {
        register_size<vvlan_recover_traits>(std::string("4b_") + size.name, size.count, size.erase_rounds);
        register_size<vvlan_mac_traits>(std::string("6b_") + size.name, size.count, size.erase_rounds);
    }
    Times times;
    if (!vvl::bench::run_all(times, argc, argv)) {
        return 2;
    }
    for (const char *what : {"hit", "miss", "erase"}) {
        for (const char *key : {"4b", "6b"}) {
            for (const Size &size : sizes) {
                const std::string tail = std::string("_") + key + "_" + size.name;
                vvl::bench::print_bar("table." + std::string(what) + "_vs_std" + tail,
                                      times.ratio(what + tail + "/table", what + tail + "/std"));
            }
        }
    }
    return 0;
}
