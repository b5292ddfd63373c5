// How the programs end.
#pragma once

#include <string>

namespace vvl
{

constexpr int exit_good = 0;
constexpr int exit_failed = 1;  // the program could not do what was requested
constexpr int exit_refused = 2; // the input was wrong, and nothing was done

// Prints "PROGRAM: why" to standard error, in one line, and returns code.
int fail(const char *program, int code, const std::string &why);

} // namespace vvl
