// The plane in the kernel under test: on interfaces of a network namespace and
// with a BPF file system of its own, both of which end with the process. Frames
// go through the programs by the kernel's test run; the Linux bridge behind them
// is not part of it: what an access port takes in leaves at the uplink.
#pragma once

#include "platform/fp/ebpf/plane_ebpf.h"
#include "tests/support/own_network.h"
#include "tests/unit/fp/plane_fixture.h"

#include <bpf/libbpf.h>
#include <memory>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

namespace vvl::fp::test
{

constexpr const char *pin_folder = "/sys/fs/bpf/plane";

// Of a process that has no part in what the agent does.
inline const EbpfOptions beside_the_agent{.pin_folder = pin_folder, .is_agent = false, .is_sides = false};

// Runs it in a process of its own, which may change what belongs to a process;
// returns 0 where it returned true.
template <typename Part> int in_child(Part part)
{
    const pid_t child = fork();
    if (child == 0) {
        _exit(part() ? 0 : 1);
    }
    int status = 0;
    waitpid(child, &status, 0);
    return status;
}

// Makes the interface "port<phyid>" and returns its name.
std::string make_interface(uint32_t phyid);

struct ProbeResult {
    bool forwarded = false;
    Bytes frame; // with its tag in the bytes
};

// The programs of the plane that is pinned, to be run by hand.
class Probe
{
  public:
    Probe();
    // metadata: the outer tag is put into the metadata first.
    ProbeResult ingress(uint32_t ifindex, const Bytes &frame, bool metadata)
    {
        return run(ingress_, ifindex, frame, metadata);
    }
    ProbeResult egress(uint32_t ifindex, const Bytes &frame, bool metadata)
    {
        return run(egress_, ifindex, frame, metadata);
    }

    int ingress_program() const { return ingress_; }

  private:
    static ProbeResult run(int program, uint32_t ifindex, const Bytes &frame, bool metadata);

    struct ObjectEnd {
        void operator()(bpf_object *object) const { bpf_object__close(object); }
    };
    std::unique_ptr<bpf_object, ObjectEnd> object_;
    int ingress_ = -1;
    int egress_ = -1;
};

class EbpfRig final : public Rig
{
  public:
    explicit EbpfRig(bool metadata);
    ~EbpfRig() override;
    DataPlane &plane() override { return *plane_; }
    EbpfPlane &ebpf() { return *plane_; }
    Sent send(uint32_t phyid, const Bytes &frame) override;
    void advance(uint64_t delta_us) override { loop_.advance(delta_us); }
    ProbeResult leave(uint32_t phyid, const Bytes &frame); // at the egress of a port
    void stop_agent() { plane_.reset(); }
    // The agent dies and starts again.
    void restart_agent();

  private:
    bool metadata_;
    VirtualLoop loop_;
    std::unique_ptr<EbpfPlane> plane_;
    std::unique_ptr<Probe> probe_;
};

} // namespace vvl::fp::test
