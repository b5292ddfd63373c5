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

bool Model::start()
{
    loaded_ = true;
    for (const uint32_t db : databases) {
        links_[db] = {};
        links_[db].waiting = 1;
        post(db, [this, db] {
            links_[db].waiting = 0;
            connected(db);
        });
    }
    return true;
}

void Model::stop()
{
    loaded_ = false;
    queue_.clear();
    state_ = {};
    for (Link &link : links_) {
        link = {};
    }
}

void Model::cut(uint32_t db)
{
    links_[db].cut = true;
    links_[db].generation++;
    queue_.push_back([this, db] { links_[db].ready = false; });
}

void Model::restore(uint32_t db)
{
    links_[db].cut = false;
    queue_.push_back([this, db] {
        auto &s = state_;
        if (db == db_config) {
            s.oui_subscription.established = false;
            s.port_subscription.established = false;
            for (auto &field : s.field_subscriptions) {
                field.second.established = false;
            }
        } else if (db == db_status) {
            s.noti_subscription.established = false;
        } else if (db == db_address) {
            s.mac_subscription.established = false;
        }
        connected(db);
    });
    if (links_[db].waiting > 0) {
        post(db, [this, db] {
            links_[db].waiting = 0;
            connected(db);
        });
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
        store_.packet_library = true;
        s.timer_due = now_ + 60;
        s.initialised = true;
    } else {
        s.oui_over = s.port_over = s.global_over = s.noti_over = false;
        s.recovery.clear();
    }
    for (const auto &join : store_.at(Own::join)) {
        s.recovery.insert(static_cast<uint32_t>(std::stoul(join.first)));
    }
    subscribe_all();
}

void Model::subscribe_all()
{
    subscribe_ouis();
    for (const uint32_t field : {field_switch, field_security, field_age, field_qos}) {
        subscribe_field(field);
    }
    subscribe_ports();
    subscribe_notis();
}

void Model::subscribe_ouis()
{
    auto &subscription = state_.oui_subscription;
    post(db_config, [this] {
        state_.oui_subscription.established = true;
        if (reachable(db_own)) {
            mark(store_.at(Own::oui));
            post(db_own, [this] { scan_ouis(); });
        }
    });
    if (subscription.made) {
        post(db_config, [this, present = store_.ouis] {
            const auto told = state_.oui_subscription.told;
            for (const auto &[key, oui] : told) {
                if (!present.contains(key)) {
                    state_.oui_subscription.told.erase(key);
                    oui_event(false, oui);
                }
            }
        });
    }
    subscription.made = true;
}

void Model::scan_ouis()
{
    if (!reachable(db_config)) {
        return;
    }
    post(db_config, [this, present = store_.ouis] {
        for (const auto &[key, oui] : present) {
            state_.oui_subscription.told[key] = oui;
            oui_event(true, oui);
        }
        if (reachable(db_own)) {
            sweep(store_.at(Own::oui));
            state_.oui_over = true;
            sweep_plane();
        }
    });
}

void Model::subscribe_field(uint32_t field)
{
    post(db_config, [this, field] {
        state_.field_subscriptions[field].established = true;
        post(db_config, [this, field, present = store_.global] {
            if (present && present->fields.contains(field)) {
                global_event(field, *present);
            }
            if (field == field_switch) {
                state_.global_over = true;
                sweep_plane();
            }
        });
    });
}

void Model::subscribe_ports()
{
    auto &subscription = state_.port_subscription;
    post(db_config, [this] {
        state_.port_subscription.established = true;
        if (!reachable(db_own)) {
            return;
        }
        mark(store_.at(Own::join));
        mark(store_.at(Own::port_auto));
        mark(store_.at(Own::trap));
        post(db_own, [this] { scan_ports(); });
    });
    if (subscription.made) {
        post(db_config, [this, present = store_.ports] {
            const auto told = state_.port_subscription.told;
            for (const auto &[key, port] : told) {
                if (!present.contains(key)) {
                    state_.port_subscription.told.erase(key);
                    port_removed(port.ifx);
                }
            }
        });
    }
    subscription.made = true;
}

void Model::scan_ports()
{
    if (!reachable(db_config)) {
        return;
    }
    post(db_config, [this, present = store_.ports] {
        for (const auto &[key, port] : present) {
            state_.port_subscription.told[key] = port;
            port_event(port);
        }
        if (!reachable(db_own)) {
            return;
        }
        sweep(store_.at(Own::join));
        if (!reachable(db_config)) {
            return;
        }
        sweep(store_.at(Own::port_auto));
        sweep(store_.at(Own::trap));
        state_.port_over = true;
        sweep_plane();
    });
}

void Model::subscribe_notis()
{
    post(db_status, [this] {
        state_.noti_subscription.established = true;
        post(db_status, [this, present = store_.port_notis] {
            for (const auto &noti : present) {
                port_noti_event(noti.second);
            }
            state_.noti_over = true;
            sweep_plane();
        });
    });
}

void Model::sweep_plane()
{
    if (state_.oui_over && state_.port_over && state_.global_over && state_.noti_over) {
        plane_.sweep();
    }
}

} // namespace vvl::walk
