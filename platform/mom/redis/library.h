// The function library that runs inside the server: each request of a session
// is one call of it, hence one atomic step, notifications included.
#pragma once

namespace vvl::mom
{

// Its name carries its version: another version is another library, so that
// agents of two versions can share a server.
inline constexpr char redis_library_name[] = "vvlan2";

// Text for FUNCTION LOAD. docs/store.md describes the functions and the keys.
extern const char redis_library[];

} // namespace vvl::mom
