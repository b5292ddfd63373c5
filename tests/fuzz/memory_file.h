// A file for parsers that take a path: it lives in memory, under /proc.
#pragma once

#include "tests/fuzz/byte_reader.h"

#include <string>
#include <sys/mman.h>
#include <unistd.h>

namespace vvl::test
{

class MemoryFile
{
  public:
    MemoryFile() : file_(memfd_create("fuzz", MFD_CLOEXEC)) { require(file_ >= 0, "memory for a file"); }
    ~MemoryFile() { close(file_); }
    MemoryFile(const MemoryFile &) = delete;
    MemoryFile &operator=(const MemoryFile &) = delete;

    std::string path() const { return "/proc/self/fd/" + std::to_string(file_); }

    void replace(std::span<const uint8_t> content)
    {
        require(ftruncate(file_, 0) == 0 &&
                    pwrite(file_, content.data(), content.size(), 0) == static_cast<ssize_t>(content.size()),
                "the file is written");
    }

  private:
    int file_;
};

} // namespace vvl::test
