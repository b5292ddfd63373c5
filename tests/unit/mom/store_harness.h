// What the store's contract tests stand on. A store under test is a row: its
// name and its factory. Every suite named Store* runs on every row.
#pragma once

#include "platform/base/log.h"
#include "platform/base/virtual_loop.h"
#include "platform/mom/client.h"
#include "platform/mom/messages.h"
#include "platform/mom/store.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <map>
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

// A message from text: "TYPE [KEY] [FIELD=NUMBER]...", such as "port 5 mode=1".
// TYPE is port, glb, oui, mac or trap (store_harness.cpp); KEY as of keys.h.
MessagePtr make(const std::string &text);

using Lines = std::vector<std::string>;

// Collects records as lines of text:
//   "set port 5 mode=1", "del port 5", "publish ...", "hset glb fields 6 7 age_time=30",
//   "established", "withdrawn", "over", "open", "done", "error -11 "
class Recorder
{
  public:
    static int callback(void *ctx, tq_mom_record_t *record, void *user);
    static int connected(void *ctx, void *user);
    void add(const std::string &line);

    // The lines since the last call, joined by ", ".
    std::string take();

    std::function<void(const std::string &line)> on_line; // called for each, from inside the callback
    int result = 0;                                       // what the callback returns

  private:
    Lines lines_;
};

// Clients and recorders by name, made when they are first named. A client has
// databases 0, 4, 6 and 8 connected; what becomes of its connections goes to the
// recorder CLIENT.links as "lost 4" and "back 4 type 2".
class Play
{
  public:
    Play(Store &store, Loop &loop) : store_(store), loop_(loop) {}
    ~Play();
    Play(const Play &) = delete;
    Play &operator=(const Play &) = delete;

    // Runs a script of steps, each on a line or before a semicolon:
    //   CLIENT detach
    //   CLIENT OPERATION DB [OBJECT] [@OWNER] [> RECORDER] [= RESULT]   expects RESULT (0 where it is left out);
    //                                                                   store_harness.cpp has the operations
    //   RECORDER: TEXT   runs the loop, then expects what the recorder has been told
    //   RECORDER! TEXT   the same without running the loop
    void operator()(const std::string &script);

    void *ctx(const std::string &client);
    Recorder &told(const std::string &recorder) { return recorders_[recorder]; }

  private:
    struct Client {
        Recorder *links;
    };
    static int on_lost(void *ctx, uint32_t db);
    static int on_back(void *ctx, uint32_t db, int32_t type);
    void perform(const std::string &step);

    Store &store_;
    Loop &loop_;
    std::map<std::string, Recorder> recorders_;
    std::map<std::string, Client> clients_; // the addresses are their contexts
};

class StoreTest : public testing::TestWithParam<StoreUnderTest>
{
  protected:
    VirtualLoop loop_;
    std::unique_ptr<Store> store_ = GetParam().make();
    Play play_{*store_, loop_};
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
