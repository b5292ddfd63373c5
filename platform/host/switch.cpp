// The composition of the switch. A member may use the members before it. They are
// destroyed in the opposite order, so no part reports to one that is gone.
#include "platform/host/switch.h"

#include "platform/base/log.h"
#include "platform/host/services.h"
#include "platform/mom/store.h"
#include "platform/sides/bridge_side.h"
#include "platform/sides/fan_out.h"
#include "platform/sides/packet_side.h"

#include <algorithm>
#include <iterator>

namespace vvl::host
{
namespace
{

std::vector<PortId> port_ids(const std::vector<SwitchPort> &ports)
{
    std::vector<PortId> ids;
    ids.reserve(ports.size());
    for (const SwitchPort &port : ports) {
        ids.push_back({port.ifx, port.phyid});
    }
    return ids;
}

// The parts that listen to the plane. Each start makes new ones, since a side
// starts only once.
struct Sides {
    Sides(mom::Store &store, Loop &loop, fp::DataPlane &p)
        : plane(p), packet(store, loop, p), bridge(store, loop, p), events({&packet, &bridge})
    {
    }
    ~Sides() { plane.set_events(nullptr); }
    Sides(const Sides &) = delete;
    Sides &operator=(const Sides &) = delete;

    bool start(std::string &why)
    {
        plane.set_events(&events);
        return packet.start(why) && bridge.start(why);
    }

    fp::DataPlane &plane;
    sides::PacketSide packet;
    sides::BridgeSide bridge;
    sides::FanOut events;
};

} // namespace

struct Switch::Impl {
    Impl(SwitchConfig c, Loop &l, std::unique_ptr<mom::Store> s, std::unique_ptr<fp::DataPlane> p)
        : config(std::move(c)), loop(l), store(std::move(s)), plane(std::move(p)), manager(*plane, l),
          ids(port_ids(config.ports)), agent(l, *store, manager, ids, config.module)
    {
        if (config.has_agent) {
            keep_ports();
        }
        if (config.ports_follow_interfaces) {
            return;
        }
        for (const SwitchPort &port : config.ports) {
            std::string why;
            if (!attach(port, why)) {
                log_line(LogLevel::error, why);
            }
        }
    }

    static fp::PlanePort plane_port(const SwitchPort &port)
    {
        return {port.phyid, port.pvid, port.uplink, port.interface, port.ifx};
    }

    void keep_ports()
    {
        std::vector<fp::PlanePort> ports;
        std::transform(config.ports.begin(), config.ports.end(), std::back_inserter(ports), plane_port);
        plane->keep_only(ports);
    }

    bool attach(const SwitchPort &port, std::string &why) { return plane->add_port(plane_port(port), why); }

    const SwitchConfig config;
    Loop &loop;
    std::unique_ptr<mom::Store> store;
    std::unique_ptr<fp::DataPlane> plane;
    fp::Manager manager;
    const std::vector<PortId> ids;
    Agent agent;
    std::unique_ptr<Sides> sides; // null while they do not run
    bool running = false;
};

oper::OperatorPorts operator_ports(const std::vector<SwitchPort> &ports)
{
    oper::OperatorPorts named;
    for (const SwitchPort &port : ports) {
        named.all.push_back(port.ifx);
        if (port.uplink) {
            named.uplinks.push_back(port.ifx);
        }
    }
    return named;
}

Switch::Switch(SwitchConfig config, Loop &loop, std::unique_ptr<mom::Store> store, std::unique_ptr<fp::DataPlane> plane)
    : impl_(std::make_unique<Impl>(std::move(config), loop, std::move(store), std::move(plane)))
{
}

Switch::~Switch()
{
    stop();
}

bool Switch::start(std::string &why)
{
    if (impl_->running) {
        why = "switch: it is already running";
        return false;
    }
    if (impl_->config.has_sides) {
        impl_->sides = std::make_unique<Sides>(*impl_->store, impl_->loop, *impl_->plane);
    }
    impl_->running =
        (impl_->sides == nullptr || impl_->sides->start(why)) && (!impl_->config.has_agent || impl_->agent.load(why));
    if (!impl_->running) {
        impl_->sides.reset();
    }
    return impl_->running;
}

void Switch::stop()
{
    impl_->agent.unload();
    impl_->sides.reset();
    impl_->running = false;
}

bool Switch::set_port_link(uint32_t ifx, bool up)
{
    const SwitchPort *port = find_port(ifx);
    if (port == nullptr) {
        return false;
    }
    impl_->plane->set_link(port->phyid, up);
    if (!up && impl_->sides != nullptr) {
        impl_->sides->bridge.link_lost(port->phyid);
    }
    return true;
}

bool Switch::attach_port(uint32_t ifx, std::string &why)
{
    const SwitchPort *port = find_port(ifx);
    if (port == nullptr) {
        why = "port " + std::to_string(ifx) + ": the switch has no such port";
        return false;
    }
    return impl_->attach(*port, why);
}

bool Switch::detach_port(uint32_t ifx)
{
    if (!set_port_link(ifx, false)) {
        return false;
    }
    impl_->plane->remove_port(find_port(ifx)->phyid);
    return true;
}

const SwitchPort *Switch::find_port(uint32_t ifx) const
{
    const auto &ports = impl_->config.ports;
    const auto found =
        std::find_if(ports.begin(), ports.end(), [&](const SwitchPort &port) { return port.ifx == ifx; });
    return found != ports.end() ? &*found : nullptr;
}

const SwitchConfig &Switch::config() const
{
    return impl_->config;
}

Loop &Switch::loop()
{
    return impl_->loop;
}

mom::Store &Switch::store()
{
    return *impl_->store;
}

fp::DataPlane &Switch::plane()
{
    return *impl_->plane;
}

fp::Manager &Switch::manager()
{
    return impl_->manager;
}

Agent &Switch::agent()
{
    return impl_->agent;
}

} // namespace vvl::host
