// Where a run with a fault may end in another state than one without: a row
// for each difference that the module's contract allows, with its reason.
// Whatever has no row has to be equal after each ending.
#pragma once

#include "tests/fault/snapshot.h"

namespace vvl::fault
{

// The endings, in the order in which they are tried; each comes on top of the
// one before it. What a restart alone repairs is not compared before it.
enum class Ending {
    reinitialisation, // every database was lost and is back
    restart,          // the module was unloaded and loaded again
    next_calls,       // every device was silent for so long that its port left, and has then called again
};

// Takes out of both what may differ after this ending.
void remove_allowed_differences(Ending ending, Snapshot &expected, Snapshot &found);

} // namespace vvl::fault
