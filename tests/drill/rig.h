// A switch on the real clock and a store of the drill's choice, driven by an
// operator's lines and voice frames. Its picture is text: the module's tables,
// the forwarding plane and what the store holds.
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

using Lines = std::vector<std::string>; // an operator's

// A voice VLAN, two OUIs and four automatic ports.
extern const Lines base_lines;

std::unique_ptr<mom::Store> redis_store(const std::string &address);

// Asks the store for what the line says. False where the store refuses it.
bool write_line(oper::Operator &op, const std::string &line);

// Runs the loop until done, or for limit_ms. Returns whether it is done.
bool run_until(host::UvLoop &loop, const std::function<bool()> &done, uint64_t limit_ms = patience_ms);
void run_for(host::UvLoop &loop, uint64_t us);

class Rig : private mom::SessionEvents
{
  public:
    // has_sides: whether packet and bridge side run beside the agent.
    explicit Rig(std::unique_ptr<mom::Store> store, bool has_sides = true);
    ~Rig() override { switch_.stop(); }

    bool run_until(const std::function<bool()> &done) { return drill::run_until(loop_, done); }
    void run_for(uint64_t ms) { drill::run_for(loop_, ms * 1000); }

    // Writes each line as often as it takes until the store has answered for it.
    void carry_out(const Lines &lines);
    // Writes the line and does not wait, so its result is uncertain. False where
    // the store refuses it.
    bool try_once(const std::string &line);

    // A telephone's frame enters the port.
    void call(uint32_t ifx);
    // All telephones call, and call again once they have joined.
    void call_all();

    std::string picture();
    // All telephones call until the picture is the wanted one, or patience_ms
    // have passed; returns the last picture. Pictures are compared when every
    // telephone has called, since a port without a call shows in the module's
    // bits how often the module was initialised (docs/behaviour.md).
    std::string picture_like(const std::string &wanted);

    size_t returns() const { return returns_; } // of the store's databases, with changes missed
    host::UvLoop &loop() { return loop_; }

  private:
    void link_lost(uint32_t) override { losses_++; }
    void link_back(uint32_t, bool missed) override { returns_ += missed; }
    void changed(const mom::Change &) override {}
    fp::SoftPlane &plane() { return static_cast<fp::SoftPlane &>(switch_.plane()); }

    host::UvLoop loop_;
    host::Switch switch_;
    std::unique_ptr<mom::Session> reader_;
    std::unique_ptr<oper::Operator> operator_; // null until it is needed, and after a loss
    size_t losses_ = 0;
    size_t returns_ = 0;
};

// The picture after these lines with nothing going wrong.
std::string fault_free(const Lines &lines, const Lines &before = base_lines);

} // namespace vvl::drill
