// The calls of the module that can fail, as the module built with redirect.h
// announces them: a decider says for every single call whether it fails.
#pragma once

#include "fp_udp.h"
#include "tq_mom.h"

#include <functional>

namespace vvl::fault
{

// What has to follow when this call fails.
enum class Answer {
    goes_on,        // the module reports it and works on
    ends_process,   // the start-up or re-initialisation ends the process with the code
    stops_loading,  // an entry point hands the code to the host, which starts the module anew
    lasts_for_life, // what was not set up is missing until the module is restarted
    lasts_in_plane, // the same in the forwarding plane: the reconciliation of a restart makes it good
};

struct Call {
    const char *name;
    int code; // what the failed call returns; where it returns a pointer: the module's own code for null
    Answer answer;
};

// Codes of failures from outside.
constexpr int no_object = -2;
constexpr int no_memory = -6;
constexpr int not_found = -7;
constexpr int unreachable = TQ_MOM_E_UNREACHABLE;
constexpr int unavailable = -17;

// True to fail the call. Called from inside the module.
using Decider = std::function<bool(const Call &)>;

// Replaces the decider; with an empty one no call fails.
void set_decider(Decider decider);

// Whether the module has asked the host to finish since the last question.
bool take_finish_request();

} // namespace vvl::fault

// For the module.
extern "C" {
bool fault_fails(const vvl::fault::Call &call);
fp_udp_mgr_t *fault_fp_udp_get_mgr();
void fault_tq_global_finish(void *ctx);
}
