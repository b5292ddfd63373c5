// The installed ACLs as a value, and the way from one state to the next. The
// operation on the plane follows from the difference of two states instead of
// from the request, so every request goes the same way.
#include "platform/fp/acl_table.h"

#include <algorithm>
#include <set>

namespace vvl::fp
{
namespace
{

uint8_t bound_acls(const PlaneState &state, uint32_t phyid)
{
    auto found = state.binding.find(phyid);
    return found == state.binding.end() ? 0 : found->second;
}

std::set<uint32_t> ports_that_differ(const PlaneState &from, const PlaneState &to)
{
    std::set<uint32_t> ports;
    for (const auto *side : {&from, &to}) {
        for (const auto &[phyid, acls] : side->binding) {
            if (bound_acls(from, phyid) != bound_acls(to, phyid)) {
                ports.insert(phyid);
            }
        }
    }
    return ports;
}

} // namespace

bool AclTable::empty() const
{
    return std::none_of(acls.begin(), acls.end(), [](const AclEntry &entry) { return entry.present; });
}

void AclTable::mark(Acl acl, Kind kind)
{
    AclEntry &entry = at(acl);
    switch (kind) {
    case Kind::acl:
        entry.marked = entry.present;
        break;
    case Kind::ace:
        for (auto &[id, ace] : entry.aces) {
            ace.marked = true;
        }
        break;
    case Kind::binding:
        for (auto &[phyid, marked] : entry.bindings) {
            marked = true;
        }
        break;
    }
}

void AclTable::sweep(Acl acl, Kind kind)
{
    AclEntry &entry = at(acl);
    switch (kind) {
    case Kind::acl:
        if (entry.marked) {
            entry = {};
        }
        break;
    case Kind::ace:
        std::erase_if(entry.aces, [](const auto &ace) { return ace.second.marked; });
        break;
    case Kind::binding:
        std::erase_if(entry.bindings, [](const auto &binding) { return binding.second; });
        break;
    }
}

PlaneState AclTable::state() const
{
    PlaneState state;
    for (size_t i = 0; i < acl_count; i++) {
        for (const auto &[id, ace] : acls[i].aces) {
            state.rules[i].push_back(ace.rule);
        }
        for (const auto &[phyid, marked] : acls[i].bindings) {
            state.binding[phyid] |= acl_bit(static_cast<Acl>(i));
        }
    }
    return state;
}

int carry_out(Plane &plane, const PlaneState &from, const PlaneState &to)
{
    size_t changed_acls = 0;
    size_t changed_acl = 0;
    for (size_t i = 0; i < acl_count; i++) {
        if (from.rules[i] != to.rules[i]) {
            changed_acls++;
            changed_acl = i;
        }
    }
    const std::set<uint32_t> ports = ports_that_differ(from, to);
    if (changed_acls + ports.size() == 0) {
        return 0;
    }
    if (changed_acls + ports.size() > 1) {
        return plane.replace_all(to);
    }
    if (changed_acls == 1) {
        return plane.set_rules(static_cast<Acl>(changed_acl), to.rules[changed_acl]);
    }
    return plane.set_binding(*ports.begin(), bound_acls(to, *ports.begin()));
}

} // namespace vvl::fp
