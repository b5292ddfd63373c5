// Stands between a store's client and its server and cuts their connections
// where it is told to. It runs in a thread of its own, since a synchronous call
// of the client keeps the client's loop waiting.
#pragma once

#include <atomic>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace vvl::drill
{

class Proxy
{
  public:
    // Listens on a unix socket in folder and hands everything on to target's.
    Proxy(const std::string &folder, const std::string &target);
    ~Proxy();
    Proxy(const Proxy &) = delete;
    Proxy &operator=(const Proxy &) = delete;

    std::string address() const { return "unix:" + path_; }

    // Hands on count bytes more from the server, on all connections together,
    // and then cuts all of them. Connections that come afterwards are whole.
    void cut_after(int64_t count) { left_ = count; }
    bool has_cut() const { return left_ < 0; }

    // Cuts everything; what connects from now on reaches another server.
    void switch_to(const std::string &target);

  private:
    struct Pair {
        int client;
        int server;
    };

    void run();
    void accept_one();
    bool hand_on(int from, int to, bool is_reply);
    void close_all();

    const std::string path_;
    std::mutex target_lock_;
    std::string target_;
    std::atomic<int64_t> left_ = -1; // bytes to the cut; negative: none is due
    std::atomic<bool> cut_now_ = false;
    std::atomic<bool> ended_ = false;
    int listener_ = -1;
    std::vector<Pair> pairs_; // of the thread
    std::thread thread_;
};

} // namespace vvl::drill
