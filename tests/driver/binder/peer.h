// Small echo services the binder tests talk to.
#ifndef HMISVC_TESTS_DRIVER_PEER_H
#define HMISVC_TESTS_DRIVER_PEER_H

#include "process.h"

#include <hmisvc/binder.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace peer {

// Codes the echo service understands.
enum EchoCode : uint32_t {
    ECHO_ADD1 = 1,  // uint32 n -> n + 1
    ECHO_PID = 2,   // -> the service's process id
    ECHO_SENDER = 3, // -> the caller's pid and euid as the driver gives them
    ECHO_DIE = 4,    // the service is killed while it serves the call
    ECHO_NEST = 5,   // object -> what the object answers ECHO_ADD1 with 0, asked meanwhile
    ECHO_BOUNCE = 6, // object -> the same object, sent back
};

// An echo service publishing itself under each of `names`, serving with
// binder_loop2 on a mapping of `map_size` bytes.
std::unique_ptr<Child> start_echo(std::vector<std::string> names, uint32_t map_size = 128 * 1024);

}  // namespace peer

#endif
