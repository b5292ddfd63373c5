// What an operator chooses of the plane in the kernel.
#pragma once

#include <string>

namespace vvl::fp
{

struct EbpfOptions {
    std::string pin_folder = "/sys/fs/bpf/voice-vlan"; // on a BPF file system; made where it is missing
};

} // namespace vvl::fp
