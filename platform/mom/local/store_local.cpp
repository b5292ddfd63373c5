// The in-process store's sessions.
//
// A request is carried out inside the call and what it leads to is posted to
// each session's loop, changes first, completion last. As a loop runs its
// tasks in the order of posting, that alone keeps the one order which store.h
// asks for. Every posted task carries the link's generation: a cut moves the
// generation on, so what was on its way finds itself outdated.
#include "platform/mom/local/store_local.h"

#include "platform/mom/local/objects.h"

#include <array>
#include <map>
#include <set>
#include <utility>

namespace vvl::mom
{
namespace
{

class LocalSession;

class LocalStore final : public Store
{
  public:
    std::unique_ptr<Session> open(Loop &loop, SessionEvents &events, const std::string &name) override;
    void close(LocalSession *session) { std::erase(sessions_, session); }
    void tell(Change change);

    LocalObjects objects{[this](Change change) { tell(std::move(change)); }};

  private:
    std::vector<LocalSession *> sessions_; // in the order of opening
};

class LocalSession final : public Session
{
  public:
    LocalSession(LocalStore &store, Loop &loop, SessionEvents &events) : store_(store), loop_(loop), events_(events) {}
    ~LocalSession() override { store_.close(this); }

    void deliver(const std::shared_ptr<const Change> &change);

    int connect_now(uint32_t db) override;
    int connect(uint32_t db, std::function<void()> done) override;
    int set_link(uint32_t db, bool up) override;
    int write(const Name &name, const Value &value, WriteMode mode, Owner owner, Done done) override;
    int remove(const Name &name, Owner owner, Done done) override;
    int publish(const Name &name, const Value &value, Done done) override;
    int read_now(const Name &name, std::optional<Value> &value) override;
    int scan(uint32_t db, const std::string &type, Listed listed) override;
    int scan_now(uint32_t db, const std::string &type, std::vector<Object> &objects) override;
    int watch(uint32_t db, const std::string &type, Done done) override;
    int unwatch(uint32_t db, const std::string &type, Done done) override;
    int begin_cycle(uint32_t db, const std::string &type, Owner owner, uint64_t expiry, Done done) override;
    int begin_cycle_now(uint32_t db, const std::string &type, Owner owner, uint64_t expiry) override;
    int unmark(const Name &name, Done done) override;
    int end_cycle(uint32_t db, const std::string &type, Owner owner, Done done) override;

  private:
    struct Link {
        bool connected = false; // asked for at least once
        bool cut = false;
        uint64_t generation = 0; // moves on at each cut
        std::set<std::string> watched;
        std::vector<std::function<void()>> waiting; // connect requests, in their order
    };
    using Links = std::array<Link, database_count>;

    bool reachable(uint32_t db) const { return (*links_)[db].connected && !(*links_)[db].cut; }
    int complete(uint32_t db, Done done);
    void post(uint32_t db, std::function<void()> task);
    void post_always(std::function<void()> task);
    void post_connected(uint32_t db);
    Snapshot snapshot_of(uint32_t db, const std::string &type);

