// A port is attached once to each interface that gets its name, since the kernel
// forgets what was attached to an interface that is gone. Where agent and sides
// are separate processes, only the agent attaches; the sides follow the links.
#include "platform/host/port_links.h"

#include "platform/base/log.h"
#include "platform/sides/link_watch.h"

#include <algorithm>
#include <map>
#include <utility>

namespace vvl::host
{
namespace
{

constexpr uint64_t look_interval_us = 1'000'000;
constexpr size_t looks_per_tick_max = 256; // a look is two queries of the kernel

class WatchedLinks final : public PortLinks
{
  public:
    explicit WatchedLinks(Switch &target)
        : target_(target), watch_(
                               target.loop(), interfaces_of(target.config()),
                               [this](const std::string &interface, const sides::LinkState &state) {
                                   changed(ports_.at(interface), state);
                               },
                               [this](const std::string &interface) { look_after(interface, ports_.at(interface)); })
    {
        for (const SwitchPort &port : target.config().ports) {
            ports_.emplace(port.interface, Port{&port, false, {}});
        }
    }

    ~WatchedLinks() override { target_.loop().cancel_timer(tick_timer_); }

    bool start(std::string &why)
    {
        if (target_.config().has_agent) {
            arm_tick();
        }
        if (!watch_.start(why)) {
            return false;
        }
        for (const auto &[interface, port] : ports_) {
            if (watch_.state(interface).ifindex == 0) {
                log(LogLevel::warn, *port.config, "the interface does not exist; the port waits for it");
            }
        }
        return true;
    }

  private:
    struct Port {
        const SwitchPort *config;
        bool attached;       // to the interface that has the name
        std::string trouble; // the line logged about a port that is not served; empty while it is
    };

    static std::vector<std::string> interfaces_of(const SwitchConfig &config)
    {
        std::vector<std::string> interfaces;
        for (const SwitchPort &port : config.ports) {
            interfaces.push_back(port.interface);
        }
        return interfaces;
    }

    static std::string line(const SwitchPort &port, const std::string &text)
    {
        return fp::name_of({.interface = port.interface, .ifx = port.ifx}) + ": " + text;
    }

    static void log(LogLevel level, const SwitchPort &port, const std::string &text)
    {
        log_line(level, line(port, text));
    }

    // Logs why a port is not served, once for each reason. trouble: the line; empty
    // where the port is served.
    static void set_trouble(Port &port, const std::string &trouble)
    {
        if (port.trouble == trouble) {
            return;
        }
        port.trouble = trouble;
        trouble.empty() ? log(LogLevel::info, *port.config, "served again") : log_line(LogLevel::error, trouble);
    }

    void changed(Port &port, const sides::LinkState &state)
    {
        const bool attaches = target_.config().has_agent;
        if (state.ifindex == 0) {
            log(LogLevel::warn, *port.config, "the interface is gone");
            attaches ? target_.detach_port(port.config->ifx) : target_.set_port_link(port.config->ifx, false);
            port.attached = false;
            port.trouble.clear();
            return;
        }
        const bool is_new = attaches && !port.attached;
        if (is_new && !attach(port)) {
            return;
        }
        port.attached = true;
        target_.set_port_link(port.config->ifx, state.up);
        log(LogLevel::info, *port.config,
            std::string(is_new ? "attached, " : "") + (state.up ? "link up" : "link down"));
    }

    bool attach(Port &port)
    {
        std::string why;
        if (!target_.attach_port(port.config->ifx, why)) {
            set_trouble(port, why);
            return false;
        }
        set_trouble(port, "");
        return true;
    }

    void look_after(const std::string &interface, Port &port)
    {
        const sides::LinkState state = watch_.state(interface);
        if (state.ifindex == 0 || !target_.config().has_agent) {
            return;
        }
        if (!port.attached) {
            changed(port, state);
            return;
        }
        std::string what;
        switch (target_.plane().look_after(port.config->phyid, what)) {
        case fp::PortHealth::served:
            set_trouble(port, "");
            break;
        case fp::PortHealth::restored:
            port.trouble.clear();
            log(LogLevel::warn, *port.config, what + "; put back");
            break;
        case fp::PortHealth::not_served:
            set_trouble(port, line(*port.config, "not served: " + what));
            break;
        }
    }

    // Messages may be lost, so the ports are also looked at in turn.
    void arm_tick()
    {
        tick_timer_ = target_.loop().add_timer(look_interval_us, [this] {
            for (size_t i = 0; i < std::min(ports_.size(), looks_per_tick_max); i++) {
                auto port = ports_.upper_bound(looked_at_);
                port = port != ports_.end() ? port : ports_.begin();
                looked_at_ = port->first;
                look_after(port->first, port->second);
            }
            arm_tick();
        });
    }

    Switch &target_;
    std::map<std::string, Port> ports_; // by interface
    sides::LinkWatch watch_;
    std::string looked_at_; // the last interface that a tick looked at
    LoopId tick_timer_ = 0;
};

} // namespace

std::unique_ptr<PortLinks> follow_links(Switch &target, std::string &why)
{
    auto links = std::make_unique<WatchedLinks>(target);
    if (!links->start(why)) {
        return nullptr;
    }
    return links;
}

} // namespace vvl::host
