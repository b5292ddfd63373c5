// The system that is watched: the real module in the real agent, with the
// in-process store, the manager and the software plane, on a virtual clock.
// The packet and bridge sides are left out; what they would write comes from
// the walk, through a store client of its own. Takes the same events as the
// model, and is printed in the same form.
#pragma once

#include "platform/base/virtual_loop.h"
#include "platform/fp/manager.h"
#include "platform/fp/plane_soft.h"
#include "platform/host/agent.h"
#include "platform/mom/messages.h"
#include "platform/mom/store.h"
#include "tests/walk/model_plane.h"
#include "tests/walk/model_store.h"
#include "tests/walk/objects.h"
#include "tests/walk/page.h"

#include <memory>
#include <string>
#include <vector>

namespace vvl::walk
{

struct ModuleSymbols; // what is read of the loaded module

class Observed final : private mom::SessionEvents
{
  public:
    explicit Observed(std::vector<host::PortId> ports);
    ~Observed() override;

    // ---- Events, as of the model ----
    void set_global_fields(const GlobalObject &object);
    void set_global(const GlobalObject &object);
    void delete_global();
    void set_oui(const OuiObject &oui) { write_oui(oui, true); }
    void delete_oui(const OuiObject &oui) { write_oui(oui, false); }
    void set_port(const PortObject &port) { write_port(port, true); }
    void delete_port(uint32_t ifx) { write_port({ifx, 0, 0}, false); }
    void set_port_noti(uint32_t phyid);
    void publish_port_noti(uint32_t phyid);
    void delete_port_noti(uint32_t phyid);
    void set_mac(const NotiObject &noti);
    void delete_mac(const NotiObject &noti);
    void publish_mac(const NotiObject &noti);
    void set_own(Own type, uint32_t key) { write_own(type, key, true); }
    void delete_own(Own type, uint32_t key) { write_own(type, key, false); }

    bool start(); // false, after a line on standard error, where the module cannot be loaded
    void stop();
    void cut(uint32_t db) { set_link(db, false); }
    void restore(uint32_t db) { set_link(db, true); }
    void settle() { loop_.run_pending(); }
    void advance(uint64_t seconds) { loop_.advance(seconds * 1000000); }

    void print(Page &page);

  private:
    void link_lost(uint32_t) override {}
    void link_back(uint32_t, bool) override {}
    void changed(const mom::Change &) override {}

    void write_oui(const OuiObject &oui, bool present);
    void write_port(const PortObject &port, bool present);
    void write_own(Own type, uint32_t key, bool present);
    void set_link(uint32_t db, bool up);
    std::vector<mom::Object> list(uint32_t db, const char *type);
    void print_module(Page &page) const;
    void print_ouis(Page &page) const;
    void print_store(Page &page);
    void print_own(Page &page, Own type);
    void print_plane(Page &page) const;

    const std::vector<host::PortId> ports_;
    VirtualLoop loop_;
    std::unique_ptr<mom::Store> store_;
    fp::SoftPlane plane_;
    fp::Manager manager_;
    host::Agent agent_;
    std::unique_ptr<mom::Session> reader_;
    int client_ = 0; // its address is the walk's store client
    std::unique_ptr<ModuleSymbols> module_;
};

} // namespace vvl::walk
