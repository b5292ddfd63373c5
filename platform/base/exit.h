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

// Opens descriptors 0 to 2 where the parent has closed them, so that no file of
// the program gets their number and with it what is meant for standard error.
// Call it first.
void hold_standard_descriptors();

// Writes out standard output. Returns code, or exit_failed with one line on
// standard error where something could not be written. Call it last.
int end_output(const char *program, int code);

} // namespace vvl
