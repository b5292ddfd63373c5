// A loaded module and what drives it: its start-up with a given configuration,
// and single events, delivered as an object store delivers them. The messages
// of events are made once and only filled in, so that an event costs the
// caller a few stores.
#pragma once

#include "bench/null_platform.h"
#include "p_bridge.pb-c.h"
#include "s_bridge.pb-c.h"
#include "u_bridge.pb-c.h"

#include <array>
#include <cstdint>
#include <string>
#include <vector>

namespace vvl::bench
{

using MacBytes = std::array<uint8_t, 6>;

struct Oui {
    MacBytes mac;
    MacBytes mask;
};

struct LearnedMac {
    MacBytes mac;
    uint32_t ifx;
};

// What the store holds when the module starts. All ports are automatic.
struct Configuration {
    uint32_t port_count = 0; // ifx and physical id 1 and up
    std::vector<Oui> ouis;
    std::vector<LearnedMac> macs;
};

constexpr uint32_t voice_vid = 100;

class ModuleDriver
{
  public:
    // Loads the module afresh; ends the process with a message where it cannot
    // be loaded. One at a time.
    explicit ModuleDriver(Configuration configuration);
    ~ModuleDriver();
    ModuleDriver(const ModuleDriver &) = delete;
    ModuleDriver &operator=(const ModuleDriver &) = delete;

    // From the host's first call to the last answer of the start-up.
    void start();

    // One event each; what it asks the store for waits until answer_requests.
    void learn(const MacBytes &mac, uint32_t ifx) { deliver_mac(TQ_MOM_SET, mac, ifx); }
    void forget(const MacBytes &mac, uint32_t ifx) { deliver_mac(TQ_MOM_DEL, mac, ifx); }
    void add_oui(const Oui &oui) { deliver_oui(TQ_MOM_SET, oui); }
    void remove_oui(const Oui &oui) { deliver_oui(TQ_MOM_DEL, oui); }
    void set_port(uint32_t ifx);     // enabled, automatic
    void report_voice(uint32_t ifx); // a voice frame was trapped on the port
    void run_aging_timer();          // the minute is over
    void answer_requests();

    uint32_t mac_count() const { return mac_table_size_(); }

  private:
    struct Subscriber {
        tq_mom_callback_t callback = nullptr;
        void *user = nullptr;
        int deliver(int32_t operate, void *object, int32_t phase = TQ_MOM_RECORD) const;
    };

    void *find_symbol(const char *name);
    void deliver_mac(int32_t operate, const MacBytes &mac, uint32_t ifx);
    void deliver_oui(int32_t operate, const Oui &oui);
    void deliver_configuration();
    void answer(const Request &request);
    void answer_scan(const Request &request);
    void remember(const Request &request);

    Configuration configuration_;
    void *library_;
    uint32_t (*mac_table_size_)();
    Subscriber macs_, ouis_, ports_, noties_;

    MacBytes mac_bytes_{};
    PLibpub__Mac mac_;
    UBridge__UdpL2addrBaseIndex mac_index_;
    UBridge__MacVidRegNoti mac_noti_;
    SBridge__VvlanIndex noty_index_;
    SBridge__VvlanPortNoty noty_;
};

} // namespace vvl::bench
