// The calls of the module that can fail, each in front of the platform's
// function of the same name: a decider says for every single call whether it
// fails. A call that fails does not reach the platform.
#pragma once

#include <functional>

namespace vvl::fault
{

// What has to follow when this call fails.
enum class Answer {
    goes_on,        // the module reports it and works on
    ends_process,   // the start-up or re-initialisation ends the process with the code
    stops_loading,  // an entry point hands the code to the host, which starts the module again
    lasts_for_life, // what was not set up is missing until the module is restarted
    lasts_in_plane, // the same in the forwarding plane: the reconciliation of a restart makes it good
};

struct Call {
    const char *name;
    int code; // what the failed call returns; where it returns a pointer: the module's own code for null
    Answer answer;
};

// True to fail the call. Called from inside the module.
using Decider = std::function<bool(const Call &)>;

// Replaces the decider; with an empty one no call fails.
void set_decider(Decider decider);

// Whether the module has asked the host to finish since the last question.
bool take_finish_request();

} // namespace vvl::fault
