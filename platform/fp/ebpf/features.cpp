// What this machine offers, tried out rather than derived from its version.
#include "platform/fp/ebpf/features.h"

#include "platform/fp/ebpf/attach.h"
#include "platform/fp/ebpf/kernel.h"

#include <bpf/libbpf.h>
#include <cerrno>
#include <fstream>
#include <linux/capability.h>
#include <linux/membarrier.h>
#include <net/if.h>
#include <sched.h>
#include <sys/syscall.h>
#include <sys/utsname.h>
#include <sys/wait.h>
#include <unistd.h>

namespace vvl::fp
{
namespace
{

EbpfFeature kernel_release()
{
    utsname name{};
    uname(&name);
    return {"kernel", true, name.release};
}

EbpfFeature capability(const char *name, unsigned number)
{
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct data[_LINUX_CAPABILITY_U32S_3]{};
    const bool asked = syscall(SYS_capget, &header, data) == 0;
    const bool has = asked && (data[number / 32].effective & (1u << number % 32)) != 0;
    return {name, has, has ? "effective" : "missing; run as root or give it to the service"};
}

EbpfFeature jit()
{
    std::ifstream file("/proc/sys/net/core/bpf_jit_enable");
    int value = 0;
    if (!file) { // the first network namespace alone shows it
        return {"JIT compiler", true, "not shown in this network namespace"};
    }
    const bool on = static_cast<bool>(file >> value) && value != 0;
    return {"JIT compiler", on, on ? "on" : "off; sysctl net.core.bpf_jit_enable=1"};
}

EbpfFeature pin_folder(const std::string &folder)
{
    std::string why;
    PinFolderWork work;
    const bool good = prepare_pin_folder(folder, work, why);
    undo_pin_folder(work); // to ask leaves nothing behind, and takes nothing away
    return {"BPF file system", good, good ? folder : why};
}

EbpfFeature map_type(const char *name, bpf_map_type type)
{
    const bool has = libbpf_probe_bpf_map_type(type, nullptr) == 1;
    return {name, has, has ? "supported" : "not supported by this kernel, or not permitted"};
}

EbpfFeature membarrier()
{
    const long commands = syscall(SYS_membarrier, MEMBARRIER_CMD_QUERY, 0, 0);
    const bool has = commands >= 0 && (commands & MEMBARRIER_CMD_GLOBAL) != 0;
    return {"membarrier", has, has ? "supported" : "not supported by this kernel"};
}

EbpfFeature programs()
{
    std::string why;
    const bool good = try_programs(why);
    return {"programs", good, good ? "accepted by the verifier" : why};
}

// Whether a clsact queue discipline can be made, tried in a network namespace
// that ends with the process that makes it.
EbpfFeature clsact()
{
    const pid_t child = fork();
    if (child == 0) {
        bpf_tc_hook hook{};
        hook.sz = sizeof hook;
        hook.ifindex = 1; // the loopback interface of each namespace
        hook.attach_point = BPF_TC_INGRESS;
        if (unshare(CLONE_NEWNET) != 0) {
            _exit(2);
        }
        _exit(bpf_tc_hook_create(&hook) == 0 ? 0 : 1);
    }
    int status = 0;
    const bool ended = child > 0 && waitpid(child, &status, 0) == child && WIFEXITED(status);
    if (ended && WEXITSTATUS(status) == 2) {
        return {"clsact hooks", true, "not tried; that takes a network namespace of its own"};
    }
    const bool good = ended && WEXITSTATUS(status) == 0;
    return {"clsact hooks", good, good ? "supported" : "not supported by this kernel, or not permitted"};
}

} // namespace

std::vector<EbpfFeature> ebpf_features(const EbpfOptions &options)
{
    return {kernel_release(),
            capability("CAP_BPF", CAP_BPF),
            capability("CAP_NET_ADMIN", CAP_NET_ADMIN),
            jit(),
            pin_folder(options.pin_folder),
            map_type("hash maps", BPF_MAP_TYPE_HASH),
            map_type("ring buffer", BPF_MAP_TYPE_RINGBUF),
            membarrier(),
            programs(),
            clsact()};
}

} // namespace vvl::fp
