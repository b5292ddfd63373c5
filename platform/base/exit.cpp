#include "platform/base/exit.h"

#include <fcntl.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace vvl
{

int fail(const char *program, int code, const std::string &why)
{
    std::fprintf(stderr, "%s: %s\n", program, why.c_str());
    return code;
}

void hold_standard_descriptors()
{
    for (int descriptor : {0, 1, 2}) {
        if (fcntl(descriptor, F_GETFD) < 0) {
            // Takes the lowest free number. Output that is lost is then reported;
            // there is nobody to report lost errors to.
            open("/dev/null", descriptor == 2 ? O_WRONLY : O_RDONLY);
        }
    }
}

int end_output(const char *program, int code)
{
    const bool failed_before = std::ferror(stdout) != 0;
    if (std::fflush(stdout) != 0) {
        return fail(program, exit_failed, std::string("standard output: ") + std::strerror(errno));
    }
    return failed_before ? fail(program, exit_failed, "standard output: not everything could be written") : code;
}

} // namespace vvl
