// What the observer reads of the loaded module. The symbols are looked up
// after each load and hold no reference to the library, which has to be able
// to go.
#pragma once

#include "udp_vvlan_glb_cfg.h"
#include "udp_vvlan_mac.h"
#include "udp_vvlan_oui.h"
#include "udp_vvlan_port.h"
#include "udp_vvlan_recover.h"

#include <string>

namespace vvl::walk
{

struct ModuleSymbols {
    // False, after a line on standard error, where the module is not loaded or
    // lacks a symbol.
    bool find(const std::string &path);

    const vvlan_glb_cfg_t *global = nullptr;
    const vvlan_list_t *oui_buckets = nullptr;
    const uint8_t *ace_ids = nullptr;
    const uint8_t *over[4] = {}; // of OUIs, ports, the global configuration and port notifications
    uint32_t *log_level = nullptr;
    int (*walk_ports)(int (*)(vvlan_port_t *, void *), void *) = nullptr;
    uint32_t (*mac_count)() = nullptr;
    vvlan_mac_t *(*find_mac)(const uint8_t *) = nullptr;
    int (*walk_recovery)(int (*)(vvlan_recover_t *, void *), void *) = nullptr;
};

} // namespace vvl::walk
