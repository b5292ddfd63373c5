// What the in-process store keeps. Every change is told once, after it is
// complete, and a sweep tells of one removal after the other, in key order.
#include "platform/mom/local/objects.h"

#include <set>
#include <utility>

namespace vvl::mom
{
namespace
{

// The numbers that a write touches: those it writes and, where the object is
// replaced, those that go.
std::vector<uint32_t> fields_touched(const FieldMap &before, const FieldMap &written, WriteMode mode)
{
    std::set<uint32_t> numbers;
    for (const auto &field : written) {
        numbers.insert(field.first);
    }
    if (mode == WriteMode::replace) {
        for (const auto &field : before) {
            numbers.insert(field.first);
        }
    }
    return {numbers.begin(), numbers.end()};
}

} // namespace

int LocalObjects::write(const Name &name, const Value &value, WriteMode mode, Owner owner)
{
    Database &database = databases_[name.db];
    Table &objects = table(name.db, name.type);
    const bool is_new = !objects.contains(name.key);
    if (is_new && database.object_count == database_object_count_max) {
        return TQ_MOM_E_MEMORY;
    }
    database.object_count += is_new;
    Stored &stored = objects[name.key];
    Change change;
    change.name = name;
    if (name.key.empty()) {
        change.kind = ChangeKind::fields_set;
        change.fields = fields_touched(stored.value.fields, value.fields, mode);
    }
    if (mode == WriteMode::replace) {
        stored.value = value;
    } else {
        for (const auto &[number, bytes] : value.fields) {
            stored.value.fields[number] = bytes;
        }
    }
    stored.stale = false;
    if (owner) {
        stored.holds[*owner] = false;
    } else {
        stored.unowned = true;
    }
    change.value = stored.value;
    change_count_++;
    tell_(std::move(change));
    return TQ_MOM_OK;
}

LocalObjects::Table::iterator LocalObjects::erase(const Name &name, Table &objects, Table::iterator object)
{
    Change change;
    change.kind = ChangeKind::removed;
    change.name = name;
    change.fields = fields_touched(object->second.value.fields, {}, WriteMode::replace);
    auto next = objects.erase(object);
    databases_[name.db].object_count--;
    change_count_++;
    tell_(std::move(change));
    return next;
}

// Ends the owner's hold. True where nothing keeps the object any more.
bool LocalObjects::let_go(Stored &stored, uint64_t owner)
{
    return stored.holds.erase(owner) > 0 && stored.holds.empty() && !stored.unowned;
}

void LocalObjects::remove(const Name &name, Owner owner)
{
    Table &objects = table(name.db, name.type);
    auto object = objects.find(name.key);
    if (object != objects.end() && (!owner || let_go(object->second, *owner))) {
        erase(name, objects, object);
    }
}

const LocalObjects::Table *LocalObjects::find_table(uint32_t db, const std::string &type) const
{
    auto found = databases_[db].types.find(type);
    return found == databases_[db].types.end() ? nullptr : &found->second;
}

std::optional<Value> LocalObjects::read(const Name &name) const
{
    const Table *objects = find_table(name.db, name.type);
    if (objects == nullptr) {
        return {};
    }
    auto object = objects->find(name.key);
    return object == objects->end() ? std::optional<Value>() : object->second.value;
}

std::vector<Object> LocalObjects::list(uint32_t db, const std::string &type) const
{
    std::vector<Object> listed;
    if (const Table *objects = find_table(db, type)) {
        for (const auto &[key, stored] : *objects) {
            listed.push_back({key, stored.value});
        }
    }
    return listed;
}

void LocalObjects::mark(uint32_t db, const std::string &type, Owner owner)
{
    for (auto &object : table(db, type)) {
        Stored &stored = object.second;
        if (!owner) {
            stored.stale = true;
        } else if (auto hold = stored.holds.find(*owner); hold != stored.holds.end()) {
            hold->second = true;
        }
    }
}

void LocalObjects::unmark(const Name &name)
{
    Table &objects = table(name.db, name.type);
    if (auto object = objects.find(name.key); object != objects.end()) {
        object->second.stale = false;
        for (auto &hold : object->second.holds) {
            hold.second = false;
        }
    }
}

void LocalObjects::sweep(uint32_t db, const std::string &type, Owner owner)
{
    Table &objects = table(db, type);
    for (auto object = objects.begin(); object != objects.end();) {
        Stored &stored = object->second;
        bool is_swept = false;
        if (!owner) {
            is_swept = stored.stale;
        } else if (auto hold = stored.holds.find(*owner); hold != stored.holds.end() && hold->second) {
            is_swept = let_go(stored, *owner);
        }
        object = is_swept ? erase({db, type, object->first}, objects, object) : std::next(object);
    }
}

} // namespace vvl::mom
