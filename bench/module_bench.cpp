// What events cost the module, alone: it is loaded into a platform whose
// functions do nothing, and driven by records as an object store delivers them.
//
// Each measurement has a module of its own. Its operations take turns, batch by
// batch, so that a change of the machine's speed meets all of them, and the
// figure of an operation is the median of its batches.
#include "bench/daily_life.h"
#include "bench/times.h"

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <map>
#include <random>
#include <string>
#include <vector>

namespace
{

using namespace vvl::bench;

constexpr uint32_t usual_port_count = 1000;
constexpr uint32_t usual_mac_count = 16'000;
constexpr uint32_t cached_mac_count = 1'000; // records that stay in the processor's cache
constexpr size_t other_count = 16'000;       // addresses of no voice device
constexpr size_t new_count = 1'000;          // addresses that come and go again
constexpr size_t batch_count_min = 1'000;    // events; fewer would mostly measure a cold cache
constexpr int round_count = 15;

using Figures = std::map<std::string, double>; // ns per event, by operation

double time_ns(const std::function<void()> &run)
{
    const auto start = std::chrono::steady_clock::now();
    run();
    return std::chrono::duration<double, std::nano>(std::chrono::steady_clock::now() - start).count();
}

struct Operation {
    std::string name;
    size_t event_count;           // of one run
    std::function<void()> run;    // timed
    std::function<void()> undo{}; // not timed; restores what run changed
};

// The items, over and over where they are too few for a batch.
template <typename Item> std::vector<Item> fill_batch(const std::vector<Item> &items)
{
    std::vector<Item> batch;
    do {
        batch.insert(batch.end(), items.begin(), items.end());
    } while (batch.size() < batch_count_min);
    return batch;
}

Figures measure(const std::vector<Operation> &operations)
{
    std::map<std::string, std::vector<double>> times;
    for (int round = 0; round < round_count; round++) {
        for (const Operation &operation : operations) {
            times[operation.name].push_back(time_ns(operation.run) / static_cast<double>(operation.event_count));
            if (operation.undo) {
                operation.undo();
            }
        }
    }
    Figures figures;
    for (auto &[name, sorted] : times) {
        std::sort(sorted.begin(), sorted.end());
        figures[name] = sorted[sorted.size() / 2];
    }
    return figures;
}

// ---- Known against unknown addresses ---------------------------------------

// The worst ratio of an address of no OUI to a known one that the first probe
// finds, over tables that are hard in different ways. Known ones are at their
// best here, since few enough of them are learned.
double compare_unknown(uint64_t seed)
{
    struct Row {
        const char *name;
        OuiTable table;
    };
    constexpr Row rows[] = {{"24 bits each", OuiTable::vendors},
                            {"24 bits each, one bucket", OuiTable::one_bucket},
                            {"1 to 48 bits", OuiTable::mixed}};
    double worst = 0;
    std::printf("\n127 OUIs, 1000 ports, 1000 MACs; ns per notification\n%-26s %8s %10s %8s %8s\n", "OUIs", "known",
                "known late", "unknown", "ratio");
    for (const Row &row : rows) {
        Bench bench(row.table, usual_port_count, cached_mac_count, seed);
        bench.driver.start();
        std::vector<Operation> operations = {{"known", bench.known.size(), [&] { bench.learn_all(bench.known); }},
                                             {"other", bench.other.size(), [&] { bench.learn_all(bench.other); }}};
        std::vector<LearnedMac> late;
        if (row.table == OuiTable::mixed) {
            late = spread(bench.addresses.make_known_late(cached_mac_count), usual_port_count, bench.random);
            bench.learn_all(late);
            operations.push_back({"late", late.size(), [&] { bench.learn_all(late); }});
        }
        Figures figures = measure(operations);
        const double ratio = figures["other"] / figures["known"];
        std::printf("%-26s %8.1f %10.1f %8.1f %8.2f\n", row.name, figures["known"], figures["late"], figures["other"],
                    ratio);
        worst = std::max(worst, ratio);
    }
    return worst;
}

// ---- All events, by number of ports and MACs -------------------------------

struct Event {
    const char *name; // of its figure
    const char *text;
};
constexpr Event events[] = {
    {"known", "MAC, known"},
    {"new", "MAC, new"},
    {"other", "MAC of no OUI"},
    {"noty", "port notification"},
    {"oui_add", "OUI added"},
    {"oui_remove", "OUI removed"},
    {"mac_after_oui", "first MAC after it"},
    {"aging", "aging timer"},
    {"start", "start-up"},
};

Figures measure_events(uint32_t ports, uint32_t macs, uint64_t seed)
{
    Bench bench(OuiTable::mixed, ports, macs, seed);
    ModuleDriver &driver = bench.driver;
    const double start_ns = time_ns([&] { driver.start(); });
    const std::vector<LearnedMac> fresh = spread(bench.addresses.make_known(new_count), ports, bench.random);
    const Oui &oui = bench.addresses.ouis().back();
    std::vector<uint32_t> order(ports);
    for (uint32_t i = 0; i < ports; i++) {
        order[i] = i + 1;
    }
    std::shuffle(order.begin(), order.end(), bench.random);
    order = fill_batch(order);
    const std::vector<LearnedMac> known = fill_batch(bench.known);
    const auto report_all = [&] {
        for (const uint32_t ifx : order) {
            driver.report_voice(ifx);
        }
    };
    const MacBytes &other = bench.other.front().mac;
    const auto learn_other = [&] { driver.learn(other, 1); };
    const auto remove = [&] { driver.remove_oui(oui); };
    const auto add = [&] { driver.add_oui(oui); };

    remove(); // added and removed again below
    Figures figures = measure({
        {"known", known.size(), [&] { bench.learn_all(known); }},
        {"new", fresh.size(), [&] { bench.learn_all(fresh); }, [&] { bench.forget_all(fresh); }},
        {"other", bench.other.size(), [&] { bench.learn_all(bench.other); }},
        {"noty", order.size(), report_all},
        {"oui_add", 1, add},
        {"mac_after_oui", 1, learn_other},
        {"oui_remove", 1, remove, learn_other},
        {"aging", 1, [&] { driver.run_aging_timer(); }},
    });
    figures["start"] = start_ns;
    return figures;
}

void print_events(const std::string &title, const std::vector<uint32_t> &sizes, const std::vector<Figures> &columns)
{
    std::printf("\n%s; ns\n%-20s", title.c_str(), "");
    for (const uint32_t size : sizes) {
        std::printf(" %13u", size);
    }
    std::printf("\n");
    for (const Event &event : events) {
        std::printf("%-20s", event.text);
        for (const Figures &figures : columns) {
            std::printf(" %13.1f", figures.at(event.name));
        }
        std::printf("\n");
    }
}

// ---- Memory ----------------------------------------------------------------

struct Memory {
    double port, joined_port, mac; // bytes each, with their share of the tables
};

Memory measure_memory(uint32_t ports, uint32_t macs, uint64_t seed)
{
    VoiceAddresses addresses(OuiTable::vendors, seed);
    std::mt19937_64 random(seed);
    const std::vector<LearnedMac> learned = spread(addresses.make_known(macs), ports, random);
    ModuleDriver driver({0, addresses.ouis(), {}});
    driver.start();
    const auto bytes_each = [](uint32_t count, const std::function<void()> &run) {
        const uint64_t before = heap_state().live_bytes;
        run();
        return static_cast<double>(heap_state().live_bytes - before) / count;
    };
    Memory memory{};
    memory.port = bytes_each(ports, [&] {
        for (uint32_t ifx = 1; ifx <= ports; ifx++) {
            driver.set_port(ifx);
            driver.answer_requests();
        }
    });
    memory.mac = bytes_each(macs, [&] {
        for (const LearnedMac &mac : learned) {
            driver.learn(mac.mac, mac.ifx);
        }
    });
    memory.joined_port = memory.port + bytes_each(ports, [&] {
                             for (uint32_t ifx = 1; ifx <= ports; ifx++) {
                                 driver.report_voice(ifx);
                             }
                         });
    return memory;
}

// ---- Steady state ----------------------------------------------------------

// Allocations beyond those of records, in a million events.
uint64_t count_steady_allocations(Visitors visitors, const char *text, uint64_t seed)
{
    constexpr uint32_t event_count = 1'000'000;
    Bench bench(OuiTable::mixed, usual_port_count, usual_mac_count, seed);
    bench.driver.start();
    for (uint32_t ifx = 1; ifx <= usual_port_count; ifx++) {
        bench.driver.report_voice(ifx);
    }
    DailyLife life(bench, visitors);
    life.run(event_count); // warm-up
    life.settle();
    const HeapState before = heap_state();
    const uint64_t records_before = life.records();
    life.run(event_count);
    const uint64_t records = life.records() - records_before;
    const uint64_t beyond = heap_state().allocations - before.allocations - records;
    life.settle();
    const auto growth = static_cast<int64_t>(heap_state().live_bytes - before.live_bytes);
    std::printf("%u mixed events, %s: %llu allocations of records, %llu others; in use afterwards: %+lld bytes\n",
                event_count, text, static_cast<unsigned long long>(records), static_cast<unsigned long long>(beyond),
                static_cast<long long>(growth));
    return beyond;
}

} // namespace

