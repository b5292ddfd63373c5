// The server runs as a child that dies with its parent, so that no failed test
// leaves one behind. It is ready when it answers PING, which it does not while
// it reads its append-only file.
#include "tests/support/redis_server.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <thread>

namespace vvl::test
{
namespace
{

constexpr auto ready_limit = std::chrono::seconds(10);

} // namespace

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
    const auto end = std::chrono::steady_clock::now() + ready_limit;
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
    std::vector<std::string> words = {"redis-cli", "-s", socket()};
    words.insert(words.end(), arguments.begin(), arguments.end());
    const std::vector<char *> list = argument_list(words);
    std::array<int, 2> out{};
    if (pipe2(out.data(), O_CLOEXEC) != 0) {
        throw std::runtime_error("redis-cli: no pipe");
    }
    const pid_t child = fork();
    if (child == 0) {
        dup2(out[1], STDOUT_FILENO);
        dup2(open("/dev/null", O_WRONLY), STDERR_FILENO);
        execvp(list[0], list.data());
        _exit(127);
    }
    close(out[1]);
    std::string text;
    std::array<char, 4096> buffer{};
    for (ssize_t size = 0; (size = read(out[0], buffer.data(), buffer.size())) > 0;) {
        text.append(buffer.data(), static_cast<size_t>(size));
    }
    close(out[0]);
    waitpid(child, nullptr, 0);
    return text;
}

RedisServer &shared_redis_server()
{
    static RedisServer server;
    return server;
}

} // namespace vvl::test
