// How the model is printed: the module's tables in the order in which the
// module keeps them, then the store and the plane.
#include "tests/walk/model.h"

namespace vvl::walk
{
namespace
{

constexpr uint32_t bucket_count = 16;

// OUIs are kept in buckets: by the sum of the bytes under the mask.
uint32_t bucket_of(const Mac &mac, const Mac &mask)
{
    uint32_t sum = 0;
    for (size_t i = 0; i < mac.size(); i++) {
        sum += mac[i] & mask[i];
    }
    return sum % bucket_count;
}

} // namespace

void Model::print(Page &page) const
{
    page.line("loaded").number(loaded_);
    if (loaded_) {
        print_settings(page);
        print_ouis(page);
        print_ports(page);
        page.line("macs").number(state_.macs.size());
        for (const uint32_t ifx : state_.recovery) {
            page.line("recovery").number(ifx);
        }
    }
    store_.print(page);
    plane_.print(page);
}

void Model::print_settings(Page &page) const
{
    const State &s = state_;
    page.line("global").number(s.vid).number(s.enable).number(s.age_time).number(s.secu_mode);
    page.number(s.cos).number(s.dscp);
    for (const fp::Acl which : {fp::Acl::voice, fp::Acl::mac_vlan, fp::Acl::security}) {
        page.number(s.acls[static_cast<size_t>(which)].created);
    }
    page.line("over").number(s.oui_over).number(s.port_over).number(s.global_over).number(s.noti_over);
}

void Model::print_ouis(Page &page) const
{
    std::vector<const Oui *> buckets[bucket_count];
    for (const Oui &oui : state_.ouis) {
        buckets[bucket_of(oui.mac, oui.mask)].push_back(&oui);
    }
    for (uint32_t bucket = 0; bucket < bucket_count; bucket++) {
        for (const Oui *oui : buckets[bucket]) {
            page.line("oui").number(bucket).mac(oui->mac).mac(oui->mask).number(oui->ace_id);
        }
    }
}

void Model::print_ports(Page &page) const
{
    for (const uint32_t ifx : state_.order.keys()) {
        const Port &port = state_.ports.at(ifx);
        page.line("port").number(ifx).number(port.phyid).number(port.vvlan_en).number(port.auto_mod);
        page.number(port.auto_join).number(port.deny_en).number(port.mac_aged).number(port.no_flw);
        for (const Mac &mac : port.macs) {
            page.mac(mac);
        }
    }
}

} // namespace vvl::walk
