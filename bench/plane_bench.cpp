// What the plane in the kernel costs: its program alone, in multiples of one
// lookup in a BPF hash map, and whole frames through veth pairs, against a bare
// redirect and against nftables with the same 127 masked rules. All three send
// the frames on to the uplink in the same way, without a bridge between.
//
// Everything runs in one process with interleaved rounds, in namespaces of its
// own; the ratios are of medians. The frames come from 16 senders, of whom the
// half is named by a rule. nftables does what it can of the plane's work: it finds
// the rule, sets the DSCP and counts; the plane sets tag and priority as well, and
// learns the address.
#include "bench/times.h"
#include "platform/base/virtual_loop.h"
#include "platform/fp/ebpf/layout.h"
#include "platform/fp/ebpf/plane_ebpf.h"
#include "tests/live/network.h"
#include "tests/support/own_network.h"
#include "tests/support/pinned_maps.h"
#include "tests/unit/fp/frames.h"

#include <bpf/bpf.h>
#include <chrono>
#include <fstream>
#include <functional>
#include <net/if.h>
#include <numeric>
#include <stdexcept>
#include <unistd.h>

namespace
{

using namespace vvl;
using Clock = std::chrono::steady_clock;
using Samples = std::map<std::string, std::vector<double>>;

constexpr unsigned rounds = 15;
constexpr unsigned repetitions = 200'000; // of a program in one system call
constexpr unsigned rule_count = 127;
constexpr uint16_t voice_vlan = 100;
constexpr auto load_time = std::chrono::milliseconds(300); // of one kind, in one round
constexpr const char *pin_folder = "/sys/fs/bpf/bench";

const Mac phone = {0x02, 0x11, 0x22, 0x33, 0x44, 0x55};
const Mac computer = {0x06, 0, 0, 0, 0, 1};

// Ports of the network.
enum : unsigned { port_redirect = 1, port_plane, port_nft };

double median(std::vector<double> values)
{
    std::ranges::sort(values);
    return values.empty() ? 0 : values[values.size() / 2];
}

// Rules for 127 vendors, the phone's among them; their masks are of mask_count lengths.
fp::PlaneState state_with(unsigned mask_count)
{
    fp::PlaneState state;
    for (uint64_t id = 1; id <= rule_count; id++) {
        const Mac mac = id == rule_count ? phone : mac_of((uint64_t{0x020000} + id) << 24);
        fp::Rule tag{.id = id, .mac = mac, .mask = prefix_mask(24 + id % mask_count)};
        tag.form_mask = 3;
        tag.add_tag = true;
        tag.tag_vid = voice_vlan;
        fp::Rule mark{.id = id, .mac = tag.mac, .mask = tag.mask, .vid = voice_vlan, .vid_mask = 0xffff};
        mark.set_cos = mark.set_dscp = true;
        mark.cos = 6;
        mark.dscp = 46;
        state.rules[0].push_back(tag);
        state.rules[1].push_back(mark);
    }
    state.rules[2] = {{.id = 1, .vid = voice_vlan, .vid_mask = 0xffff, .drop = true}};
    state.binding[port_plane] = 7;
    return state;
}

// The bench's programs around the maps of the plane that is pinned.
class Programs
{
  public:
    Programs() : object_(bpf_object__open_file(VVLAN_BENCH_OBJECT, nullptr))
    {
        test::load_with_pinned_maps(object_.get(), pin_folder);
    }

    int fd(const char *name) const { return bpf_program__fd(bpf_object__find_program_by_name(object_.get(), name)); }
    bpf_object *object() const { return object_.get(); }

