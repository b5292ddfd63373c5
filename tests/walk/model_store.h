// What the object store holds, as far as the walk goes: what others write, and
// what the module writes, with the marks of its data-sync cycles.
#pragma once

#include "tests/walk/objects.h"
#include "tests/walk/page.h"

#include <array>
#include <map>
#include <vector>

namespace vvl::walk
{

// The module's own keyed objects, but for the registrations.
enum class Own { port_auto, join, trap, oui };
constexpr size_t own_count = 4;

struct OwnObject {
    std::string value; // as printed
    bool marked = false;
};

// By the text of the key.
using OwnObjects = std::map<std::string, OwnObject>;

struct ModelStore {
    // Written by others.
    std::optional<GlobalObject> global;
    std::map<std::string, OuiObject> ouis;
    std::map<std::string, PortObject> ports;
    std::map<std::string, uint32_t> port_notis; // phyid
    std::map<std::string, NotiObject> mac_notis;

    // Written by the module.
    std::array<OwnObjects, own_count> own;
    std::map<std::string, bool> registrations; // u_bridge.mac_vid_reg: marked
    std::string error_event;                   // as printed; empty: none
    bool packet_library = false;               // s_cluster.reg_pkt_info

    OwnObjects &at(Own type) { return own[static_cast<size_t>(type)]; }
    void print(Page &page) const;
};

// The words that stand for the types, by Own.
extern const char *const own_words[own_count];

void mark(OwnObjects &objects);
void sweep(OwnObjects &objects);

// The values of the module's objects as printed, with a space in front.
std::string port_auto_text(uint32_t enable);
std::string oui_text(const Mac &mac, const Mac &mask);
std::string port_error_text(uint32_t ifx);
std::string oui_error_text(const Mac &mac, const Mac &mask);

} // namespace vvl::walk
