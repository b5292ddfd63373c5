// The model's links to the store, and the cycles that bring the module into
// line after a start or a lost link.
//
// Deliveries come in the order in which the store carried things out. A scan
// shows the moment at which it was asked for. A subscription that is made
// again is told of what it knew and is gone.
#include "tests/walk/model.h"

#include <algorithm>

namespace vvl::walk
{

// ---- Links ----

void Model::post(uint32_t db, std::function<void()> task)
{
    queue_.push_back([this, db, generation = links_[db].generation, task = std::move(task)] {
        if (links_[db].generation == generation) {
            task();
        }
    });
}

void Model::await_answer(uint32_t db)
{
    links_[db].waiting = true;
    post(db, [this, db] {
        links_[db].waiting = false;
        connected(db);
    });
}

bool Model::any_cut() const
{
    return std::any_of(std::begin(links_), std::end(links_), [](const Link &link) { return link.cut; });
}

void Model::start()
{
    loaded_ = true;
    for (const uint32_t db : databases) {
        links_[db] = {};
        await_answer(db);
    }
}

void Model::stop()
{
    loaded_ = false;
    queue_.clear();
    state_ = {};
    ouis_.forget();
    ports_.forget();
    macs_.forget();
    for (Link &link : links_) {
        link = {};
    }
}

void Model::set_link(uint32_t db, bool up)
{
    links_[db].cut = !up;
    if (!up) {
        links_[db].generation++;
        queue_.push_back([this, db] { links_[db].ready = false; });
        return;
    }
    queue_.push_back([this, db] {
        if (db == db_config) {
            ouis_.established = ports_.established = false;
            state_.established_fields.clear();
        } else if (db == db_status) {
            state_.notis_established = false;
        } else if (db == db_address) {
            macs_.established = false;
        }
        connected(db);
    });
    if (links_[db].waiting) {
        await_answer(db);
    }
}

void Model::settle()
{
    while (!queue_.empty()) {
        auto task = std::move(queue_.front());
        queue_.pop_front();
        task();
    }
}

void Model::advance(uint64_t seconds)
{
    constexpr uint64_t scan_interval = 60;
    settle();
    const uint64_t end = now_ + seconds;
    while (state_.initialised && state_.timer_due <= end) {
        if (state_.enable) {
            for (const uint32_t ifx : state_.order.keys()) {
                age_port(ifx);
            }
        }
        settle();
        state_.timer_due += scan_interval;
    }
    now_ = end;
}

// ---- Start-up ----

void Model::connected(uint32_t db)
{
    links_[db].ready = true;
    if (std::all_of(std::begin(databases), std::end(databases), [&](uint32_t id) { return links_[id].ready; })) {
        initialise();
    }
}

void Model::initialise()
{
    auto &s = state_;
    if (!s.initialised) {
        s.age_time = 1440;
        s.cos = 6;
        s.dscp = 46;
        plane_.mark_all();
        s.timer_due = now_ + 60;
        s.initialised = true;
    } else {
        s.over = {};
        s.recovery.clear();
    }
    for (const auto &join : own(Own::join)) {
        s.recovery.insert(static_cast<uint32_t>(std::stoul(join.first)));
    }
    subscribe(ouis_, {Own::oui}, &Model::scan_ouis);
    for (const uint32_t field : {field_switch, field_security, field_age, field_qos}) {
        subscribe_field(field);
    }
    subscribe(ports_, {Own::join, Own::port_auto, Own::trap}, &Model::scan_ports);
    subscribe_notis();
}

void Model::scan_ouis()
{
    if (!reachable(db_config)) {
        return;
    }
    post(db_config, [this, present = ouis_.stored] {
        tell_all(ouis_, present);
        if (reachable(db_own)) {
            sweep(Own::oui);
            finish(oui_scan);
        }
    });
}

void Model::scan_ports()
{
    if (!reachable(db_config)) {
        return;
    }
    post(db_config, [this, present = ports_.stored] {
        tell_all(ports_, present);
        if (!reachable(db_own)) {
            return;
        }
        sweep(Own::join);
        if (!reachable(db_config)) {
            return;
        }
        sweep(Own::port_auto);
        sweep(Own::trap);
        finish(port_scan);
    });
}

void Model::subscribe_field(uint32_t field)
{
    post(db_config, [this, field] {
        state_.established_fields.insert(field);
        post(db_config, [this, field, present = stored_global_] {
            if (const auto value = present.find(field); value != present.end()) {
                global_event(field, value->second);
            }
            if (field == field_switch) {
                finish(global_scan);
            }
        });
    });
}

void Model::subscribe_notis()
{
    post(db_status, [this] {
        state_.notis_established = true;
        post(db_status, [this, present = port_notis_] {
            for (const auto &noti : present) {
                port_noti_event(noti.second);
            }
            finish(noti_scan);
        });
    });
}

void Model::mark(Own type)
{
    for (auto &object : own(type)) {
        object.second.marked = true;
    }
}

void Model::sweep(Own type)
{
    std::erase_if(own(type), [](const auto &object) { return object.second.marked; });
}

void Model::finish(Scan scan)
{
    state_.over[scan] = true;
    if (std::ranges::all_of(state_.over, std::identity{})) {
        plane_.sweep();
    }
}

// ---- Subscriptions ----

// Whether a change reaches the module when it arrives.
template <typename Object> bool Model::hears(const Feed<Object> &feed, const Object &object) const
{
    if constexpr (std::is_same_v<Object, NotiObject>) {
        if (!state_.mac_vlan || (*state_.mac_vlan != 0 && *state_.mac_vlan != object.vlan)) {
            return false;
        }
    }
    return feed.established;
}

// A removal says what the object was by what was told last; a subscriber that
// was never told gets the key alone, and so port 0 of a learned address.
template <typename Object> void Model::write(Feed<Object> &feed, Op op, const Object &object)
{
    const std::string key = key_of(object);
    if (op == Op::publish) {
        return; // counts only where it is stored
    }
    if (op == Op::set) {
        feed.stored[key] = object;
    } else if (feed.stored.erase(key) == 0) {
        return;
    }
    if (!reachable(feed.db)) {
        return;
    }
    post(feed.db, [this, &feed, op, key, object] {
        if (!hears(feed, object)) {
            return;
        }
        if (op == Op::set) {
            feed.told[key] = object;
            (this->*feed.event)(true, object);
            return;
        }
        const auto told = feed.told.extract(key);
        (this->*feed.event)(false, told.empty() ? object : told.mapped());
    });
}

template <typename Object> void Model::tell_all(Feed<Object> &feed, const std::map<std::string, Object> &present)
{
    for (const auto &[key, object] : present) {
        feed.told[key] = object;
        (this->*feed.event)(true, object);
    }
}

template <typename Object> void Model::tell_of_gone(Feed<Object> &feed, const std::map<std::string, Object> &present)
{
    const auto told = feed.told;
    for (const auto &[key, object] : told) {
        if (!present.contains(key)) {
            feed.told.erase(key);
            (this->*feed.event)(false, object);
        }
    }
}

// The module's own objects of a cycle are marked when the subscription stands.
template <typename Object> void Model::subscribe(Feed<Object> &feed, std::set<Own> cycle, void (Model::*scan)())
{
    post(feed.db, [this, &feed, cycle, scan] {
        feed.established = true;
        if (reachable(db_own)) {
            for (const Own type : cycle) {
                mark(type);
            }
            post(db_own, [this, scan] { (this->*scan)(); });
        }
    });
    if (feed.made) {
        post(feed.db, [this, &feed, present = feed.stored] { tell_of_gone(feed, present); });
    }
    feed.made = true;
}

template void Model::write(Feed<OuiObject> &, Op, const OuiObject &);
template void Model::write(Feed<PortObject> &, Op, const PortObject &);
template void Model::write(Feed<NotiObject> &, Op, const NotiObject &);

void Model::set_global(const GlobalObject &object)
{
    for (const auto &[field, value] : object) {
        stored_global_[field] = value;
    }
    if (reachable(db_config)) {
        post(db_config, [this, object] {
            for (const auto &[field, value] : object) {
                if (state_.established_fields.contains(field)) {
                    global_event(field, value);
                }
            }
        });
    }
}

void Model::write_port_noti(Op op, uint32_t phyid)
{
    const std::string key = std::to_string(phyid);
    if (op == Op::remove) {
        port_notis_.erase(key);
        return;
    }
    if (op == Op::set) {
        port_notis_[key] = phyid;
    }
    if (reachable(db_status)) {
        post(db_status, [this, phyid] {
            if (state_.notis_established) {
                port_noti_event(phyid);
            }
        });
    }
}

void Model::write_own(Op op, Own type, uint32_t key)
{
    if (op == Op::set) {
        set_own(type, key, type == Own::port_auto ? "0" : "");
    } else {
        delete_own(type, key);
    }
}

void Model::set_own(Own type, uint32_t key, std::string value)
{
    own(type)[std::to_string(key)] = {std::move(value), false};
}

// ---- Learned addresses ----

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
        macs_.forget();
    }
    post(db_address, [this, serial = s.mac_serial] {
        if (state_.mac_vlan && state_.mac_serial == serial) {
            macs_.established = true;
            for (auto &registration : registrations_) {
                registration.second.marked = true;
            }
            post(db_address, [this] { registration_open(); });
        }
    });
    if (again) {
        post(db_address, [this, serial = s.mac_serial, present = macs_.stored] {
            if (state_.mac_vlan && state_.mac_serial == serial) {
                tell_of_gone(macs_, present);
            }
        });
    }
}