  private:
    struct ObjectEnd {
        void operator()(bpf_object *object) const { bpf_object__close(object); }
    };
    std::unique_ptr<bpf_object, ObjectEnd> object_;
};

// Nanoseconds of one run of the program on the frame.
double run_ns(int program, uint32_t ifindex, const fp::test::Bytes &frame)
{
    __sk_buff context{};
    context.ifindex = ifindex;
    bpf_test_run_opts options{};
    options.sz = sizeof options;
    options.data_in = frame.data();
    options.data_size_in = static_cast<uint32_t>(frame.size());
    options.ctx_in = &context;
    options.ctx_size_in = sizeof context;
    options.repeat = repetitions;
    const auto start = Clock::now();
    if (bpf_prog_test_run_opts(program, &options) != 0) {
        throw std::runtime_error("a program cannot be run");
    }
    return std::chrono::duration<double, std::nano>(Clock::now() - start).count() / repetitions;
}

void measure_programs(const Programs &programs, fp::EbpfPlane &plane, VirtualLoop &loop)
{
    const uint32_t ifindex = if_nametoindex("acc2");
    const auto frame_of = [](const Mac &from) {
        fp::test::Bytes payload = fp::test::ipv4(0);
        payload.resize(100);
        return fp::test::ethernet({0x02, 0xaa, 0xaa, 0, 0, 1}, from, {}, 0x0800, payload);
    };
    const fp::test::Bytes hit = frame_of(phone), miss = frame_of(computer);
    Samples times;
    for (unsigned round = 0; round < rounds; round++) {
        for (const unsigned masks : {1u, 8u}) {
            plane.install(state_with(masks));
            loop.advance(0);
            const auto take = [&](const std::string &name, const char *program, const fp::test::Bytes &frame) {
                times[name + (masks == 1 ? "" : "/8 masks")].push_back(run_ns(programs.fd(program), ifindex, frame));
            };
            run_ns(programs.fd("bench_hit"), ifindex, hit); // learns the address that is looked up
            take("empty", "bench_empty", hit);
            take("lookup", "bench_lookup", hit);
            take("hit", "bench_hit", hit);
            take("undo", "bench_undo", hit);
            take("miss", "bench_miss", miss);
            take("search", "bench_search", hit);
        }
    }
    const double empty = median(times["empty"]);
    const double lookup = median(times["lookup"]) - empty;
    std::printf("%-18s %8s %10s\n", "program", "ns", "lookups");
    std::map<std::string, double> cost;
    for (const auto &[name, samples] : times) {
        cost[name] = (median(samples) - empty) / lookup;
        std::printf("%-18s %8.1f %10.2f\n", name.c_str(), median(samples), cost[name]);
    }
    // A hit without the undoing, which is not the plane's.
    const double undone = cost["undo"] / 2;
    bench::print_bar("plane.hit_vs_lookup", cost["hit"] - undone);
    bench::print_bar("plane.miss_vs_lookup", cost["miss"]);
    bench::print_bar("plane.8masks_hit_vs_lookup", cost["hit/8 masks"] - undone);
    bench::print_bar("plane.8masks_search_vs_lookup", cost["search/8 masks"] - undone);
}

// In the plane's place, where it is there.
void attach(int program, const char *interface)
{
    bpf_tc_hook hook{};
    hook.sz = sizeof hook;
    hook.ifindex = static_cast<int>(if_nametoindex(interface));
    hook.attach_point = BPF_TC_INGRESS;
    bpf_tc_opts options{};
    options.sz = sizeof options;
    options.handle = VV_FILTER_HANDLE;
    options.priority = VV_FILTER_PRIORITY;
    options.flags = BPF_TC_F_REPLACE;
    options.prog_fd = program;
    bpf_tc_hook_create(&hook);
    if (bpf_tc_attach(&hook, &options) != 0) {
        throw std::runtime_error(std::string(interface) + ": a program cannot be attached");
    }
}

void make_nft_rules(const char *interface)
{
    const std::string file = "/tmp/vvlan-bench-" + std::to_string(getpid()) + ".nft";
    std::ofstream rules(file);
    rules << "table netdev bench {\n chain ingress {\n  type filter hook ingress device "
          << interface << " priority 0; policy accept;\n";
    for (const fp::Rule &rule : state_with(1).rules[0]) {
        rules << "  ether saddr & " << to_text(rule.mask) << " == " << to_text(rule.mac)
              << " ip dscp set 46 counter fwd to uplink\n";
    }
    rules << "  fwd to uplink\n }\n}\n";
    rules.close();
    test::run_command("nft -f " + file + " && rm " + file);
}

// Devices behind one port: eight telephones, whose vendors' rules are on average in
// the middle of the list, and as many others.
std::vector<live::Sender> senders_on(unsigned port)
{
    std::vector<live::Sender> senders;
    for (uint8_t i = 0; i < 8; i++) {
        senders.push_back({i, 0x020008 + 16u * i, port});
        senders.push_back({static_cast<uint8_t>(8 + i), 0x060000, port});
    }
    return senders;
}

uint64_t frames_arrived(const Programs &programs)
{
    std::vector<uint64_t> per_cpu(static_cast<size_t>(libbpf_num_possible_cpus()));
    const uint32_t key = 0;
    bpf_map_lookup_elem(bpf_object__find_map_fd_by_name(programs.object(), "arrived"), &key, per_cpu.data());
    return std::accumulate(per_cpu.begin(), per_cpu.end(), uint64_t{0});
}

double frames_a_second(const Programs &programs, unsigned port)
{
    live::Traffic traffic(senders_on(port));
    std::this_thread::sleep_for(load_time / 3); // up to speed
    const uint64_t before = frames_arrived(programs);
    const auto start = Clock::now();
    std::this_thread::sleep_for(load_time);
    const uint64_t after = frames_arrived(programs);
    return static_cast<double>(after - before) / std::chrono::duration<double>(Clock::now() - start).count();
}

void measure_frames(const Programs &programs)
{
    const std::pair<const char *, unsigned> kinds[] = {
        {"bare redirect", port_redirect}, {"plane + redirect", port_plane}, {"nftables + fwd", port_nft}};
    Samples rates;
    for (unsigned round = 0; round < rounds; round++) {
        for (const auto &[name, port] : kinds) {
            rates[name].push_back(frames_a_second(programs, port));
        }
    }
    for (const auto &[name, port] : kinds) {
        std::printf("%-18s %10.0f frames/s\n", name, median(rates[name]));
    }
    bench::print_bar("plane.vs_redirect", median(rates["plane + redirect"]) / median(rates["bare redirect"]));
    bench::print_bar("plane.vs_nft", median(rates["plane + redirect"]) / median(rates["nftables + fwd"]));
}

void run()
{
    live::Network network(3);
    VirtualLoop loop;
    std::string why;
    const auto plane = fp::EbpfPlane::open(loop, {.pin_folder = pin_folder}, why);
    if (plane == nullptr) {
        throw std::runtime_error(why);
    }
    if (!plane->add_port({.phyid = port_plane, .interface = "acc2"}, why)) {
        throw std::runtime_error(why);
    }
    const Programs programs;
    measure_programs(programs, *plane, loop);

    plane->install(state_with(1));
    loop.advance(0);
    const uint32_t key = 0;
    const uint32_t target = if_nametoindex("uplink");
    bpf_map_update_elem(bpf_object__find_map_fd_by_name(programs.object(), "target"), &key, &target, BPF_ANY);
    test::run_command("tc filter del dev far ingress");
    attach(programs.fd("bench_sink"), "far");
    attach(programs.fd("bench_redirect"), "acc1");
    attach(programs.fd("bench_plane_redirect"), "acc2");
    make_nft_rules("acc3");
    measure_frames(programs);
}

} // namespace

int main()
{
    if (const std::string &why = test::enter_own_network(); !why.empty()) {
        std::fprintf(stderr, "bench: plane: %s\n", why.c_str());
        return 2;
    }
    try {
        run();
    } catch (const std::exception &error) {
        std::fprintf(stderr, "bench: plane: %s\n", error.what());
        return 2;
    }
    return 0;
}
