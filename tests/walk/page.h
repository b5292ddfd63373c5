// A state as lines of text: both the model and the observed switch are written
// in this one form after each event, so comparing them is comparing two
// strings, and a difference reads as a line.
#pragma once

#include "platform/base/mac.h"
#include "platform/fp/rule.h"

#include <string>
#include <string_view>

namespace vvl::walk
{

class Page
{
  public:
    const std::string &text() const { return text_; }

    // A line: its word, and the items with a space in front of each.
    template <typename... Items> void line(std::string_view word, const Items &...items)
    {
        text_ += '\n';
        text_ += word;
        (add(items), ...);
    }
    void add(std::string_view word)
    {
        text_ += ' ';
        text_ += word;
    }
    void add(uint64_t value) { add(std::to_string(value)); }
    void add(const Mac &mac) { add(to_text(mac)); }

  private:
    std::string text_;
};

// The parts that model and module have in structures of the same members.

template <typename Global> void print_global(Page &page, const Global &g)
{
    page.line("global", g.vid, g.enable, g.age_time, g.secu_mode, g.cos, g.dscp);
}

template <typename Port> void print_port(Page &page, uint32_t ifx, const Port &p)
{
    page.line("port", ifx, p.phyid, p.vvlan_en, p.auto_mod, p.auto_join, p.deny_en, p.mac_aged, p.no_flw);
}

// acl: the index of an fp::Acl.
inline void print_rule(Page &page, size_t acl, const fp::Rule &r)
{
    page.line("ace", acl, r.id, r.mac, r.mask, r.vid, r.vid_mask, r.form, r.form_mask, r.drop, r.set_cos, r.cos,
              r.set_dscp, r.dscp, r.set_prio, r.prio, r.add_tag, r.tag_vid);
}

} // namespace vvl::walk