    LocalStore &store_;
    Loop &loop_;
    SessionEvents &events_;
    // Shared with posted tasks, which hold it weakly: gone, they are silent.
    std::shared_ptr<Links> links_ = std::make_shared<Links>();
    // The last snapshot of each type, and the store's change count at it.
    std::map<std::pair<uint32_t, std::string>, std::pair<uint64_t, Snapshot::weak_type>> snapshots_;
};

std::unique_ptr<Session> LocalStore::open(Loop &loop, SessionEvents &events, const std::string &)
{
    auto session = std::make_unique<LocalSession>(*this, loop, events);
    sessions_.push_back(session.get());
    return session;
}

void LocalStore::tell(Change change)
{
    auto shared = std::make_shared<const Change>(std::move(change));
    for (LocalSession *session : sessions_) {
        session->deliver(shared);
    }
}

// ---- Sessions: what is on its way ----

void LocalSession::post(uint32_t db, std::function<void()> task)
{
    loop_.post([links = std::weak_ptr(links_), db, generation = (*links_)[db].generation, task = std::move(task)] {
        if (auto held = links.lock(); held && (*held)[db].generation == generation) {
            task();
        }
    });
}

void LocalSession::post_always(std::function<void()> task)
{
    loop_.post([links = std::weak_ptr(links_), task = std::move(task)] {
        if (auto held = links.lock()) {
            task();
        }
    });
}

int LocalSession::complete(uint32_t db, Done done)
{
    if (done) {
        post(db, [done = std::move(done)] { done(TQ_MOM_OK); });
    }
    return TQ_MOM_OK;
}

void LocalSession::deliver(const std::shared_ptr<const Change> &change)
{
    const uint32_t db = change->name.db;
    if (reachable(db) && (*links_)[db].watched.contains(change->name.type)) {
        post(db, [&events = events_, change] { events.changed(*change); });
    }
}

// ---- Sessions: connections ----

int LocalSession::connect_now(uint32_t db)
{
    (*links_)[db].connected = true;
    return (*links_)[db].cut ? TQ_MOM_E_UNREACHABLE : TQ_MOM_OK;
}

int LocalSession::connect(uint32_t db, std::function<void()> done)
{
    Link &link = (*links_)[db];
    link.connected = true;
    link.waiting.push_back(std::move(done));
    if (!link.cut) {
        post_connected(db);
    }
    return TQ_MOM_OK;
}

// Answers the first waiting request, unless the link is cut by then; its
// return posts again.
void LocalSession::post_connected(uint32_t db)
{
    post(db, [links = std::weak_ptr(links_), db] {
        auto held = links.lock();
        auto &waiting = (*held)[db].waiting;
        if (!waiting.empty()) {
            auto done = std::move(waiting.front());
            waiting.erase(waiting.begin());
            done();
        }
    });
}

int LocalSession::set_link(uint32_t db, bool up)
{
    Link &link = (*links_)[db];
    if (!link.connected) {
        return TQ_MOM_E_UNREACHABLE;
    }
    if (link.cut != up) {
        return TQ_MOM_OK;
    }
    link.cut = !up;
    if (up) {
        post_always([&events = events_, db] { events.link_back(db, true); });
        for (size_t i = 0; i < link.waiting.size(); i++) {
            post_connected(db);
        }
    } else {
        link.generation++;
        link.watched.clear();
        post_always([&events = events_, db] { events.link_lost(db); });
    }
    return TQ_MOM_OK;
}

// ---- Sessions: requests ----

int LocalSession::write(const Name &name, const Value &value, WriteMode mode, Owner owner, Done done)
{
    if (!reachable(name.db)) {
        return TQ_MOM_E_UNREACHABLE;
    }
    const int result = store_.objects.write(name, value, mode, owner);
    return result != TQ_MOM_OK ? result : complete(name.db, std::move(done));
}

int LocalSession::remove(const Name &name, Owner owner, Done done)
{
    if (!reachable(name.db)) {
        return TQ_MOM_E_UNREACHABLE;
    }
    store_.objects.remove(name, owner);
    return complete(name.db, std::move(done));
}

int LocalSession::publish(const Name &name, const Value &value, Done done)
{
    if (!reachable(name.db)) {
        return TQ_MOM_E_UNREACHABLE;
    }
    store_.tell({ChangeKind::published, name, value, {}});
    return complete(name.db, std::move(done));
}

int LocalSession::read_now(const Name &name, std::optional<Value> &value)
{
    if (!reachable(name.db)) {
        return TQ_MOM_E_UNREACHABLE;
    }
    value = store_.objects.read(name);
    return TQ_MOM_OK;
}

// Scans with no change between them share a snapshot for as long as one of them
// is on its way.
Snapshot LocalSession::snapshot_of(uint32_t db, const std::string &type)
{
    auto &[change_count, last] = snapshots_[{db, type}];
    Snapshot snapshot = last.lock();
    if (!snapshot || change_count != store_.objects.change_count()) {
        snapshot = std::make_shared<const std::vector<Object>>(store_.objects.list(db, type));
        change_count = store_.objects.change_count();
        last = snapshot;
    }
    return snapshot;
}

int LocalSession::scan(uint32_t db, const std::string &type, Listed listed)
{
    if (!reachable(db)) {
        return TQ_MOM_E_UNREACHABLE;
    }
    post(db, [listed = std::move(listed), snapshot = snapshot_of(db, type)] { listed(TQ_MOM_OK, snapshot); });
    return TQ_MOM_OK;
}

int LocalSession::scan_now(uint32_t db, const std::string &type, std::vector<Object> &objects)
{
    if (!reachable(db)) {
        return TQ_MOM_E_UNREACHABLE;
    }
    objects = store_.objects.list(db, type);
    return TQ_MOM_OK;
}

int LocalSession::watch(uint32_t db, const std::string &type, Done done)
{
    if (!reachable(db)) {
        return TQ_MOM_E_UNREACHABLE;
    }
    (*links_)[db].watched.insert(type);
    return complete(db, std::move(done));
}

int LocalSession::unwatch(uint32_t db, const std::string &type, Done done)
{
    if (!reachable(db)) {
        return TQ_MOM_E_UNREACHABLE;
    }
    (*links_)[db].watched.erase(type);
    return complete(db, std::move(done));
}

int LocalSession::begin_cycle(uint32_t db, const std::string &type, Owner owner, uint64_t expiry, Done done)
{
    const int result = begin_cycle_now(db, type, owner, expiry);
    return result != TQ_MOM_OK ? result : complete(db, std::move(done));
}

int LocalSession::begin_cycle_now(uint32_t db, const std::string &type, Owner owner, uint64_t)
{
    if (!reachable(db)) {
        return TQ_MOM_E_UNREACHABLE;
    }
    store_.objects.mark(db, type, owner);
    return TQ_MOM_OK;
}

int LocalSession::unmark(const Name &name, Done done)
{
    if (!reachable(name.db)) {
        return TQ_MOM_E_UNREACHABLE;
    }
    store_.objects.unmark(name);
    return complete(name.db, std::move(done));
}

int LocalSession::end_cycle(uint32_t db, const std::string &type, Owner owner, Done done)
{
    if (!reachable(db)) {
        return TQ_MOM_E_UNREACHABLE;
    }
    store_.objects.sweep(db, type, owner);
    return complete(db, std::move(done));
}

} // namespace

std::unique_ptr<Store> make_local_store()
{
    return std::make_unique<LocalStore>();
}

} // namespace vvl::mom
