// What the store's contract tests stand on. A store under test is a row: its
// name, and a factory for a store with a loop and a way to run the loop until
// nothing is on its way. Every suite named Store* runs on every row.
#pragma once

#include "platform/mom/client.h"
#include "platform/mom/store.h"
#include "tests/unit/mom/store_messages.h"

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace vvl::mom
{

class Environment
{
  public:
    virtual ~Environment() = default;
    virtual Store &store() = 0;
    virtual Loop &loop() = 0;
    virtual void run_until_idle() = 0;
};

struct StoreUnderTest {
    const char *name;
    std::unique_ptr<Environment> (*make)();
};

inline void PrintTo(const StoreUnderTest &row, std::ostream *out)
{
    *out << row.name;
}

const std::vector<StoreUnderTest> &stores_under_test();

// Collects records as lines of text:
//   "set vvlan_port_cfg 5 mode=1", "del vvlan_port_cfg 5", "publish ...",
//   "hset vvlan_glb_cfg fields 6 7; age_time=30", "established", "withdrawn",
//   "over", "open", "done", "error -11 "
// where a keyed object shows its key's text and its number fields.
class Recorder
{
  public:
    static int callback(void *ctx, tq_mom_record_t *record, void *user);

    // The lines since the last call.
    std::vector<std::string> take() { return std::exchange(lines_, {}); }

    std::function<void(const std::string &line)> on_line; // called for each, from inside the callback
    int result = 0;                                       // what the callback returns
    bool reads_fields = false;                            // every object is a tq_mom_hash_t

  private:
    std::vector<std::string> lines_;
};

using Lines = std::vector<std::string>;

// A context that is a client for as long as the object lives, with databases
// 0, 4, 6 and 8 connected.
class Client
{
  public:
    Client(Environment &environment, const char *name);
    ~Client() { detach(ctx()); }
    Client(const Client &) = delete;
    Client &operator=(const Client &) = delete;

    void *ctx() { return this; }

    // Operations whose records go to the recorder; each expects success.
    void set(uint32_t db, const ProtobufCMessage *object);
    void del(uint32_t db, const ProtobufCMessage *object);
    void subscribe(uint32_t db, const ProtobufCMessage *tmpl, Recorder &to, uint32_t flags = TQ_MOM_MATCH_ALL);
    void unsubscribe(uint32_t db, const ProtobufCMessage *tmpl, Recorder &to, uint32_t flags = TQ_MOM_MATCH_ALL);
    void scan(uint32_t db, const ProtobufCMessage *tmpl, Recorder &to, uint32_t flags = TQ_MOM_MATCH_ALL);
    Lines scan_now(uint32_t db, const ProtobufCMessage *tmpl, uint32_t flags = TQ_MOM_MATCH_ALL);
};

// The operations on which an object's life depends, as letters: s set, d del,
// c clear_expire, + setow, - del_ow, [ begin and ] end of a cycle of its type.
// owner 0 with a bracket is the plain cycle. Expects success.
constexpr char life_operations[] = {'s', 'd', 'c', '+', '-', '[', ']'};
void apply(Client &client, uint32_t db, const ProtobufCMessage *object, char operation, uint64_t owner);

class StoreTest : public testing::TestWithParam<StoreUnderTest>
{
  protected:
    void run() { environment_->run_until_idle(); }

    std::unique_ptr<Environment> environment_ = GetParam().make();
    Client writer_{*environment_, "writer"};
    Client reader_{*environment_, "reader"};
    Recorder seen_; // what the reader is told
};

// Collects log lines instead of printing them, for as long as it lives.
class LogCapture
{
  public:
    LogCapture();
    ~LogCapture();
    size_t count(const std::string &part) const; // lines that contain it

  private:
    Lines lines_;
};

std::string row_name(const testing::TestParamInfo<StoreUnderTest> &info);

} // namespace vvl::mom
