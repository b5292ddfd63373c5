// The platform as the module's fuzz targets see it: every function answers,
// none does anything. Messages and fields are read through, so that the
// sanitizers see what the module hands out; objects come from the heap, so that
// they see what it does not give back.
#pragma once

#include "tq_global.h"

#include <cstdint>
#include <vector>

namespace vvl::test
{

// The user argument of a subscription of the start-up synchronisation.
struct SyncEntry {
    const char *type; // full name of the subscribed message
    void *entry;
};

struct NullPlatform {
    tq_global_t global{};
    uint64_t calls = 0;    // that ask the store or the plane for something
    uint32_t fail_in = 0;  // so many calls from now one fails; 0: none does
    bool fail_on = false;  // and then every further one as well
    bool has_join = false; // what a read by key finds
    std::vector<SyncEntry> entries;

    // Counts a call and says whether it is to fail.
    bool fails();
};

NullPlatform &null_platform();

// ifx below this have a physical id (ifx + null_phyid_base), others none.
constexpr uint32_t null_port_count = 64;
constexpr uint32_t null_phyid_base = 256;

} // namespace vvl::test
