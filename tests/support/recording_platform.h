// The platform as a test of the module sees it: every function that the module
// can call is here, does nothing, and notes the call as one short line, in
// order: "set 4 p_bridge.vvlan_port_auto{index{ifx:5} enable:1}" (see
// message_text.h), "bind 102 261 opt", "timer 60.0s udp_vvlan".
//
// A call whose line begins with a chosen text can be made to fail. What a call
// registers or asks for (subscriptions, scans, timers, commands) is kept, so
// that a test can answer it. A context other than the host's shows as " @other",
// an argument that breaks the interface as a word with an exclamation mark.
#pragma once

#include "fp_udp.h"
#include "ssat.h"
#include "tests/support/message_text.h"
#include "tq_global.h"
#include "tq_mom.h"
#include "tq_thread.h"

#include <functional>
#include <map>
#include <string>
#include <vector>

namespace vvl::test
{

using Lines = std::vector<std::string>;

struct RecordingPlatform {
    struct Subscriber {
        tq_mom_callback_t function;
        void *user;
    };
    struct Fault {
        std::string prefix; // of the calls that fail
        int code;           // that they answer; a call that returns an object: null
        int skip = 0;       // so many of them go well first
        int count = -1;     // then so many fail; negative: without end
    };

    // Notes a call; 0 or the code that it is to fail with.
    int call(const std::string &line);
    // Answers like call, without noting.
    int fault_of(const std::string &line);
    // The one fault from now on.
    void fail(const std::string &prefix, int code, int skip = 0, int count = -1)
    {
        faults = {{prefix, code, skip, count}};
    }
    // Hands a record to what was registered under the key: the call and the
    // message type, for a field subscription with "/" and the field number.
    int deliver(const std::string &key, tq_mom_record_t record);
    std::string at(const void *ctx) const { return ctx == &global ? "" : " @other"; }

    tq_global_t global{};
    std::function<void(const std::string &line)> on_call; // from inside each call that goes well; may be empty
    Lines lines;                                          // calls
    Lines logs; // "error text", "warn text", ... with line ends as "\n" in two characters
    std::vector<Fault> faults;
    tq_mom_connect_cb_t connect_cb = nullptr;
    std::map<uint32_t, void *> connect_users; // by database
    tq_mom_disconnect_cb_t disconnect_cb = nullptr;
    tq_mom_reconnect_cb_t reconnect_cb = nullptr;
    std::map<std::string, Subscriber> subscribers; // by key of deliver
    std::vector<tq_mom_record_t> sync_records;     // what a synchronous scan delivers
    ProtobufCMessage *stored = nullptr;            // what a read by key finds; the test's
    tq_thread_func_t timer = nullptr;              // armed last
    std::map<std::string, ssat_handler_t> commands;
    fp_udp_mgr_t manager{};
    int objects_live = 0; // ACE and apply objects that were not released
    bool echo = false;    // lines go to standard error too: all that a process leaves that ends
};

// The platform of the test that runs; reset makes a new one.
RecordingPlatform &platform();
void reset_platform();

} // namespace vvl::test
