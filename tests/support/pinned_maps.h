// Programs of a test's own around the maps of the plane that is pinned.
#pragma once

#include "platform/fp/ebpf/layout.h"

#include <bpf/bpf.h>
#include <bpf/libbpf.h>
#include <stdexcept>
#include <string>
#include <unistd.h>

namespace vvl::test
{

// Loads the object; each of its maps that the plane has is the plane's. Throws
// std::runtime_error where the kernel does not take it.
inline void load_with_pinned_maps(bpf_object *object, const std::string &pin_folder)
{
    const std::string pins = pin_folder + "/layout-" + std::to_string(VV_LAYOUT) + "/";
    bpf_map *map = nullptr;
    bpf_object__for_each_map(map, object)
    {
        const std::string name = bpf_map__name(map);
        const bool is_globals = name.find(".bss") != std::string::npos;
        const int fd = bpf_obj_get((pins + (is_globals ? "globals" : name)).c_str());
        if (fd >= 0) {
            bpf_map__reuse_fd(map, fd);
            close(fd);
        }
    }
    if (bpf_object__load(object) != 0) {
        throw std::runtime_error(std::string(bpf_object__name(object)) + ": the kernel does not take it");
    }
}

} // namespace vvl::test
