// A port is attached once to each interface that gets its name, since the kernel
// forgets what was attached to an interface that is gone. Where agent and sides
// are separate processes, only the agent attaches; the sides follow the links.
#include "platform/host/port_links.h"

#include "platform/base/log.h"
#include "platform/sides/link_watch.h"

#include <map>

namespace vvl::host
{
namespace
{

class WatchedLinks final : public PortLinks
{
  public:
    explicit WatchedLinks(Switch &target)
        : target_(target), watch_(target.loop(), interfaces_of(target.config()),
                                  [this](const std::string &interface, const sides::LinkState &state) {
                                      changed(ports_.at(interface), state);
                                  })
    {
        for (const SwitchPort &port : target.config().ports) {
            ports_.emplace(port.interface, Port{&port, false});
        }
    }

    bool start(std::string &why)
    {
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
        bool attached; // to the interface that has the name
    };

    static std::vector<std::string> interfaces_of(const SwitchConfig &config)
    {
        std::vector<std::string> interfaces;
        for (const SwitchPort &port : config.ports) {
            interfaces.push_back(port.interface);
        }
        return interfaces;
    }

    static void log(LogLevel level, const SwitchPort &port, const std::string &text)
    {
        log_line(level, "port " + std::to_string(port.ifx) + " (" + port.interface + "): " + text);
    }

    void changed(Port &port, const sides::LinkState &state)
    {
        const bool attaches = target_.config().has_agent;
        if (state.ifindex == 0) {
            log(LogLevel::warn, *port.config, "the interface is gone");
            attaches ? target_.detach_port(port.config->ifx) : target_.set_port_link(port.config->ifx, false);
            port.attached = false;
            return;
        }
        const bool is_new = attaches && !port.attached;
        std::string why;
        if (is_new && !target_.attach_port(port.config->ifx, why)) {
            log_line(LogLevel::error, why);
            return;
        }
        port.attached = true;
        target_.set_port_link(port.config->ifx, state.up);
        log(LogLevel::info, *port.config,
            std::string(is_new ? "attached, " : "") + (state.up ? "link up" : "link down"));
    }

    Switch &target_;
    std::map<std::string, Port> ports_; // by interface
    sides::LinkWatch watch_;
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
