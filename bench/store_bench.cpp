// The Redis store against what its server gives to a client that does no more
// than it must, in one run: writes, notifications, a start-up on a full store,
// and the time from a control side's write to the plane.
//
// The peer is raw_client.h. Both sides have a window of the same number of writes
// on their way. Two other peers are for comparison: the transactions of one count
// their writes too, and the other gathers writes in a transaction as the store
// gathers those of one turn of the loop in a call.
#include "bench/raw_client.h"
#include "platform/fp/soft/plane_soft.h"
#include "platform/host/switch.h"
#include "platform/host/uv_loop.h"
#include "platform/mom/keys.h"
#include "platform/mom/redis/store_redis.h"
#include "tests/support/redis_server.h"

#include "p_bridge.pb-c.h"
#include "u_bridge.pb-c.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <functional>
#include <memory>
#include <string>
#include <vector>

using namespace vvl;
using namespace vvl::bench;

namespace
{

constexpr size_t write_count = 20'000;
constexpr size_t window = 500; // writes on their way at a time
constexpr int repetitions = 5;
constexpr uint32_t port_count = 1'000;
constexpr uint32_t oui_count = 127;
constexpr uint32_t mac_count = 16'000;
constexpr uint32_t voice_vlan = 100;
constexpr size_t paced_writes = 3'000;
constexpr double late_s = 0.005; // of a timer of 1 ms: then the loop was at work

using Clock = std::chrono::steady_clock;

double seconds_since(Clock::time_point begin)
{
    return std::chrono::duration<double>(Clock::now() - begin).count();
}

double median(std::vector<double> values)
{
    std::ranges::sort(values);
    return values[values.size() / 2];
}

struct Counter final : mom::SessionEvents {
    void link_lost(uint32_t) override {}
    void link_back(uint32_t, bool) override {}
    void changed(const mom::Change &) override { seen++; }
    size_t seen = 0;
};

std::string port_value(uint32_t ifx)
{
    return std::string("\x2a\x02\x08") + static_cast<char>(ifx & 0x7f) + "\x30\x01\x38\x01";
}

// ---- Writes and notifications ----

double raw_writes(const Peer &peer, const std::string &socket, bool is_watched)
{
    Raw writer(socket);
    Raw reader(socket);
    if (is_watched) {
        reader.run("SUBSCRIBE raw#4");
    }
    const auto begin = Clock::now();
    size_t sent = 0;
    for (size_t done = 0; done < write_count; done++) {
        for (; sent < write_count && sent < done + window; sent++) {
            writer.write(peer, sent, port_value(static_cast<uint32_t>(sent % 100)));
        }
        writer.take_write(peer, done);
        for (size_t i = 0; is_watched && (done + 1) % peer.gathered == 0 && i < peer.gathered; i++) {
            reader.next();
        }
    }
    return write_count / seconds_since(begin);
}

double our_writes(mom::Store &store, bool is_watched)
{
    host::UvLoop loop;
    Counter events;
    const auto writer = store.open(loop, events, "writer");
    const auto reader = store.open(loop, events, "reader");
    writer->connect_now(4);
    reader->connect_now(4);
    if (is_watched) {
        reader->watch(4, "p_bridge.vvlan_port_cfg", [&](int) { loop.stop(); });
        loop.run();
    }
    size_t sent = 0;
    size_t done = 0;
    std::function<void()> fill = [&] {
        for (; sent < write_count && sent < done + window; sent++) {
            const mom::Name name{4, "p_bridge.vvlan_port_cfg", std::to_string(sent % raw_key_count)};
            writer->write(name, {port_value(static_cast<uint32_t>(sent % 100)), {}}, mom::WriteMode::replace, {},
                          [&](int) {
                              done++;
                              if (done % (window / 2) == 0) {
                                  fill();
                              }
                          });
        }
    };
    std::function<void()> look = [&] {
        if (done == write_count && (!is_watched || events.seen == write_count)) {
            loop.stop();
        } else {
            loop.add_timer(500, look);
        }
    };
    const auto begin = Clock::now();
    fill();
    look();
    loop.run();
    return write_count / seconds_since(begin);
}

// ---- Start-up ----

// Tells when the plane was last changed, and how often.
class WatchedPlane final : public fp::DataPlane
{
  public:
    explicit WatchedPlane(Loop &loop) : plane_(loop) {}
    int install(const fp::PlaneState &state) override
    {
        bound_ports = state.binding.size();
        return note(plane_.install(state));
    }
    int set_trap(uint32_t phyid, bool on) override { return plane_.set_trap(phyid, on); }
    void forget(uint16_t vlan, const Mac &mac) override { plane_.forget(vlan, mac); }
    void set_events(fp::PlaneEvents *events) override { plane_.set_events(events); }
    bool add_port(const fp::PlanePort &port, std::string &why) override { return plane_.add_port(port, why); }
    void set_link(uint32_t phyid, bool up) override { plane_.set_link(phyid, up); }
    fp::PortCounters counters(uint32_t phyid) const override { return plane_.counters(phyid); }

