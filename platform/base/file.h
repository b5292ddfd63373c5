// Files that a person names as input: opened and read in one way, so that each
// fault is one line with the reason.
#pragma once

#include <cstddef>
#include <cstdio>
#include <memory>
#include <string>

namespace vvl
{

constexpr size_t input_size_max = size_t{64} << 20; // bytes of an input file
constexpr size_t input_line_size_max = 4096;        // bytes of a line, without its end

struct FileCloser {
    void operator()(std::FILE *file) const { std::fclose(file); }
};
using File = std::unique_ptr<std::FILE, FileCloser>;

// Opens a regular file of at most size_max bytes for reading; never waits for it.
// Null with "PATH: reason" in why otherwise.
File open_input(const std::string &path, std::string &why, size_t size_max = input_size_max);

// Reads a text file as open_input does; "-": standard input, whatever that is.
// A file that begins with a byte-order mark is refused. On failure why is
// "PATH: reason" and text is unchanged.
bool read_text_file(const std::string &path, std::string &text, std::string &why, size_t size_max = input_size_max);

} // namespace vvl
