// Sessions on a Redis server: each request becomes one call of the function
// library, each reply a completion. link.h has the connections and the order.
#include "platform/mom/redis/store_redis.h"

#include "platform/mom/redis/link.h"
#include "platform/mom/redis/reader.h"

#include <hiredis/hiredis.h>

#include <array>
#include <csignal>
#include <map>
#include <utility>

namespace vvl::mom
{
namespace
{

std::string owner_text(Owner owner)
{
    return owner ? std::to_string(*owner) : std::string();
}

class RedisSession;

class RedisStore final : public Store
{
  public:
    explicit RedisStore(RedisServer server) : server_(std::move(server)) {}

    std::unique_ptr<Session> open(Loop &loop, SessionEvents &events, const std::string &name) override;
    void close(RedisSession *session) { std::erase(sessions_, session); }
    // One session knows of a change: it is on its way to all of them.
    void expect_change(uint32_t db, uint64_t number);
    const RedisServer &server() const { return server_; }

  private:
    const RedisServer server_;
    std::vector<RedisSession *> sessions_;
};

class RedisSession final : public Session
{
  public:
    RedisSession(RedisStore &store, Loop &loop, SessionEvents &events, const std::string &name)
        : store_(store), loop_(loop), events_(events), name_(name)
    {
    }
    ~RedisSession() override { store_.close(this); }

    void expect_change(uint32_t db, uint64_t number);

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
    // Scans of one type. Those that come while a read is on its way wait for
    // the next one, which serves all of them. It transfers no objects where
    // nothing has changed since the last snapshot and somebody still has that.
    struct Scans {
        bool reading = false;
        std::vector<Listed> waiting;
        Snapshot::weak_type last;
        uint64_t last_number = 0;
    };
    struct Database {
        std::unique_ptr<RedisLink> link;            // made when it is first asked for
        std::vector<std::function<void()>> waiting; // connect requests, in their order
        std::map<std::string, Scans> scans;         // by type
        bool is_back = false;                       // and nobody has been told
        bool missed = false;                        // of that return
        uint64_t drops = 0;                         // how often requests on their way were dropped
    };

    RedisLink &link(uint32_t db);
    bool usable(uint32_t db) const { return databases_[db].link != nullptr; }
    void answer_waiting(uint32_t db);
    void fail_all();
    void tell_returns();
    int request(uint32_t db, const char *function, const std::vector<std::string_view> &arguments, Done done);
    template <typename Ask> int ask(uint32_t db, Ask &&how);
    int let_in(int result);
    int read_for_scans(uint32_t db, const std::string &type);
    Snapshot take_snapshot(uint32_t db, const std::string &type, const redisReply &reply, const Snapshot &last);
    void tell_listed(uint32_t db, const std::vector<Listed> &served, int result, const Snapshot &snapshot);