int main()
{
    const uint64_t seed = std::random_device{}();
    std::printf("seed %llu\n", static_cast<unsigned long long>(seed));

    const double unknown_ratio = compare_unknown(seed);
    const std::vector<uint32_t> port_counts = {10, 100, usual_port_count, 10'000};
    const std::vector<uint32_t> mac_counts = {100, 1000, 10'000, 100'000};
    std::vector<Figures> by_ports, by_macs;
    for (const uint32_t count : port_counts) {
        by_ports.push_back(measure_events(count, usual_mac_count, seed));
    }
    print_events("ports, with 127 OUIs and 16000 MACs", port_counts, by_ports);
    for (const uint32_t count : mac_counts) {
        by_macs.push_back(measure_events(usual_port_count, count, seed));
    }
    print_events("MACs, with 127 OUIs and 1000 ports", mac_counts, by_macs);
    const Memory memory = measure_memory(usual_port_count, usual_mac_count, seed);
    std::printf("\nbytes: port %.1f, port that joined by itself %.1f, MAC %.1f\n", memory.port, memory.joined_port,
                memory.mac);
    const uint64_t steady_allocations = count_steady_allocations(Visitors::returning, "devices return", seed);
    const uint64_t visitor_allocations = count_steady_allocations(Visitors::never_seen, "new devices", seed);

    print_bar("module.mac_known_ns", by_ports[2].at("known"));
    print_bar("module.mac_unknown_vs_known", unknown_ratio);
    print_bar("module.bytes_per_port", memory.port);
    print_bar("module.bytes_per_mac", memory.mac);
    // Not print_bar, which leaves zeroes out: here they are results.
    std::printf("bar module.steady_allocations %llu\n", static_cast<unsigned long long>(steady_allocations));
    std::printf("bar module.steady_allocations_new_devices %llu\n",
                static_cast<unsigned long long>(visitor_allocations));
    return 0;
}
