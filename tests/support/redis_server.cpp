// The server runs as a child that dies with its parent, so that no failed test
// leaves one behind. It is ready when it answers PING, which it does not while
// it reads its append-only file.
#include "tests/support/redis_server.h"

#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <thread>

namespace vvl::test
{
RedisServer::RedisServer(std::vector<std::string> arguments, const std::vector<std::string> &sentinel)
    : arguments_(std::move(arguments)), is_sentinel_(!sentinel.empty())
{
    std::string pattern = std::filesystem::temp_directory_path() / "vvlan-redis-XXXXXX";
    if (mkdtemp(pattern.data()) == nullptr) {
        throw std::runtime_error("redis-server: no temporary folder");
    }
    folder_ = pattern;
    std::ofstream config(folder_ + "/server.conf");
    for (const std::string &line : sentinel) {
        config << line << '\n';
    }
    config.close();
    start();
}

RedisServer::~RedisServer()
{
    kill();
    std::error_code ignored;
    std::filesystem::remove_all(folder_, ignored);
}

void RedisServer::start()
{
    std::vector<std::string> words = {
        "redis-server", folder_ + "/server.conf", "--port",      "0", "--unixsocket", socket(), "--dir", folder_,
        "--logfile",    folder_ + "/log",         "--daemonize", "no"};
    const std::vector<std::string> own = is_sentinel_ ? std::vector<std::string>{"--sentinel"}
                                                      : std::vector<std::string>{"--appendonly", "yes", "--save", ""};
    words.insert(words.end(), own.begin(), own.end());
    words.insert(words.end(), arguments_.begin(), arguments_.end());
    process_.emplace(std::move(words));
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (cli({"PING"}) != "PONG\n") {
        if (process_->has_ended() || std::chrono::steady_clock::now() > end) {
            throw std::runtime_error("redis-server: does not answer; see " + folder_ + "/log");
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
}

void RedisServer::kill()
{
    process_.reset();
}

void RedisServer::pause()
{
    process_->signal(SIGSTOP);
}

void RedisServer::proceed()
{
    process_->signal(SIGCONT);
}

std::string RedisServer::cli(const std::vector<std::string> &arguments) const
{
    std::string command = "redis-cli -s " + socket();
    for (const std::string &argument : arguments) {
        command += " '" + argument + "'";
    }
    std::FILE *out = popen((command + " 2>/dev/null").c_str(), "re");
    if (out == nullptr) {
        throw std::runtime_error("redis-cli: cannot be run");
    }
    std::string text;
    std::array<char, 4096> buffer{};
    for (size_t size = 0; (size = std::fread(buffer.data(), 1, buffer.size(), out)) > 0;) {
        text.append(buffer.data(), size);
    }
    pclose(out);
    return text;
}

RedisServer &shared_redis_server()
{
    static RedisServer server;
    return server;
}

} // namespace vvl::test
