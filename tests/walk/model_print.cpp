// How the model is printed: the module's tables, then the store and the plane.
#include "tests/walk/model.h"

#include <numeric>

namespace vvl::walk
{

std::string oui_text(const Mac &mac, const Mac &mask)
{
    return to_text(mac) + "/" + to_text(mask);
}

void Model::print(Page &page) const
{
    page.line("loaded", loaded_);
    if (loaded_) {
        print_module(page);
    }
    for (size_t type = 0; type < own_count; type++) {
        for (const auto &[key, object] : own_[type]) {
            page.line(own_words[type], key, object.value);
        }
    }
    for (const auto &registration : registrations_) {
        page.line("registration", registration.first);
    }
    page.line("error_event", error_event_);
    plane_.print(page);
}

void Model::print_module(Page &page) const
{
    const State &s = state_;
    print_global(page, s);
    for (const fp::Acl which : {fp::Acl::voice, fp::Acl::mac_vlan, fp::Acl::security}) {
        page.add(s.acls[static_cast<size_t>(which)].created);
    }
    page.line("over", s.over[oui_scan], s.over[port_scan], s.over[global_scan], s.over[noti_scan]);
    // OUIs are kept in buckets, by the sum of the bytes under the mask.
    constexpr uint32_t bucket_count = 16;
    for (uint32_t bucket = 0; bucket < bucket_count; bucket++) {
        for (const Oui &oui : s.ouis) {
            const Mac key = masked(oui.mac, oui.mask);
            if (std::accumulate(key.begin(), key.end(), 0u) % bucket_count == bucket) {
                page.line("oui", bucket, oui.mac, oui.mask, oui.ace_id);
            }
        }
    }
    for (const auto &[ifx, port] : s.ports) {
        print_port(page, ifx, port);
        for (const Mac &mac : port.macs) {
            page.add(mac);
        }
    }
    page.line("macs", s.macs.size());
    for (const uint32_t ifx : s.recovery) {
        page.line("recovery", ifx);
    }
}

} // namespace vvl::walk
