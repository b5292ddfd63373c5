// A file for parsers that take a path: it lives in memory, under /proc.
#pragma once

#include "tests/fuzz/byte_reader.h"

#include <sys/mman.h>
#include <unistd.h>

namespace vvl::test
{

// The file's path, the same every time. What it held before is gone.
inline std::string memory_file(std::span<const uint8_t> content)
{
    static const int file = memfd_create("fuzz", MFD_CLOEXEC);
    require(ftruncate(file, 0) == 0 &&
                pwrite(file, content.data(), content.size(), 0) == static_cast<ssize_t>(content.size()),
            "the file is written");
    return "/proc/self/fd/" + std::to_string(file);
}

} // namespace vvl::test
