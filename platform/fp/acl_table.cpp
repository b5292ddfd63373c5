#include "platform/fp/acl_table.h"

#include <algorithm>

namespace vvl::fp
{
namespace
{

uint64_t key_of(const AceEntry &ace)
{
    return ace.rule.id;
}

uint64_t key_of(const Binding &binding)
{
    return binding.phyid;
}

// The place of the row with this key, or where it belongs.
template <typename Row> auto find_place(std::vector<Row> &rows, uint64_t key)
{
    return std::ranges::lower_bound(rows, key, {}, [](const Row &row) { return key_of(row); });
}

template <typename Row>
bool stands_at(const std::vector<Row> &rows, typename std::vector<Row>::iterator place, uint64_t key)
{
    return place != rows.end() && key_of(*place) == key;
}

template <typename Row> void set_row(std::vector<Row> &rows, const Row &row)
{
    const auto place = find_place(rows, key_of(row));
    if (stands_at(rows, place, key_of(row))) {
        *place = row;
    } else {
        rows.insert(place, row);
    }
}

template <typename Row> void remove_row(std::vector<Row> &rows, uint64_t key)
{
    std::erase_if(rows, [key](const Row &row) { return key_of(row) == key; });
}

template <typename Row> void mark_all(std::vector<Row> &rows)
{
    for (Row &row : rows) {
        row.marked = true;
    }
}

template <typename Row> void remove_marked(std::vector<Row> &rows)
{
    std::erase_if(rows, [](const Row &row) { return row.marked; });
}

} // namespace

void AclEntry::set_ace(const Rule &rule)
{
    set_row(aces, {rule, false});
}

void AclEntry::remove_ace(uint64_t ace_id)
{
    remove_row(aces, ace_id);
}

bool AclEntry::bind(uint32_t phyid)
{
    if (bindings.size() == bindings_max && !stands_at(bindings, find_place(bindings, phyid), phyid)) {
        return false;
    }
    set_row(bindings, {phyid, false});
    return true;
}

void AclEntry::unbind(uint32_t phyid)
{
    remove_row(bindings, phyid);
}

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
        mark_all(entry.aces);
        break;
    case Kind::binding:
        mark_all(entry.bindings);
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
        remove_marked(entry.aces);
        break;
    case Kind::binding:
        remove_marked(entry.bindings);
        break;
    }
}

PlaneState AclTable::state() const
{
    PlaneState state;
    for (size_t i = 0; i < acl_count; i++) {
        for (const AceEntry &ace : acls[i].aces) {
            state.rules[i].push_back(ace.rule);
        }
        // Both are in ascending order: the place of one port is a hint at the next one's.
        auto place = state.binding.begin();
        for (const Binding &binding : acls[i].bindings) {
            place = state.binding.try_emplace(place, binding.phyid, uint8_t{0});
            place->second |= acl_bit(static_cast<Acl>(i));
            ++place;
        }
    }
    return state;
}

} // namespace vvl::fp
