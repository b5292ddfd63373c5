#include "platform/base/exit.h"

#include <cstdio>

namespace vvl
{

int fail(const char *program, int code, const std::string &why)
{
    std::fprintf(stderr, "%s: %s\n", program, why.c_str());
    return code;
}

} // namespace vvl