    Clock::time_point last{};
    size_t bound_ports = 0; // of the last state
    std::function<void()> on_change;

  private:
    int note(int result)
    {
        last = Clock::now();
        if (on_change) {
            on_change();
        }
        return result;
    }
    fp::SoftPlane plane_;
};

struct Agent {
    explicit Agent(const std::string &address)
    {
        std::string why;
        host::SwitchConfig config;
        config.module = host::default_module_path();
        config.has_sides = false;
        for (uint32_t ifx = 1; ifx <= port_count; ifx++) {
            config.ports.push_back({ifx, 0x1000 + ifx, 1, false});
        }
        auto watched = std::make_unique<WatchedPlane>(loop);
        plane = watched.get();
        target = std::make_unique<host::Switch>(config, loop, mom::make_redis_store({address, "b:", {}}, why),
                                                std::move(watched));
    }
    host::UvLoop loop;
    WatchedPlane *plane = nullptr;
    std::unique_ptr<host::Switch> target;
};

void write_and_wait(host::UvLoop &loop, mom::Session &session, const mom::Name &name, const std::string &bytes,
                    size_t &open)
{
    open++;
    session.write(name, {bytes, {}}, mom::WriteMode::replace, {}, [&](int) {
        if (--open == 0) {
            loop.stop();
        }
    });
}

std::string mac_key(uint32_t index)
{
    char text[64];
    std::snprintf(text, sizeof text, "%u/0/00:%02x:00:00:%02x:%02x", voice_vlan, index % oui_count, index >> 8 & 255,
                  index & 255);
    return text;
}

// The packed form of a keyed object's key, with a number field behind it.
std::string packed(const char *type, const std::string &key, const std::string &rest)
{
    std::string bytes;
    mom::pack(*mom::decode_key(*mom::find_type(type), key), bytes);
    return bytes + rest;
}

// The voice VLAN 100, switched on.
void write_global(mom::Session &session)
{
    session.write({4, "p_bridge.vvlan_glb_cfg", ""}, {{}, {{5, std::string("\x2a\x04\x08\x64\x10\x01", 6)}}},
                  mom::WriteMode::replace, {}, {});
}

std::vector<mom::Name> fill_store(mom::Store &store)
{
    host::UvLoop loop;
    Counter events;
    const auto session = store.open(loop, events, "filler");
    session->connect_now(4);
    session->connect_now(6);
    size_t open = 0;
    std::vector<mom::Name> names;
    const auto add = [&](uint32_t db, const char *type, const std::string &key, const std::string &rest) {
        names.push_back({db, type, key});
        write_and_wait(loop, *session, names.back(), packed(type, key, rest), open);
    };
    for (uint32_t i = 0; i < oui_count; i++) {
        char key[64];
        std::snprintf(key, sizeof key, "00:%02x:00:00:00:00/ff:ff:ff:00:00:00", i);
        add(4, "p_bridge.vvlan_oui_cfg", key, "");
    }
    for (uint32_t i = 1; i <= port_count; i++) {
        add(4, "p_bridge.vvlan_port_cfg", std::to_string(i), "\x30\x01\x38\x01");
    }
    for (uint32_t i = 0; i < mac_count; i++) {
        const uint32_t ifx = 1 + i % port_count;
        const std::string port = ifx < 128 ? std::string(1, static_cast<char>(ifx))
                                           : std::string{static_cast<char>(ifx | 128), static_cast<char>(ifx >> 7)};
        add(6, "u_bridge.mac_vid_reg_noti", mac_key(i), "\x38" + port);
    }
    write_global(*session);
    loop.run();
    return names;
}

double raw_read(const std::string &socket, const std::vector<mom::Name> &names)
{
    Raw reader(socket);
    const auto begin = Clock::now();
    for (const uint32_t db : {4u, 6u}) {
        reader.run(db == 4 ? "SELECT 4" : "SELECT 6");
        size_t count = 0;
        for (const mom::Name &name : names) {
            if (name.db == db) {
                const std::string key = "b:" + name.type + ":" + name.key;
                reader.send("GET %b", key.data(), key.size());
                count++;
            }
        }
        for (; count > 0; count--) {
            if (reader.next()->type != REDIS_REPLY_STRING) {
                std::fprintf(stderr, "bench_store: a key is not there\n");
                std::exit(1);
            }
        }
    }
    return seconds_since(begin);
}

// From the module's load, in seconds.
struct StartUp {
    double plane = 0;   // to the last change of the plane, every port bound
    double settled = 0; // until the loop has nothing to do: each port's scan of all MACs is over
};

StartUp start_up(const std::string &address)
{
    Agent agent(address);
    std::string why;
    const auto begin = Clock::now();
    if (!agent.target->start(why)) {
        std::fprintf(stderr, "bench_store: %s\n", why.c_str());
        std::exit(1);
    }
    StartUp taken;
    double looked = seconds_since(begin);
    std::function<void()> look = [&] {
        const double now = seconds_since(begin);
        taken.plane = std::chrono::duration<double>(agent.plane->last - begin).count();
        if (now - std::exchange(looked, now) > late_s || taken.settled < taken.plane) {
            taken.settled = now;
        }
        const bool bound = agent.plane->bound_ports == port_count;
        if (bound && now - taken.settled > 0.5) {
            agent.loop.stop();
        } else {
            agent.loop.add_timer(1000, look);
        }
    };
    look();
    agent.loop.run();
    agent.target->stop();
    return taken;
}

// ---- From a write to the plane ----

std::vector<double> write_to_plane(const std::string &address)
{
    Agent agent(address);
    std::string why;
    std::vector<double> times;
    size_t written = 0;
    Counter events;
    const auto control = mom::make_redis_store({address, "b:", {}}, why);
    const auto session = control->open(agent.loop, events, "control");
    session->connect_now(4);
    write_global(*session);
    agent.target->start(why);
    Clock::time_point sent{};
    bool waiting = false;
    agent.plane->on_change = [&] {
        if (std::exchange(waiting, false)) {
            times.push_back(seconds_since(sent) * 1000);
        }
    };
    const mom::Name name{4, "p_bridge.vvlan_oui_cfg", "00:ee:00:00:00:00/ff:ff:ff:00:00:00"};
    const std::string bytes = packed("p_bridge.vvlan_oui_cfg", name.key, "");
    std::function<void()> pace = [&] {
        if (written == paced_writes) {
            agent.loop.stop();
            return;
        }
        agent.loop.add_timer(1000, pace);
        sent = Clock::now();
        waiting = true;
        if (written++ % 2 == 0) {
            session->write(name, {bytes, {}}, mom::WriteMode::replace, {}, {});
        } else {
            session->remove(name, {}, {});
        }
    };
    agent.loop.add_timer(1'000'000, pace);
    agent.loop.run();
    agent.plane->on_change = {};
    agent.target->stop();
    std::ranges::sort(times);
    return times;
}

// ---- Output ----

void print_bar(const char *name, double value)
{
    std::printf("bar store.%s %.3f\n", name, value);
}

void measure_writes(const test::RedisServer &server)
{
    std::string why;
    const auto store = mom::make_redis_store({server.address(), "b:", {}}, why);
    std::vector<double> ours[2];
    std::vector<double> raw[std::size(peers)][2];
    for (int i = 0; i < repetitions; i++) {
        for (const bool is_watched : {false, true}) {
            for (const Peer &peer : peers) {
                raw[&peer - peers][is_watched].push_back(raw_writes(peer, server.socket(), is_watched));
            }
            ours[is_watched].push_back(our_writes(*store, is_watched));
        }
    }
    const auto print = [](const char *name, const std::vector<double>(&rates)[2]) {
        std::printf("writes a second: %.0f, with a subscriber %.0f: %s\n", median(rates[0]), median(rates[1]), name);
    };
    print("store", ours);
    for (const Peer &peer : peers) {
        print(peer.name, raw[&peer - peers]);
    }
    print_bar("writes_vs_raw", median(ours[0]) / median(raw[&peer_of_bars - peers][0]));
    print_bar("notify_vs_raw", median(ours[1]) / median(raw[&peer_of_bars - peers][1]));
}

void measure_start_up(const test::RedisServer &server)
{
    std::string why;
    const auto filled = mom::make_redis_store({server.address(), "b:", {}}, why);
    const std::vector<mom::Name> names = fill_store(*filled);
    std::vector<double> reads;
    std::vector<double> planes;
    std::vector<double> settled;
    for (int i = 0; i < repetitions; i++) {
        reads.push_back(raw_read(server.socket(), names));
        const StartUp taken = start_up(server.address());
        planes.push_back(taken.plane);
        settled.push_back(taken.settled);
    }
    std::printf("start-up on %zu objects: plane complete %.0f ms, settled %.0f ms, raw read %.0f ms\n", names.size(),
                median(planes) * 1000, median(settled) * 1000, median(reads) * 1000);
    print_bar("reconcile_vs_raw", median(planes) / median(reads));
    print_bar("settle_vs_raw", median(settled) / median(reads));
}

} // namespace

int main()
{
    const test::RedisServer server;
    measure_writes(server);
    server.cli({"FLUSHALL"});
    measure_start_up(server);
    server.cli({"FLUSHALL"});
    const std::vector<double> times = write_to_plane(server.address());
    std::printf("write to plane: p50 %.2f ms, p99 %.2f ms, %zu of %zu writes\n", times[times.size() / 2],
                times[times.size() * 99 / 100], times.size(), paced_writes);
    print_bar("write_to_plane_p99_ms", times[times.size() * 99 / 100]);
    return 0;
}
