// The system that is watched: the real module in the real agent, with the
// in-process store, the manager and the software plane, on a virtual clock.
// The packet and bridge sides are left out; what they would write comes from
// the walk, through a store client of its own. Takes the same events as the
// model, and is printed in the same form.
#pragma once

#include "platform/base/virtual_loop.h"
#include "platform/fp/manager.h"
#include "platform/fp/soft/plane_soft.h"
#include "platform/host/agent.h"
#include "platform/mom/store.h"
#include "tests/walk/objects.h"
#include "tests/walk/page.h"

#include <memory>
#include <vector>

namespace vvl::walk
{

class Observed final : private mom::SessionEvents
{
  public:
    explicit Observed(std::vector<host::PortId> ports);
    ~Observed() override;

    // ---- Events, as of the model ----
    void set_global(const GlobalObject &object);
    void delete_global() { write(Op::remove, db_config, "p_bridge.vvlan_glb_cfg", ""); }
    void write_oui(Op op, const OuiObject &oui) { write(op, db_config, "p_bridge.vvlan_oui_cfg", oui); }
    void write_port(Op op, const PortObject &port);
    void write_port_noti(Op op, uint32_t phyid);
    void write_mac(Op op, const NotiObject &noti);
    void write_own(Op op, Own type, uint32_t key);

    void start(); // ends the process, after a line on standard error, where the module cannot be loaded
    void stop();
    void set_link(uint32_t db, bool up);
    void settle() { loop_.run_pending(); }
    void advance(uint64_t seconds) { loop_.advance(seconds * 1000000); }

    void print(Page &page);

  private:
    struct Module; // what is read of the loaded module

    void link_lost(uint32_t) override {}
    void link_back(uint32_t, bool) override {}
    void changed(const mom::Change &) override {}

    using Values = std::vector<std::pair<const char *, uint32_t>>; // by field name
    void write(Op op, uint32_t db, const char *type, const std::string &key, const Values &values = {});
    std::vector<mom::Object> list(uint32_t db, const char *type);
    void print_module(Page &page) const;
    void print_ouis(Page &page) const;
    void print_store(Page &page);

    const std::vector<host::PortId> ports_;
    VirtualLoop loop_;
    std::unique_ptr<mom::Store> store_;
    fp::SoftPlane plane_;
    fp::Manager manager_;
    host::Agent agent_;
    std::unique_ptr<mom::Session> reader_;
    int client_ = 0; // its address is the walk's store client
    std::unique_ptr<Module> module_;
};

} // namespace vvl::walk
