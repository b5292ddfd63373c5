// A fuzz target of the module: the step that the build names
// (VVLAN_FUZZ_STEP), repeated. Its dumps go nowhere.
#include "tests/fuzz/module_steps.h"

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    return std::freopen("/dev/null", "w", stdout) == nullptr ? 1 : 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static const vvl::test::Step step = vvl::test::find_step(VVLAN_FUZZ_STEP);
    vvl::test::require(step != nullptr, "the target's step exists");
    vvl::test::run_module(step, {data, size});
    return 0;
}
