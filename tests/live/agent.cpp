#include "tests/live/agent.h"

#include <algorithm>
#include <cstdlib>
#include <fcntl.h>
#include <fstream>
#include <poll.h>
#include <stdexcept>
#include <unistd.h>

namespace vvl::live
{
namespace
{

constexpr int start_limit_ms = 10'000;
constexpr const char *taken_over = "forwarding plane: reconciliation ended";

} // namespace

int patience()
{
    const char *asked = std::getenv("VVLAN_PATIENCE");
    return asked != nullptr ? std::max(1, std::atoi(asked)) : 1;
}

Agent::Agent(unsigned port_count) : config_(redis_.folder() + "/vvland.conf")
{
    std::ofstream file(config_);
    file << "[host]\nlog-level = info\n[store]\nkind = redis\naddress = " << redis_.address()
         << "\n[plane]\nkind = ebpf\n";
    for (unsigned port = 1; port <= port_count; port++) {
        file << "[port " << port << "]\nphyid = " << port << "\ninterface = acc" << port << "\n";
    }
    file << "[port " << port_count + 1 << "]\nphyid = " << port_count + 1 << "\ninterface = uplink\nrole = uplink\n";
}

void Agent::start()
{
    int ends[2];
    if (pipe2(ends, O_CLOEXEC | O_NONBLOCK) != 0) {
        throw std::runtime_error("no pipe for the agent's words");
    }
    words_.clear();
    output_ = ends[0];
    started_ = Clock::now();
    process_.emplace(std::vector<std::string>{VVLAND_COMMAND, "run", "--config", config_}, ends[1]);
    close(ends[1]);
}

void Agent::kill()
{
    if (process_) {
        process_.reset();
        close(output_);
    }
}

double Agent::wait_until_reconciled()
{
    const auto end = started_ + std::chrono::milliseconds(start_limit_ms) * patience();
    while (words_.find(taken_over) == std::string::npos) {
        pollfd wait{output_, POLLIN, 0};
        char text[4096];
        const bool ready = poll(&wait, 1, 10) > 0;
        const ssize_t size = ready ? read(output_, text, sizeof text) : 0;
        words_.append(text, size > 0 ? static_cast<size_t>(size) : 0);
        if ((ready && size == 0) || Clock::now() > end) {
            throw std::runtime_error("the agent did not take over; it said:\n" + words_);
        }
    }
    return std::chrono::duration<double, std::milli>(Clock::now() - started_).count();
}

void Agent::finish_configuring()
{
    const int status = control_ ? control_->wait_for_end() : 0;
    control_.reset();
    if (status != 0) {
        throw std::runtime_error("vvlanctl could not write the configuration");
    }
}

void Agent::begin_to_configure(const std::string &line)
{
    finish_configuring();
    control_.emplace(std::vector<std::string>{VVLANCTL_COMMAND, "--store", redis_.address(), "set", line});
}

void Agent::configure(const std::vector<std::string> &lines)
{
    for (const std::string &line : lines) {
        begin_to_configure(line);
    }
    finish_configuring();
}

} // namespace vvl::live
