// What the store's contract tests stand on. A store under test is a row: its
// name and its factory. Every suite named Store* runs on every row.
#pragma once

#include "platform/base/log.h"
#include "platform/base/virtual_loop.h"
#include "platform/mom/client.h"
#include "platform/mom/store.h"
#include "tests/unit/mom/store_messages.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace vvl::mom
{

struct StoreUnderTest {
    const char *name;
    std::unique_ptr<Store> (*make)();
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
    Client(Store &store, Loop &loop, const char *name)
    {
        EXPECT_EQ(attach(ctx(), store, loop, name), 0);
        for (const uint32_t db : {0u, 4u, 6u, 8u}) {
            EXPECT_EQ(tq_mom_client_connect_sync(ctx(), db), 0);
        }
    }
    ~Client() { detach(ctx()); }
    Client(const Client &) = delete;
    Client &operator=(const Client &) = delete;

    void *ctx() { return this; }

    // Operations whose records go to the recorder; each expects success.
    void set(uint32_t db, const ProtobufCMessage *object)
    {
        EXPECT_EQ(tq_mom_set(ctx(), db, object, nullptr, nullptr), 0);
    }
    void del(uint32_t db, const ProtobufCMessage *object)
    {
        EXPECT_EQ(tq_mom_del(ctx(), db, object, nullptr, nullptr), 0);
    }
    void subscribe(uint32_t db, const ProtobufCMessage *tmpl, Recorder &to, uint32_t flags = TQ_MOM_MATCH_ALL)
    {
        EXPECT_EQ(tq_mom_subscribe(ctx(), db, tmpl, flags, Recorder::callback, &to), 0);
    }
    void unsubscribe(uint32_t db, const ProtobufCMessage *tmpl, Recorder &to)
    {
        EXPECT_EQ(tq_mom_unsubscribe(ctx(), db, tmpl, TQ_MOM_MATCH_ALL, Recorder::callback, &to), 0);
    }
    void scan(uint32_t db, const ProtobufCMessage *tmpl, Recorder &to, uint32_t flags = TQ_MOM_MATCH_ALL)
    {
        EXPECT_EQ(tq_mom_scan(ctx(), db, tmpl, flags, Recorder::callback, &to), 0);
    }
    Lines scan_now(uint32_t db, const ProtobufCMessage *tmpl)
    {
        Recorder found;
        EXPECT_EQ(tq_mom_scan_sync(ctx(), db, tmpl, TQ_MOM_MATCH_ALL, Recorder::callback, &found), 0);
        return found.take();
    }
};

// The operations on which an object's life depends, as letters: s set, d del,
// c clear_expire, + setow, - del_ow, [ begin and ] end of a cycle of its type.
// owner 0 with a bracket is the plain cycle. Expects success.
constexpr uint32_t life_db = 4;
constexpr char life_operations[] = {'s', 'd', 'c', '+', '-', '[', ']'};
void apply(Client &client, const ProtobufCMessage *object, char operation, uint64_t owner);

class StoreTest : public testing::TestWithParam<StoreUnderTest>
{
  protected:
    void run() { loop_.run_pending(); }

    VirtualLoop loop_;
    std::unique_ptr<Store> store_ = GetParam().make();
    Client writer_{*store_, loop_, "writer"};
    Client reader_{*store_, loop_, "reader"};
    Recorder seen_; // what the reader is told
};

// Collects log lines instead of printing them, for as long as it lives.
class LogCapture
{
  public:
    LogCapture()
    {
        set_log_sink([this](LogLevel, const std::string &text) { lines_.push_back(text); });
    }
    ~LogCapture() { set_log_sink({}); }

    size_t count(const std::string &part) const // lines that contain it
    {
        return static_cast<size_t>(std::ranges::count_if(
            lines_, [&](const std::string &line) { return line.find(part) != std::string::npos; }));
    }

  private:
    Lines lines_;
};

} // namespace vvl::mom