void Model::withdraw_macs()
{
    post(db_address, [this, vlan = *state_.mac_vlan] { registrations_.erase(std::to_string(vlan)); });
    state_.mac_vlan.reset();
}

void Model::registration_open()
{
    const uint32_t vlan = state_.mac_vlan.value_or(state_.vid);
    registrations_[std::to_string(vlan)] = {};
    std::erase_if(registrations_, [](const auto &registration) { return registration.second.marked; });
    scan_macs(0);
}

void Model::scan_macs(uint32_t ifx)
{
    if (!reachable(db_address)) {
        return;
    }
    auto present = macs_.stored;
    std::erase_if(present, [&](const auto &noti) { return state_.vid != 0 && noti.second.vlan != state_.vid; });
    post(db_address, [this, ifx, present = std::move(present)] {
        for (const auto &[key, noti] : present) {
            const auto vlan = state_.mac_vlan;
            if (vlan && (*vlan == 0 || *vlan == noti.vlan)) {
                macs_.told[key] = noti;
            }
            if (ifx == 0 || ifx == noti.port) {
                mac_event(true, noti);
            }
        }
        for (auto &port : state_.ports) {
            if (port.second.macs.empty()) {
                mark_macless(port.second);
            }
        }
    });
}

} // namespace vvl::walk
