// The function library that runs inside the server: each request of a session
// is one call of it, hence one atomic step, notifications included.
#pragma once

namespace vvl::mom
{

// Both are made by the build from library.lua.

// Text for FUNCTION LOAD. docs/store.md describes the functions and the keys.
extern const char redis_library[];

// The name in the text's first line; each function is called NAME_FUNCTION. It
// carries a version: another version is another library, so that agents of two
// versions can share a server.
extern const char redis_library_name[];

} // namespace vvl::mom
