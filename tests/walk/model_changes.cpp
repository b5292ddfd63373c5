// The model's store in use: what others write and how it reaches the module,
// and the module's subscription to learned addresses, which follows the voice
// VLAN. A change reaches a subscription that is established when it arrives.
#include "tests/walk/model.h"

namespace vvl::walk
{

// ---- Changes ----

void Model::set_global_fields(const GlobalObject &object)
{
    GlobalObject stored = store_.global.value_or(GlobalObject{});
    stored.fields.insert(object.fields.begin(), object.fields.end());
    for (const uint32_t field : object.fields) {
        if (field == field_switch) {
            stored.glb_switch = object.glb_switch;
        } else if (field == field_security) {
            stored.secu_mode = object.secu_mode;
        } else if (field == field_age) {
            stored.age_time = object.age_time;
        } else {
            stored.qos = object.qos;
        }
    }
    change_global(stored, object.fields);
}

void Model::set_global(const GlobalObject &object)
{
    GlobalObject stored = object;
    stored.fields.clear();
    if (object.glb_switch) {
        stored.fields.insert(field_switch);
    }
    if (object.secu_mode != 0) {
        stored.fields.insert(field_security);
    }
    if (object.age_time != 0) {
        stored.fields.insert(field_age);
    }
    if (object.qos) {
        stored.fields.insert(field_qos);
    }
    std::set<uint32_t> touched = stored.fields;
    if (store_.global) {
        touched.insert(store_.global->fields.begin(), store_.global->fields.end());
    }
    change_global(stored, touched);
}

void Model::change_global(GlobalObject object, std::set<uint32_t> fields)
{
    store_.global = object;
    if (!reachable(db_config)) {
        return;
    }
    post(db_config, [this, object = std::move(object), fields = std::move(fields)] {
        for (const auto &[field, subscription] : state_.field_subscriptions) {
            if (subscription.established && fields.contains(field)) {
                global_event(field, object);
            }
        }
    });
}

void Model::set_oui(const OuiObject &oui)
{
    const std::string key = key_of(oui);
    store_.ouis[key] = oui;
    if (reachable(db_config)) {
        post(db_config, [this, key, oui] {
            if (state_.oui_subscription.established) {
                state_.oui_subscription.told[key] = oui;
                oui_event(true, oui);
            }
        });
    }
}

void Model::delete_oui(const OuiObject &oui)
{
    const std::string key = key_of(oui);
    if (store_.ouis.erase(key) > 0 && reachable(db_config)) {
        post(db_config, [this, key, oui] {
            if (state_.oui_subscription.established) {
                state_.oui_subscription.told.erase(key);
                oui_event(false, oui);
            }
        });
    }
}

void Model::set_port(const PortObject &port)
{
    const std::string key = std::to_string(port.ifx);
    store_.ports[key] = port;
    if (reachable(db_config)) {
        post(db_config, [this, key, port] {
            if (state_.port_subscription.established) {
                state_.port_subscription.told[key] = port;
                port_event(port);
            }
        });
    }
}

void Model::delete_port(uint32_t ifx)
{
    const std::string key = std::to_string(ifx);
    if (store_.ports.erase(key) > 0 && reachable(db_config)) {
        post(db_config, [this, key, ifx] {
            if (state_.port_subscription.established) {
                state_.port_subscription.told.erase(key);
                port_removed(ifx);
            }
        });
    }
}

void Model::set_port_noti(uint32_t phyid)
{
    store_.port_notis[std::to_string(phyid)] = phyid;
    publish_port_noti(phyid);
}

void Model::publish_port_noti(uint32_t phyid)
{
    if (reachable(db_status)) {
        post(db_status, [this, phyid] {
            if (state_.noti_subscription.established) {
                port_noti_event(phyid);
            }
        });
    }
}

void Model::set_own(Own type, uint32_t key)
{
    store_.at(type)[std::to_string(key)] = {type == Own::port_auto ? port_auto_text(0) : "", false};
}

// ---- Learned addresses ----

void Model::set_mac(const NotiObject &noti)
{
    const std::string key = key_of(noti);
    store_.mac_notis[key] = noti;
    if (reachable(db_address)) {
        post(db_address, [this, key, noti] {
            const auto vlan = state_.mac_vlan;
            if (vlan && state_.mac_subscription.established && (*vlan == 0 || *vlan == noti.vlan)) {
                state_.mac_subscription.told[key] = noti;
                mac_event(true, noti);
            }
        });
    }
}

// A removal says which port it was by what was told last; a subscriber that
// was never told gets the key alone, and so port 0.
void Model::delete_mac(const NotiObject &noti)
{
    const std::string key = key_of(noti);
    if (store_.mac_notis.erase(key) > 0 && reachable(db_address)) {
        post(db_address, [this, key, noti] {
            const auto vlan = state_.mac_vlan;
            if (!vlan || !state_.mac_subscription.established || (*vlan != 0 && *vlan != noti.vlan)) {
                return;
            }
            auto told = state_.mac_subscription.told.extract(key);
            NotiObject last = noti;
            last.port = told.empty() ? 0 : told.mapped().port;
            mac_event(false, last);
        });
    }
}

void Model::subscribe_macs(bool on)
{
    auto &s = state_;
    if (!reachable(db_address)) {
        return;
    }
    if (s.mac_vlan && (!on || *s.mac_vlan != s.vid)) {
        withdraw_macs();
    }
    if (!on) {
        return;
    }
    const bool again = s.mac_vlan.has_value();
    if (!again) {
        s.mac_vlan = s.vid;
        s.mac_serial++;
        s.mac_subscription = {};
    }
    post(db_address, [this, serial = s.mac_serial] {
        if (state_.mac_vlan && state_.mac_serial == serial) {
            state_.mac_subscription.established = true;
            for (auto &registration : store_.registrations) {
                registration.second = true;
            }
            post(db_address, [this] { registration_open(); });
        }
    });
    if (again) {
        post(db_address, [this, serial = s.mac_serial, present = store_.mac_notis] {
            const auto told = state_.mac_subscription.told;
            for (const auto &[key, noti] : told) {
                if (state_.mac_vlan && state_.mac_serial == serial && !present.contains(key)) {
                    state_.mac_subscription.told.erase(key);
                    mac_event(false, noti);
                }
            }
        });
    }
}

void Model::withdraw_macs()
{
    post(db_address, [this, vlan = *state_.mac_vlan] { store_.registrations.erase(std::to_string(vlan)); });
    state_.mac_vlan.reset();
}

void Model::registration_open()
{
    const uint32_t vlan = state_.mac_vlan.value_or(state_.vid);
    store_.registrations[std::to_string(vlan)] = false;
    std::erase_if(store_.registrations, [](const auto &registration) { return registration.second; });
    scan_macs(0);
}

void Model::scan_macs(uint32_t ifx)
{
    if (!reachable(db_address)) {
        return;
    }
    auto present = store_.mac_notis;
    std::erase_if(present, [&](const auto &noti) { return state_.vid != 0 && noti.second.vlan != state_.vid; });
    post(db_address, [this, ifx, present = std::move(present)] {
        for (const auto &[key, noti] : present) {
            const auto vlan = state_.mac_vlan;
            if (vlan && (*vlan == 0 || *vlan == noti.vlan)) {
                state_.mac_subscription.told[key] = noti;
            }
            if (ifx == 0 || ifx == noti.port) {
                mac_event(true, noti);
            }
        }
        mac_scan_over();
    });
}

void Model::mac_scan_over()
{
    for (auto &port : state_.ports) {
        if (port.second.macs.empty()) {
            mark_macless(port.second);
        }
    }
}

} // namespace vvl::walk
