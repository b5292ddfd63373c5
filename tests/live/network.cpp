#include "tests/live/network.h"

#include "tests/support/own_network.h"
#include "tests/unit/fp/frames.h"

#include <algorithm>
#include <bpf/bpf.h>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <stdexcept>
#include <sys/socket.h>
#include <unistd.h>

namespace vvl::live
{
namespace
{

constexpr size_t burst_min = 64; // frames per system call
constexpr Mac server = {0x02, 0xaa, 0xaa, 0x00, 0x00, 0x01};

[[noreturn]] void fail(const std::string &what)
{
    throw std::runtime_error(what + ": " + std::strerror(errno));
}

fp::test::Bytes frame_of(const Sender &sender)
{
    const auto byte = [](unsigned value) { return static_cast<uint8_t>(value); };
    const Mac from = {byte(sender.vendor >> 16),
                      byte(sender.vendor >> 8),
                      byte(sender.vendor),
                      byte(sender.port),
                      sender.number,
                      CHECKER_MARK};
    fp::test::Bytes payload = fp::test::ipv4(0);
    payload.resize(100);
    if (sender.tag_vid == 0) {
        return fp::test::ethernet(server, from, {}, ETH_P_IP, payload);
    }
    return fp::test::ethernet(server, from, {ETH_P_8021Q, sender.tag_vid}, ETH_P_IP, payload);
}

} // namespace

std::string to_text(const Treatment &treatment)
{
    const std::string marked =
        " priority " + std::to_string(treatment.priority) + " dscp " + std::to_string(treatment.dscp);
    return (treatment.vid == 0 ? "untagged" : "vlan " + std::to_string(treatment.vid)) + marked;
}

Network::Network(unsigned port_count)
    : checker_(bpf_object__open_file(VVLAN_CHECKER_OBJECT, nullptr), bpf_object__close)
{
    using test::run_command;
    if (const std::string &why = test::enter_own_network(); !why.empty()) {
        throw std::runtime_error(why);
    }
    run_command("ip link set lo up && ip link add br0 type bridge && ip link set br0 up");
    run_command("ip link add uplink type veth peer name far && ip link set uplink master br0 up && ip link set far up");
    for (unsigned port = 1; port <= port_count; port++) {
        const std::string access = "acc" + std::to_string(port);
        const std::string sender = sender_interface(port);
        run_command("ip link add " + access + " type veth peer name " + sender + " && ip link set " + access +
                    " master br0 up && ip link set " + sender + " up");
    }
    // A known address, so that the bridge sends to the uplink only.
    run_command("bridge fdb add " + vvl::to_text(server) + " dev uplink master static");
    run_command("tc qdisc add dev far clsact");
    if (bpf_object__load(checker_.get()) != 0) {
        fail("checker");
    }
    bpf_tc_hook hook{};
    hook.sz = sizeof hook;
    hook.ifindex = static_cast<int>(if_nametoindex("far"));
    hook.attach_point = BPF_TC_INGRESS;
    bpf_tc_opts options{};
    options.sz = sizeof options;
    options.prog_fd = bpf_program__fd(bpf_object__find_program_by_name(checker_.get(), "checker"));
    if (bpf_tc_attach(&hook, &options) != 0) {
        fail("checker at the uplink's far end");
    }
}

Counts Network::counts() const
{
    const int map = bpf_object__find_map_fd_by_name(checker_.get(), "treatments");
    std::vector<uint64_t> per_cpu(static_cast<size_t>(libbpf_num_possible_cpus()));
    Counts counts;
    checker_treatment key{};
    for (int rv = bpf_map_get_next_key(map, nullptr, &key); rv == 0; rv = bpf_map_get_next_key(map, &key, &key)) {
        uint64_t &sum = counts[{key.sender, {key.vid, key.priority, key.dscp}}];
        if (bpf_map_lookup_elem(map, &key, per_cpu.data()) == 0) {
            for (const uint64_t count : per_cpu) {
                sum += count;
            }
        }
    }
    return counts;
}

// A port's sending end: one frame of each of its senders in turn.
struct Traffic::Outlet {
    std::vector<fp::test::Bytes> frames;
    std::vector<iovec> data; // of each frame
    std::vector<mmsghdr> messages;
    int socket = ::socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, 0);

    explicit Outlet(unsigned port)
    {
        sockaddr_ll address{};
        address.sll_family = AF_PACKET;
        address.sll_ifindex = static_cast<int>(if_nametoindex(Network::sender_interface(port).c_str()));
        const int one = 1;
        if (bind(socket, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0 ||
            setsockopt(socket, SOL_PACKET, PACKET_QDISC_BYPASS, &one, sizeof one) != 0) {
            fail("sender on port " + std::to_string(port));
        }
    }
    ~Outlet() { close(socket); }
    Outlet(const Outlet &) = delete;
    Outlet &operator=(const Outlet &) = delete;

    // After the last frame was added.
    void prepare()
    {
        for (fp::test::Bytes &frame : frames) {
            data.push_back({frame.data(), frame.size()});
        }
        messages.resize(std::max(frames.size(), burst_min));
        for (size_t i = 0; i < messages.size(); i++) {
            messages[i].msg_hdr.msg_iov = &data[i % data.size()];
            messages[i].msg_hdr.msg_iovlen = 1;
        }
    }
};

Traffic::Traffic(const std::vector<Sender> &senders)
{
    for (const Sender &sender : senders) {
        auto &outlet = outlets_[sender.port];
        if (outlet == nullptr) {
            outlet = std::make_unique<Outlet>(sender.port);
        }
        outlet->frames.push_back(frame_of(sender));
    }
    for (const auto &[port, outlet] : outlets_) {
        outlet->prepare();
    }
    thread_ = std::thread([this] { run(); });
}

Traffic::~Traffic()
{
    stop();
}

uint64_t Traffic::stop()
{
    stopping_ = true;
    if (thread_.joinable()) {
        thread_.join();
    }
    return sent_;
}

void Traffic::wait_for_rounds() const
{
    for (const uint64_t begin = rounds_; rounds_ < begin + 3;) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

void Traffic::run()
{
    for (; !stopping_; rounds_++) {
        for (const auto &[port, outlet] : outlets_) {
            const int sent =
                sendmmsg(outlet->socket, outlet->messages.data(), static_cast<unsigned>(outlet->messages.size()), 0);
            sent_ += sent > 0 ? static_cast<uint64_t>(sent) : 0;
        }
    }
}

} // namespace vvl::live
