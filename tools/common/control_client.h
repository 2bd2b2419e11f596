// Client side of the simulator's control service ("devsim.control"): the
// `hmisvc sim` commands and the QML module Hmisvc.Testing call it the same way.
#ifndef HMISVC_TOOLS_CONTROL_CLIENT_H
#define HMISVC_TOOLS_CONTROL_CLIENT_H

#include <cstdint>
#include <string>
#include <vector>

namespace hmisvc::tools {

constexpr const char *kControlService = "devsim.control";

// Its request codes: the order of its method table.
namespace control {
enum Code : uint32_t {
    kDump, kSet, kFail, kHeal, kPublish, kUnpublish, kLoadState,
    kCalls, kMark, kWaitCall, kClearCalls, kReply, kReset, kPlay, kBroadcast,
    kCrash, kRestart, kProcesses
};
}  // namespace control

// One word argument or one string argument, in request order.
struct ControlArg {
    bool text;
    std::string s;
    int32_t n;
};

// Room for the largest answer, a dump of the state.
constexpr uint32_t kControlMapSize = 1024 * 1024;

// Calls the control service on a connection of its own: its result (0
// done, 1 failed, 2 refused) with its answer text, or -1 with `answer`
// saying why there is none (no simulator, no answer, an older simulator).
int control_call(uint32_t code, const std::vector<ControlArg> &args, std::string &answer);

}  // namespace hmisvc::tools

#endif
