// What an operator chooses of the plane in the kernel, and what its process does with it.
#pragma once

#include <string>

namespace vvl::fp
{

struct EbpfOptions {
    std::string pin_folder = "/sys/fs/bpf/voice-vlan"; // on a BPF file system; made where it is missing
    bool is_agent = true; // this process installs the states and attaches the ports; one at a time does
    bool is_sides = true; // this process reads the events and sets the traps; one at a time does
};

} // namespace vvl::fp
