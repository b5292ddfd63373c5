// What this machine offers to the plane in the kernel.
#pragma once

#include "platform/fp/ebpf/options.h"

#include <string>
#include <vector>

namespace vvl::fp
{

// What the plane needs of this machine, for the operator.
struct EbpfFeature {
    std::string name;
    bool available = false;
    std::string detail; // what is there, or what is missing and what helps
};

std::vector<EbpfFeature> ebpf_features(const EbpfOptions &options);

} // namespace vvl::fp
