// What the in-process store keeps: objects by database, type and key, with
// their holds and marks.
//
// An object written without an owner lives until it is removed; one that only
// owners have written lives while any of them holds it. The plain cycle marks
// objects, an owner's cycle marks that owner's holds.
#pragma once

#include "platform/mom/store.h"

#include <array>

namespace vvl::mom
{

class LocalObjects
{
  public:
    // tell is called for each change, once it is made, from inside the
    // operation that makes it; it must not come back here.
    explicit LocalObjects(std::function<void(Change)> tell) : tell_(std::move(tell)) {}

    // These are the operations of Session (store.h).
    int write(const Name &name, const Value &value, WriteMode mode, Owner owner);
    void remove(const Name &name, Owner owner);
    std::optional<Value> read(const Name &name) const;
    std::vector<Object> list(uint32_t db, const std::string &type) const; // by key string
    void mark(uint32_t db, const std::string &type, Owner owner);
    void unmark(const Name &name);
    void sweep(uint32_t db, const std::string &type, Owner owner);

    uint64_t change_count() const { return change_count_; } // of objects, in any database

  private:
    struct Stored {
        Value value;
        bool unowned = false;           // written without an owner
        bool stale = false;             // mark of the plain cycle
        std::map<uint64_t, bool> holds; // owner to the mark of its own cycle
    };
    using Table = std::map<std::string, Stored>; // by key string
    struct Database {
        std::map<std::string, Table> types;
        size_t object_count = 0;
    };

    static bool let_go(Stored &stored, uint64_t owner);
    Table &table(uint32_t db, const std::string &type) { return databases_[db].types[type]; }
    const Table *find_table(uint32_t db, const std::string &type) const;
    Table::iterator erase(const Name &name, Table &objects, Table::iterator object);

    std::function<void(Change)> tell_;
    uint64_t change_count_ = 0;
    std::array<Database, database_count> databases_;
};

} // namespace vvl::mom
