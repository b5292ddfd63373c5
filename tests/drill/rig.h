// A switch on the real clock and a store of the drill's choice, driven by an
// operator's lines and voice frames, and pictured as text: module tables,
// forwarding plane and what the store holds.
#pragma once

#include "platform/fp/soft/plane_soft.h"
#include "platform/host/switch.h"
#include "platform/host/uv_loop.h"
#include "platform/mom/store.h"
#include "platform/operator/operator.h"

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace vvl::drill
{

constexpr uint64_t patience_ms = 20'000; // for anything that a drill waits for

class Rig : private mom::SessionEvents
{
  public:
    // has_sides: whether packet and bridge side run beside the agent.
    explicit Rig(std::unique_ptr<mom::Store> store, bool has_sides = true);
    ~Rig() override;

    // Runs the loop until done, or for limit_ms; returns whether it is done.
    bool run_until(const std::function<bool()> &done, uint64_t limit_ms = patience_ms);
    void run_for(uint64_t ms);

    // Writes the line as often as it takes until the store has answered for it.
    void carry_out(const std::string &line);
    void carry_out(const std::vector<std::string> &lines);
    // Writes it and does not wait; what becomes of it is uncertain.
    void try_once(const std::string &line);

    // A telephone's frame enters the port.
    void call(uint32_t ifx);

    // All telephones call until the picture is the wanted one, or for a while;
    // returns what it is at the end. A port that nobody has called shows in the
    // module's bits how often the module was initialised (docs/behaviour.md), so
    // pictures are compared when everybody has called.
    std::string picture_like(const std::string &wanted);
    std::string picture();
    void call_all();

    size_t returns() const { return returns_; } // of the store, with changes missed
    fp::SoftPlane &plane() { return static_cast<fp::SoftPlane &>(switch_.plane()); }
    host::UvLoop &loop() { return loop_; }

  private:
    void link_lost(uint32_t) override { losses_++; }
    void link_back(uint32_t, bool missed) override { returns_ += missed; }
    void changed(const mom::Change &) override {}
    bool make_operator();
    bool write(const std::string &line);

    host::UvLoop loop_;
    host::Switch switch_;
    std::unique_ptr<mom::Session> reader_;
    std::unique_ptr<host::Operator> operator_;
    host::Grammar grammar_;
    size_t losses_ = 0;
    size_t returns_ = 0;
};

// The picture after these lines with nothing going wrong.
std::string fault_free(const std::vector<std::string> &lines);

// What the drills configure: a voice VLAN, two OUIs and four automatic ports.
extern const std::vector<std::string> base_lines;

} // namespace vvl::drill
