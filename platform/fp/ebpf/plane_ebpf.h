// The forwarding plane in the kernel: classifies and remarks the frames of real
// network interfaces, in front of whatever forwards them (a Linux bridge).
//
// It outlives the agent. Maps and programs are pinned in a folder of a BPF file
// system; the programs stay at the interfaces when the agent dies and go on by
// the last state, and the next agent takes them over without detaching. A
// change is written into a state that is not in force, which then comes into
// force with one store, so a kill at any moment leaves the old treatment or the
// new one.
//
// Limits: layout.h. Needs CAP_BPF and CAP_NET_ADMIN. One agent per folder at a
// time; interfaces are those of the caller's network namespace.
#pragma once

#include "platform/base/loop.h"
#include "platform/fp/ebpf/options.h"
#include "platform/fp/plane.h"

#include <memory>
#include <string>
#include <vector>

namespace vvl::fp
{

class EbpfPlane final : public DataPlane
{
  public:
    // Takes over what is pinned, or loads the programs. Null on failure, also
    // where another process has a role that the options ask for, with nothing
    // changed; why names the object and the reason.
    static std::unique_ptr<EbpfPlane> open(Loop &loop, const EbpfOptions &options, std::string &why);
    ~EbpfPlane() override; // the programs go on

    // Refuses with -EBUSY where this process is not the agent.
    int install(const PlaneState &state) override;
    int set_trap(uint32_t phyid, bool on) override;
    void forget(uint16_t vlan, const Mac &mac) override;
    PlaneState installed() const override;
    // Events come from the loop while there is somebody to tell.
    void set_events(PlaneEvents *events) override;
    // Attaches the programs to port.interface. Again for a known port: to the
    // interface that has the name now, so a removed one that is back counts.
    bool add_port(const PlanePort &port, std::string &why) override;
    // The kernel stops the frames of a link that is down by itself.
    void set_link(uint32_t phyid, bool up) override;
    void remove_port(uint32_t phyid) override;
    void keep_only(std::span<const PlanePort> ports) override;
    PortHealth look_after(uint32_t phyid, std::string &what) override;
    PortCounters counters(uint32_t phyid) const override;

    // Frames that an ACE acted on, since the maps were made; id 1 to 127.
    uint64_t ace_frames(Acl acl, uint64_t id) const;

    // Learned or trapped frames that were not reported, the ring or the table being full.
    uint64_t events_lost(uint32_t phyid) const;

  private:
    struct Impl;
    explicit EbpfPlane(std::unique_ptr<Impl> impl);
    std::unique_ptr<Impl> impl_;
};

} // namespace vvl::fp
