#include "tests/drill/rig.h"

#include "platform/mom/local/store_local.h"
#include "platform/mom/redis/store_redis.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <iomanip>
#include <sstream>

namespace vvl::drill
{
namespace
{

constexpr uint32_t uplink = 9;
constexpr uint64_t look_us = 2000; // between looks at what a drill waits for

host::SwitchConfig drill_switch(bool has_sides)
{
    host::SwitchConfig config;
    config.module = host::default_module_path();
    for (uint32_t ifx = 1; ifx <= 4; ifx++) {
        config.ports.push_back({ifx, 0x100 + ifx, 1, false});
    }
    config.ports.push_back({uplink, 0x100 + uplink, 1, true});
    config.has_sides = has_sides;
    return config;
}

// Without the ACE id: ids follow the order of arrival, which a restart changes.
std::string rule_text(size_t acl, const fp::Rule &rule)
{
    std::ostringstream text;
    text << "rule " << acl << ' ' << to_text(rule.mac) << '/' << to_text(rule.mask) << " vid " << rule.vid << '/'
         << rule.vid_mask << " form " << int{rule.form} << '/' << int{rule.form_mask} << (rule.drop ? " drop" : "")
         << " cos " << rule.set_cos << int{rule.cos} << " dscp " << rule.set_dscp << int{rule.dscp} << " tag "
         << rule.add_tag << rule.tag_vid;
    return text.str();
}

void add_plane(const fp::PlaneState &state, std::vector<std::string> &lines)
{
    for (size_t acl = 0; acl < fp::acl_count; acl++) {
        for (const fp::Rule &rule : state.rules[acl]) {
            lines.push_back(rule_text(acl, rule));
        }
    }
    for (const auto &[phyid, acls] : state.binding) {
        lines.push_back("bound " + std::to_string(phyid) + " " + std::to_string(acls));
    }
}

std::string hex(const std::string &bytes)
{
    std::ostringstream text;
    for (const unsigned char byte : bytes) {
        text << std::hex << std::setw(2) << std::setfill('0') << int{byte};
    }
    return text.str();
}

// Without the mirrored OUI records: a re-initialisation sweeps those of OUIs that
// are still installed (docs/behaviour.md).
constexpr std::pair<uint32_t, const char *> kept_types[] = {
    {4, "p_bridge.vvlan_glb_cfg"},   {4, "p_bridge.vvlan_oui_cfg"}, {4, "p_bridge.vvlan_port_cfg"},
    {4, "p_bridge.vvlan_port_auto"}, {6, "u_bridge.mac_vid_reg"},   {6, "u_bridge.mac_vid_reg_noti"},
    {8, "u_bridge.vvlan_port_cfg"},  {8, "u_bridge.vvlan_join"}};

void add_store(mom::Session &reader, std::vector<std::string> &lines)
{
    for (const auto &[db, type] : kept_types) {
        std::vector<mom::Object> objects;
        if (reader.scan_now(db, type, objects) != 0) {
            lines.push_back(std::string(type) + " unreachable");
        }
        for (const mom::Object &object : objects) {
            std::string value = hex(object.value.bytes);
            for (const auto &[number, bytes] : object.value.fields) {
                value += " " + std::to_string(number) + "=" + hex(bytes);
            }
            lines.push_back(std::string(type) + " " + object.key + " " + value);
        }
    }
}

} // namespace

const Lines base_lines = {"vlan 100 on",
                          "oui add 00:04:76:00:00:00/24",
                          "oui add 00:11:22:00:00:00/24",
                          "qos cos 6 dscp 46",
                          "age 1440",
                          "port 1 auto",
                          "port 2 auto",
                          "port 3 auto",
                          "port 4 auto"};

std::unique_ptr<mom::Store> redis_store(const std::string &address)
{
    std::string why;
    auto store = mom::make_redis_store({address, "sw1:", {}}, why);
    EXPECT_NE(store, nullptr) << why;
    return store;
}

bool write_line(oper::Operator &op, const std::string &line)
{
    static const oper::Grammar grammar = oper::operator_grammar();
    oper::Command command;
    oper::CommandContext context;
    std::string why;
    EXPECT_TRUE(oper::parse_command(grammar, line, command, why)) << why;
    context.op = &op;
    return command.row->run(context, command.args, why);
}

bool run_until(host::UvLoop &loop, const std::function<bool()> &done, uint64_t limit_ms)
{
    const uint64_t end_us = loop.now_us() + limit_ms * 1000;
    bool is_done = false;
    std::function<void()> look = [&] {
        is_done = done();
        if (is_done || loop.now_us() >= end_us) {
            loop.stop();
        } else {
            loop.add_timer(look_us, look);
        }
    };
    loop.post(look);
    loop.run();
    return is_done;
}

void run_for(host::UvLoop &loop, uint64_t us)
{
    loop.add_timer(us, [&] { loop.stop(); });
    loop.run();
}

Rig::Rig(std::unique_ptr<mom::Store> store, bool has_sides)
    : switch_(drill_switch(has_sides), loop_, std::move(store), std::make_unique<fp::SoftPlane>(loop_)),
      reader_(switch_.store().open(loop_, *this, "reader"))
{
    std::string why;
    EXPECT_TRUE(switch_.start(why)) << why;
    for (const uint32_t db : {0u, 4u, 6u, 8u}) {
        reader_->connect_now(db);
    }
}

bool Rig::try_once(const std::string &line)
{
    std::string why;
    if (operator_ == nullptr) {
        operator_ = std::make_unique<oper::Operator>(switch_.store(), loop_);
        if (!operator_->connect(why)) {
            operator_.reset();
            return false;
        }
    }
    return write_line(*operator_, line);
}

void Rig::carry_out(const Lines &lines)
{
    constexpr uint64_t answer_limit_ms = 300;
    for (const std::string &line : lines) {
        const uint64_t end_us = loop_.now_us() + patience_ms * 1000;
        for (bool is_done = false; !is_done;) {
            const size_t losses = losses_;
            const auto is_over = [&] { return operator_->unanswered() == 0 || losses != losses_; };
            is_done =
                try_once(line) && drill::run_until(loop_, is_over, answer_limit_ms) && operator_->unanswered() == 0;
            if (!is_done) {
                operator_.reset(); // what was on its way is lost with its connection
                ASSERT_LT(loop_.now_us(), end_us) << line << ": the store does not answer";
                run_for(20);
            }
        }
    }
}

void Rig::call(uint32_t ifx)
{
    std::vector<uint8_t> frame = {0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0x00, 0x04, 0x76, 0x22, 0x20, 0x00, 0x08};
    frame[11] = static_cast<uint8_t>(ifx);
    frame.resize(60);
    plane().receive(0x100 + ifx, frame);
}

// The first frame makes a waiting port join, the second is learned in the voice VLAN.
void Rig::call_all()
{
    for (int round = 0; round < 2; round++) {
        for (uint32_t ifx = 1; ifx <= 4; ifx++) {
            call(ifx);
        }
        run_for(20);
    }
}

std::string Rig::picture()
{
    std::vector<std::string> lines;
    std::string why;
    for (const char *table : {"dump_glbal_configure", "dump_all_port", "dump_all_mac"}) {
        testing::internal::CaptureStdout();
        switch_.agent().run_debug_command(table, "", why);
        std::fflush(stdout);
        std::istringstream text(testing::internal::GetCapturedStdout());
        for (std::string line; std::getline(text, line);) {
            lines.push_back(std::string(table) + " " + line);
        }
    }
    add_plane(plane().installed(), lines);
    add_store(*reader_, lines);
    std::ranges::sort(lines);
    std::string text;
    for (const std::string &line : lines) {
        text += line + "\n";
    }
    return text;
}

std::string Rig::picture_like(const std::string &wanted)
{
    std::string seen;
    const uint64_t end_us = loop_.now_us() + patience_ms * 1000;
    do {
        call_all();
        seen = picture();
    } while (seen != wanted && loop_.now_us() < end_us);
    return seen;
}

std::string fault_free(const Lines &lines, const Lines &before)
{
    Rig rig(mom::make_local_store());
    rig.run_for(50);
    rig.carry_out(before);
    rig.carry_out(lines);
    rig.run_for(50);
    rig.call_all();
    return rig.picture();
}

} // namespace vvl::drill
