// A file is opened without waiting and looked at before it is read: a FIFO would
// wait for a writer, and a device may have no end.
#include "platform/base/file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace vvl
{
namespace
{

std::string too_large(size_t size_max)
{
    return "larger than " + std::to_string(size_max) + " bytes";
}

// The reason why a file cannot be an input; empty where it can.
std::string fault_of(int descriptor, size_t size_max)
{
    struct stat status = {};
    if (fstat(descriptor, &status) != 0) {
        return std::strerror(errno);
    }
    if (S_ISDIR(status.st_mode)) {
        return std::strerror(EISDIR);
    }
    if (!S_ISREG(status.st_mode)) {
        return "not a regular file";
    }
    return static_cast<uint64_t>(status.st_size) > size_max ? too_large(size_max) : "";
}

// The size is checked here too: standard input has none, and a file may grow.
std::string read_all(std::FILE *file, std::string &text, size_t size_max)
{
    char block[65536];
    for (size_t count = 0; (count = std::fread(block, 1, sizeof block, file)) > 0;) {
        if (text.size() + count > size_max) {
            return too_large(size_max);
        }
        text.append(block, count);
    }
    return std::ferror(file) != 0 ? std::strerror(errno) : "";
}

bool has_byte_order_mark(const std::string &text)
{
    return text.starts_with("\xef\xbb\xbf") || text.starts_with("\xff\xfe") || text.starts_with("\xfe\xff");
}

} // namespace

File open_input(const std::string &path, std::string &why, size_t size_max)
{
    const int descriptor = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    const std::string reason = descriptor < 0 ? std::strerror(errno) : fault_of(descriptor, size_max);
    if (!reason.empty()) {
        if (descriptor >= 0) {
            close(descriptor);
        }
        why = path + ": " + reason;
        return nullptr;
    }
    return File(fdopen(descriptor, "rb"));
}

bool read_text_file(const std::string &path, std::string &text, std::string &why, size_t size_max)
{
    const bool is_stdin = path == "-";
    const File file = is_stdin ? nullptr : open_input(path, why, size_max);
    if (!is_stdin && file == nullptr) {
        return false;
    }
    std::string read;
    std::string reason = read_all(is_stdin ? stdin : file.get(), read, size_max);
    if (reason.empty() && has_byte_order_mark(read)) {
        reason = "begins with a byte-order mark; save it as UTF-8 without one";
    }
    if (!reason.empty()) {
        why = path + ": " + reason;
        return false;
    }
    text = std::move(read);
    return true;
}

} // namespace vvl
