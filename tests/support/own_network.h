// A network namespace and a BPF file system of the process's own, for what is
// tested on real interfaces. They go with the process.
#pragma once

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sched.h>
#include <stdexcept>
#include <string>
#include <sys/mount.h>

namespace vvl::test
{

// No frames but the test's.
inline void silence_ipv6()
{
    std::ofstream("/proc/sys/net/ipv6/conf/default/disable_ipv6") << 1;
}

// Moves the process there, with its first call. Returns the reason where it may
// not, which is one to leave a test out; empty otherwise. VVLAN_OWN_NETWORK says
// that the caller has done so: the process then needs fewer capabilities.
inline const std::string &enter_own_network()
{
    static const std::string why = []() -> std::string {
        if (std::getenv("VVLAN_OWN_NETWORK") != nullptr) {
            return "";
        }
        if (unshare(CLONE_NEWNET | CLONE_NEWNS) != 0 ||
            mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
            mount("bpf", "/sys/fs/bpf", "bpf", 0, nullptr) != 0) {
            return std::string("needs root, for namespaces and a BPF file system of its own: ") + std::strerror(errno);
        }
        silence_ipv6();
        return "";
    }();
    return why;
}

// Leaves the process's network for an empty one.
inline void enter_empty_network()
{
    if (unshare(CLONE_NEWNET) != 0) {
        throw std::runtime_error(std::string("no further network namespace: ") + std::strerror(errno));
    }
    silence_ipv6();
}

inline void run_command(const std::string &command)
{
    if (std::system(command.c_str()) != 0) {
        throw std::runtime_error("failed: " + command);
    }
}

} // namespace vvl::test
