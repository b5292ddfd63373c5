// A fuzz target of the module: the step that the build names
// (VVLAN_FUZZ_STEP), repeated. Its dumps go nowhere.
#include "tests/fuzz/module_steps.h"

#include <cstdio>

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    return std::freopen("/dev/null", "w", stdout) == nullptr ? 1 : 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    vvl::test::run_module(VVLAN_FUZZ_STEP, {data, size});
    return 0;
}
