// The ports of a switch and real interfaces: what the plane is told.
#include "platform/host/port_links.h"

#include "platform/base/log.h"
#include "platform/base/virtual_loop.h"
#include "platform/mom/local/store_local.h"
#include "platform/mom/store.h"
#include "tests/support/own_network_fixture.h"

using namespace vvl;
using namespace vvl::host;

namespace
{

class TellingPlane final : public fp::DataPlane
{
  public:
    explicit TellingPlane(std::string &told) : told_(told) {}
    int install(const fp::PlaneState &) override { return 0; }
    int set_trap(uint32_t, bool) override { return 0; }
    void forget(uint16_t, const Mac &) override {}
    void set_events(fp::PlaneEvents *) override {}
    bool add_port(const fp::PlanePort &port, std::string &) override
    {
        told_ += "add " + port.interface + "\n";
        return true;
    }
    void set_link(uint32_t phyid, bool up) override { told_ += std::to_string(phyid) + (up ? " up\n" : " down\n"); }
    fp::PortCounters counters(uint32_t) const override { return {}; }
    void remove_port(uint32_t phyid) override { told_ += "remove " + std::to_string(phyid) + "\n"; }
    fp::PortHealth look_after(uint32_t, std::string &what) override
    {
        what = "lost";
        return std::exchange(health, fp::PortHealth::served);
    }

    fp::PortHealth health = fp::PortHealth::served; // what the next look finds

  private:
    std::string &told_;
};

class PortLinksTest : public test::OwnNetwork
{
  protected:
    PortLinksTest()
    {
        set_log_sink([this](LogLevel, const std::string &line) {
            log += line + "\n";
            if (!awaited.empty() && line == awaited) {
                awaited.clear();
                loop.expect_answers(-1);
            }
        });
    }
    ~PortLinksTest() override { set_log_sink({}); }

    void wait_for(const std::string &line)
    {
        awaited = line;
        loop.expect_answers(1);
        loop.run_pending();
    }

    VirtualLoop loop;
    std::string told; // to the plane
    std::string log;
    std::string awaited;
};

TEST_F(PortLinksTest, a_port_is_attached_to_each_interface_that_has_its_name)
{
    Switch target({"", {{1, 0x101, 1, false, "eth1"}, {2, 0x102, 1, false, "eth2"}}, true, true, true}, loop,
                  mom::make_local_store(), std::make_unique<TellingPlane>(told));
    ip("link add eth1 type veth peer name far1");
    std::string why;
    const auto links = follow_links(target, why);
    ASSERT_NE(links, nullptr) << why;
    EXPECT_EQ(told, "add eth1\n257 down\n");

    ip("link set far1 up");
    ip("link set eth1 up");
    wait_for("port 1 (eth1): link up");
    ip("link del eth1");
    wait_for("port 1 (eth1): the interface is gone");
    ip("link add eth2 type veth peer name eth1");
    wait_for("port 2 (eth2): attached, link down");
    EXPECT_EQ(told,
              "add eth1\n257 down\n257 up\n257 down\n257 down\nremove 257\nadd eth1\n257 down\nadd eth2\n258 down\n");
    EXPECT_EQ(log, "port 1 (eth1): attached, link down\n"
                   "port 2 (eth2): the interface does not exist; the port waits for it\n"
                   "port 1 (eth1): link up\n"
                   "port 1 (eth1): link down\n"
                   "port 1 (eth1): the interface is gone\n"
                   "port 1 (eth1): attached, link down\n"
                   "port 2 (eth2): attached, link down\n");
}

// By a message of the kernel, and without one at the next tick.
TEST_F(PortLinksTest, lost_programs_are_noticed)
{
    auto plane = std::make_unique<TellingPlane>(told);
    TellingPlane &told_plane = *plane;
    Switch target({"", {{1, 0x101, 1, false, "eth1"}}, true, true, true}, loop, mom::make_local_store(),
                  std::move(plane));
    ip("link add eth1 type veth peer name far1");
    std::string why;
    const auto links = follow_links(target, why);
    ASSERT_NE(links, nullptr) << why;
    log.clear();
    told_plane.health = fp::PortHealth::restored;
    test::run_command("tc qdisc add dev eth1 clsact");
    wait_for("port 1 (eth1): lost; put back");
    for (const fp::PortHealth health :
         {fp::PortHealth::not_served, fp::PortHealth::not_served, fp::PortHealth::served}) {
        told_plane.health = health;
        loop.advance(1'000'000);
    }
    EXPECT_EQ(log, "port 1 (eth1): lost; put back\n"
                   "port 1 (eth1): not served: lost\n"
                   "port 1 (eth1): served again\n");
}

} // namespace
