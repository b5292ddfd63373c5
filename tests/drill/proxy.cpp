#include "tests/drill/proxy.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cstring>
#include <stdexcept>

namespace vvl::drill
{
namespace
{

constexpr int look_ms = 5; // between looks at what the test has asked for

sockaddr_un address_of(const std::string &path)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    return address;
}

} // namespace

Proxy::Proxy(const std::string &folder, const std::string &target) : path_(folder + "/proxy.sock"), target_(target)
{
    const sockaddr_un address = address_of(path_);
    listener_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (bind(listener_, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0 ||
        listen(listener_, 64) != 0) {
        throw std::runtime_error("proxy: cannot listen on " + path_);
    }
    thread_ = std::thread([this] { run(); });
}

Proxy::~Proxy()
{
    ended_ = true;
    thread_.join();
    close_all();
    close(listener_);
}

void Proxy::switch_to(const std::string &target)
{
    const std::lock_guard lock(target_lock_);
    target_ = target;
    cut_now_ = true;
}

void Proxy::close_all()
{
    for (const Pair &pair : pairs_) {
        close(pair.client);
        close(pair.server);
    }
    pairs_.clear();
}

void Proxy::accept_one()
{
    const int client = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
    const int server = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const std::lock_guard lock(target_lock_);
    const sockaddr_un address = address_of(target_);
    if (client < 0 || connect(server, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) {
        close(client);
        close(server);
        return;
    }
    pairs_.push_back({client, server});
}

// False where the connection has ended or is to be cut here.
bool Proxy::hand_on(int from, int to, bool is_reply)
{
    std::array<char, 65536> buffer;
    const ssize_t size = recv(from, buffer.data(), buffer.size(), MSG_DONTWAIT);
    if (size <= 0) {
        return false;
    }
    ssize_t passed = size;
    if (is_reply && left_ >= 0) {
        passed = std::min<int64_t>(size, left_);
        left_ -= size;
        cut_now_ = left_ < 0;
    }
    for (ssize_t sent = 0; sent < passed;) {
        const ssize_t part = send(to, buffer.data() + sent, static_cast<size_t>(passed - sent), MSG_NOSIGNAL);
        if (part <= 0) {
            return false;
        }
        sent += part;
    }
    return true;
}

void Proxy::run()
{
    while (!ended_) {
        std::vector<pollfd> fds{{listener_, POLLIN, 0}};
        for (const Pair &pair : pairs_) {
            fds.push_back({pair.client, POLLIN, 0});
            fds.push_back({pair.server, POLLIN, 0});
        }
        poll(fds.data(), fds.size(), look_ms);
        const size_t count = pairs_.size();
        std::vector<Pair> kept;
        for (size_t i = 0; i < count; i++) {
            const Pair pair = pairs_[i];
            const bool lives = (fds[1 + 2 * i].revents == 0 || hand_on(pair.client, pair.server, false)) &&
                               (fds[2 + 2 * i].revents == 0 || hand_on(pair.server, pair.client, true));
            if (lives) {
                kept.push_back(pair);
            } else {
                close(pair.client);
                close(pair.server);
            }
        }
        pairs_ = std::move(kept);
        if (cut_now_.exchange(false)) {
            close_all();
        }
        if (fds[0].revents != 0) {
            accept_one();
        }
    }
}

} // namespace vvl::drill