    RedisStore &store_;
    Loop &loop_;
    SessionEvents &events_;
    const std::string name_;
    std::array<Database, database_count> databases_;
    RedisReader reader_;
    std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
};

std::unique_ptr<Session> RedisStore::open(Loop &loop, SessionEvents &events, const std::string &name)
{
    auto session = std::make_unique<RedisSession>(*this, loop, events, name);
    sessions_.push_back(session.get());
    return session;
}

void RedisStore::expect_change(uint32_t db, uint64_t number)
{
    for (RedisSession *session : sessions_) {
        session->expect_change(db, number);
    }
}

// ---- Connections ----

RedisLink &RedisSession::link(uint32_t db)
{
    Database &database = databases_[db];
    if (database.link == nullptr) {
        RedisLinkEvents events;
        events.up = [this, db] {
            answer_waiting(db);
            tell_returns(); // of others, which this one may have kept waiting
        };
        events.lost = [this, db] { events_.link_lost(db); };
        events.failed = [this] { fail_all(); };
        events.back = [this, db](bool missed) {
            databases_[db].is_back = true;
            databases_[db].missed |= missed;
            link(db).post([this] { tell_returns(); });
        };
        events.changed = [this](const Change &change) { events_.changed(change); };
        events.told_of = [this, db](uint64_t number) { store_.expect_change(db, number); };
        events.dropped = [this, db] {
            databases_[db].scans.clear();
            databases_[db].drops++;
        };
        database.link = std::make_unique<RedisLink>(loop_, store_.server(), db, name_, std::move(events));
    }
    return *database.link;
}

void RedisSession::expect_change(uint32_t db, uint64_t number)
{
    if (usable(db)) {
        databases_[db].link->expect_change(number);
    }
}

// Each is answered by a task of its own, since an answer may end the session,
// and the link may be cut before it.
void RedisSession::answer_waiting(uint32_t db)
{
    for (size_t i = 0; i < databases_[db].waiting.size(); i++) {
        link(db).post([this, db] {
            auto &waiting = databases_[db].waiting;
            if (link(db).is_up() && !waiting.empty()) {
                const auto done = std::move(waiting.front());
                waiting.erase(waiting.begin());
                done();
            }
        });
    }
}

// All databases are on one server, so where one is lost all are given up. The
// client then has no time in which some of them work.
void RedisSession::fail_all()
{
    for (Database &database : databases_) {
        if (database.link != nullptr) {
            database.link->fail("another database of this client was lost");
        }
    }
}

// A client that is told of a return uses all of its databases, so it is told when
// the last one is back. Those that are cut do not count.
void RedisSession::tell_returns()
{
    for (const Database &database : databases_) {
        if (database.link != nullptr && database.link->is_started() && !database.link->is_cut() &&
            !database.link->is_up()) {
            return;
        }
    }
    // Where one has missed changes all count as such: the client resynchronises
    // its databases together or not at all. Whoever is told may end the session.
    const std::weak_ptr<bool> still = alive_;
    bool missed = false;
    for (Database &database : databases_) {
        missed |= std::exchange(database.missed, false);
    }
    for (uint32_t db = 0; db < database_count && !still.expired(); db++) {
        if (std::exchange(databases_[db].is_back, false)) {
            answer_waiting(db);
            events_.link_back(db, missed);
        }
    }
}

int RedisSession::connect_now(uint32_t db)
{
    return link(db).wait_until_up() ? TQ_MOM_OK : TQ_MOM_E_UNREACHABLE;
}

int RedisSession::connect(uint32_t db, std::function<void()> done)
{
    databases_[db].waiting.push_back(std::move(done));
    link(db).start();
    if (link(db).is_up()) {
        answer_waiting(db);
    }
    return let_in(TQ_MOM_OK);
}

int RedisSession::set_link(uint32_t db, bool up)
{
    if (!usable(db) || !link(db).is_started()) {
        return TQ_MOM_E_UNREACHABLE;
    }
    if (up) {
        link(db).restore();
    } else if (!link(db).is_cut()) {
        link(db).cut();
    }
    return let_in(TQ_MOM_OK);
}

// ---- Requests ----

int RedisSession::let_in(int result)
{
    if (result == TQ_MOM_OK) {
        loop_.let_answers_in();
    }
    return result;
}

// Where the reply comes before this returns, as it does on a virtual clock, a
// refusal is the call's own result.
template <typename Ask> int RedisSession::ask(uint32_t db, Ask &&how)
{
    if (!usable(db)) {
        return TQ_MOM_E_UNREACHABLE;
    }
    const uint64_t request = link(db).next_request();
    const int accepted = let_in(how(link(db)));
    return accepted != TQ_MOM_OK ? accepted : link(db).take_refusal(request);
}

int RedisSession::request(uint32_t db, const char *function, const std::vector<std::string_view> &arguments, Done done)
{
    return ask(db, [&](RedisLink &on) { return on.call(function, arguments, std::move(done)); });
}

int RedisSession::write(const Name &name, const Value &value, WriteMode mode, Owner owner, Done done)
{
    const std::string holder = owner_text(owner);
    if (!name.key.empty()) {
        return ask(name.db,
                   [&](RedisLink &on) { return on.write(name.type, holder, name.key, value.bytes, std::move(done)); });
    }
    std::vector<std::string> numbers; // complete before anything refers into it
    for (const auto &field : value.fields) {
        numbers.push_back(std::to_string(field.first));
    }
    std::vector<std::string_view> arguments{name.type, holder, mode == WriteMode::replace ? "replace" : "merge"};
    size_t next = 0;
    for (const auto &field : value.fields) {
        arguments.push_back(numbers[next++]);
        arguments.push_back(field.second);
    }
    return request(name.db, "write_fields", arguments, std::move(done));
}

int RedisSession::remove(const Name &name, Owner owner, Done done)
{
    return request(name.db, "remove", {name.type, name.key, owner_text(owner)}, std::move(done));
}

int RedisSession::publish(const Name &name, const Value &value, Done done)
{
    std::string payload = value.bytes;
    for (const auto &[number, bytes] : value.fields) {
        payload += std::to_string(number) + " " + std::to_string(bytes.size()) + "\n" + bytes;
    }
    return request(name.db, "publish", {name.type, name.key, payload}, std::move(done));
}

int RedisSession::watch(uint32_t db, const std::string &type, Done done)
{
    return usable(db) ? let_in(link(db).watch(type, std::move(done))) : TQ_MOM_E_UNREACHABLE;
}

int RedisSession::unwatch(uint32_t db, const std::string &type, Done done)
{
    return usable(db) ? let_in(link(db).unwatch(type, std::move(done))) : TQ_MOM_E_UNREACHABLE;
}

int RedisSession::begin_cycle(uint32_t db, const std::string &type, Owner owner, uint64_t, Done done)
{
    return request(db, "begin", {type, owner_text(owner)}, std::move(done));
}

int RedisSession::begin_cycle_now(uint32_t db, const std::string &type, Owner owner, uint64_t)
{
    if (!usable(db)) {
        return TQ_MOM_E_UNREACHABLE;
    }
    int result = TQ_MOM_OK;
    const int asked = link(db).request_now("begin", {type, owner_text(owner)}, [&](const redisReply &reply) {
        result = link(db).result_of(reply, "begin");
        return RedisLink::Taken();
    });
    return asked != TQ_MOM_OK ? asked : result;
}

int RedisSession::unmark(const Name &name, Done done)
{
    return request(name.db, "unmark", {name.type, name.key}, std::move(done));
}

int RedisSession::end_cycle(uint32_t db, const std::string &type, Owner owner, Done done)
{
    return request(db, "finish", {type, owner_text(owner)}, std::move(done));
}

// ---- Reading ----

int RedisSession::scan(uint32_t db, const std::string &type, Listed listed)
{
    if (!usable(db) || !link(db).is_up()) {
        return TQ_MOM_E_UNREACHABLE;
    }
    Scans &scans = databases_[db].scans[type];
    scans.waiting.push_back(std::move(listed));
    return scans.reading ? TQ_MOM_OK : let_in(read_for_scans(db, type));
}

// Reads for all scans of the type that wait now.
int RedisSession::read_for_scans(uint32_t db, const std::string &type)
{
    Scans &scans = databases_[db].scans[type];
    auto served = std::make_shared<std::vector<Listed>>(std::exchange(scans.waiting, {}));
    scans.reading = true;
    const std::string known = std::to_string(scans.last_number);
    std::vector<std::string_view> arguments{type};
    const Snapshot last = scans.last.lock();
    if (last != nullptr) {
        arguments.push_back(known);
    }
    return link(db).request("scan", arguments, [this, db, type, served, last](const redisReply &reply) {
        const Snapshot snapshot = take_snapshot(db, type, reply, last);
        const int failure = link(db).result_of(reply, "scan");
        const int result = failure == TQ_MOM_OK && snapshot == nullptr ? TQ_MOM_E_UNREACHABLE : failure;
        databases_[db].scans[type].reading = false;
        if (!databases_[db].scans[type].waiting.empty()) {
            read_for_scans(db, type);
        }
        return [this, db, served, result, snapshot] { tell_listed(db, *served, result, snapshot); };
    });
}

Snapshot RedisSession::take_snapshot(uint32_t db, const std::string &type, const redisReply &reply,
                                     const Snapshot &last)
{
    if (reply.type != REDIS_REPLY_ARRAY) {
        return last;
    }
    auto snapshot = std::make_shared<const std::vector<Object>>(reader_.read(link(db).name(), type, reply));
    Scans &scans = databases_[db].scans[type];
    scans.last = snapshot;
    scans.last_number = static_cast<uint64_t>(reply.element[0]->integer);
    return snapshot;
}

void RedisSession::tell_listed(uint32_t db, const std::vector<Listed> &served, int result, const Snapshot &snapshot)
{
    // Any of them may end the session or cut the link.
    const std::weak_ptr<bool> still = alive_;
    const uint64_t drops = databases_[db].drops;
    for (size_t i = 0; i < served.size() && !still.expired() && drops == databases_[db].drops; i++) {
        served[i](result, result == TQ_MOM_OK ? snapshot : nullptr);
    }
}

int RedisSession::scan_now(uint32_t db, const std::string &type, std::vector<Object> &objects)
{
    if (!usable(db)) {
        return TQ_MOM_E_UNREACHABLE;
    }
    int result = TQ_MOM_OK;
    const int asked = link(db).request_now("scan", {type}, [&](const redisReply &reply) {
        result = link(db).result_of(reply, "scan");
        objects = reader_.read(link(db).name(), type, reply);
        return RedisLink::Taken();
    });
    return asked != TQ_MOM_OK ? asked : result;
}

int RedisSession::read_now(const Name &name, std::optional<Value> &value)
{
    if (!usable(name.db)) {
        return TQ_MOM_E_UNREACHABLE;
    }
    int result = TQ_MOM_OK;
    auto take = [&](const redisReply &reply) {
        result = link(name.db).result_of(reply, "read");
        std::vector<Object> objects = reader_.read(link(name.db).name(), name.type, reply);
        value = objects.empty() ? std::optional<Value>() : std::move(objects.front().value);
        return RedisLink::Taken();
    };
    const int asked = link(name.db).request_now("read", {name.type, name.key}, take);
    return asked != TQ_MOM_OK ? asked : result;
}

} // namespace

std::unique_ptr<Store> make_redis_store(const RedisOptions &options, std::string &why)
{
    RedisServer server;
    if (!parse_redis_address(options.address, server.address, why) || !check_redis_prefix(options.prefix, why) ||
        (!options.credentials.empty() && !read_redis_credentials(options.credentials, server.credentials, why))) {
        return nullptr;
    }
    server.prefix = options.prefix;
    // hiredis writes without MSG_NOSIGNAL: a server that closes its end would
    // end this process.
    std::signal(SIGPIPE, SIG_IGN);
    return std::make_unique<RedisStore>(std::move(server));
}

} // namespace vvl::mom
