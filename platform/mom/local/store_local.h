// The object store inside this process: always reachable unless a link is cut
// on purpose, empty at every start.
#pragma once

#include "platform/mom/store.h"

namespace vvl::mom
{

// Scans list objects in the order of their key strings.
std::unique_ptr<Store> make_local_store();

} // namespace vvl::mom
