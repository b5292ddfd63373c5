// The fixture of all suites: each test loads a fresh module, drives it through
// its exported functions and the callbacks that it registers, and unloads it.
#pragma once

#include "tests/support/recording_platform.h"
#include "udp_vvlan.h"
#include "udp_vvlan_age.h"
#include "udp_vvlan_debug.h"
#include "udp_vvlan_ds.h"
#include "udp_vvlan_err.h"
#include "udp_vvlan_event.h"
#include "udp_vvlan_fp.h"
#include "udp_vvlan_glb_cfg.h"
#include "udp_vvlan_handler.h"
#include "udp_vvlan_mac.h"
#include "udp_vvlan_oui.h"
#include "udp_vvlan_port.h"
#include "udp_vvlan_recover.h"

#include <gtest/gtest.h>

#include <dlfcn.h>

namespace vvl::test
{

// A function or a variable of the loaded module, by its name in the headers.
#define MODULE(name) (*symbol<decltype(name)>(#name))

// Expectations of the calls (or log lines of a level) since the last look,
// separated by " / ". The failure shows them line by line.
#define EXPECT_CALLS(expected) EXPECT_EQ(calls(), by_line(expected))
#define EXPECT_LOGS(level, expected) EXPECT_EQ(logs(level), by_line(expected))

std::string by_line(std::string text);

// The lines that begin with one of the prefixes, one below the other.
std::string join(const Lines &lines, const Lines &prefixes = {""});

constexpr char oui_phone[] = "021122000000"; // the OUI that most tests configure
constexpr char mask24[] = "ffffff000000";

class ModuleTest : public testing::Test
{
  protected:
    ModuleTest();
    ~ModuleTest() override;

    template <typename T> T *symbol(const char *name)
    {
        void *address = dlsym(module_, name);
        if (address == nullptr) {
            ADD_FAILURE() << "the module does not export " << name;
            abort();
        }
        return reinterpret_cast<T *>(address);
    }

    void open();    // context and log, at the most talkative level
    void start();   // everything up to the first initialisation; its calls are forgotten
    void prepare(); // start, an OUI, voice VLAN 100, an automatic port 5
    void forget();  // the calls and the log lines
    void connect(uint32_t db);
    void connect_all();

    // Configuration and notifications through the handlers.
    int set_glb(uint32_t tag, const std::string &fields);
    int voice_vlan(uint32_t vid, uint32_t enable = 1)
    {
        return set_glb(5, "glb_switch{vlan:" + std::to_string(vid) + " enable:" + std::to_string(enable) + "}");
    }
    int set_oui(const std::string &mac, const std::string &mask, uint32_t add = 1)
    {
        return handle(MODULE(udp_vvlan_handler_set_oui_cfg), add, p_bridge__vvlan_oui_cfg__descriptor,
                      "{index{mac{data:" + mac + "} mask{data:" + mask + "}}}");
    }
    int set_port(uint32_t ifx, uint32_t enable, uint32_t mode, uint32_t add = 1)
    {
        return handle(MODULE(udp_vvlan_handler_set_port_cfg), add, p_bridge__vvlan_port_cfg__descriptor,
                      "{index{ifx:" + std::to_string(ifx) + "} enable:" + std::to_string(enable) +
                          " mode:" + std::to_string(mode) + "}");
    }
    int delete_port(uint32_t ifx) { return set_port(ifx, 0, 0, 0); }
    int notify_port(uint32_t ifx)
    {
        return handle(MODULE(udp_vvlan_handler_set_port_noti), 1, s_bridge__vvlan_port_noty__descriptor,
                      "{index{phyid:" + std::to_string(0x100 + ifx) + "}}");
    }
    int set_mac(const std::string &mac, uint32_t ifx, uint32_t add = 1)
    {
        return handle(MODULE(udp_vvlan_handler_set_mac_noti), add, u_bridge__mac_vid_reg_noti__descriptor,
                      "{index{t_fid:100 t_mac{data:" + mac + "}} port_id:" + std::to_string(ifx) + "}");
    }

    // Records for callbacks and decoders. The message lives until the next one.
    tq_mom_record_t record(int32_t operate, const ProtobufCMessageDescriptor &type, const std::string &fields,
                           int32_t phase = TQ_MOM_RECORD);

    vvlan_port_t *port(uint32_t ifx) { return MODULE(udp_vvlan_port_get)(ifx); }
    vvlan_glb_cfg_t &cfg() { return MODULE(g_udp_vvlan_glb_cfg); }
    // "EAJTM": vvlan_en, auto_mod, auto_join, deny_en, mac_aged; small: clear.
    std::string bits(uint32_t ifx);
    void set_bits(uint32_t ifx, const std::string &text);
    // The learned MACs of a port in list order, "021122000001@5 ".
    std::string macs_of(uint32_t ifx);

    std::string calls(const Lines &prefixes = {""}) { return join(std::exchange(platform().lines, {}), prefixes); }
    std::string logs(const std::string &level = "") { return join(std::exchange(platform().logs, {}), {level}); }

  private:
    template <typename Type>
    int handle(int (&handler)(uint32_t, const Type *), uint32_t add, const ProtobufCMessageDescriptor &descriptor,
               const std::string &fields)
    {
        return handler(add, static_cast<const Type *>(record(0, descriptor, fields).object));
    }

    void *module_;
    Message message_; // of record
};

inline tq_mom_record_t bare_record(int32_t operate, int32_t phase = TQ_MOM_RECORD, int32_t error = 0)
{
    return {operate, nullptr, phase, error};
}

} // namespace vvl::test
