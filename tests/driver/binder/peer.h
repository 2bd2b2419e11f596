// Processes the driver tests talk to: the service manager and small echo
// services, each a child of the test program with a connection of its own.
#ifndef HMISVC_TESTS_DRIVER_PEER_H
#define HMISVC_TESTS_DRIVER_PEER_H

#include <hmisvc/binder.h>

#include <sys/types.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace peer {

struct ConnectionCloser {
    void operator()(binder_connection *bs) const { binder_close(bs); }
};
using Connection = std::unique_ptr<binder_connection, ConnectionCloser>;

// Codes the echo service understands.
enum EchoCode : uint32_t {
    ECHO_ADD1 = 1,    // uint32 n -> n + 1
    ECHO_MIRROR = 2,  // uint32, 16-bit string, 8-bit string, block -> n + 1, the rest as sent
    ECHO_PID = 3,     // -> the service's process id
    ECHO_STATUS = 4,  // int32 s -> handler result s (a status reply when non-zero)
};

// A forked child running `body` (which gets the write end of a pipe and
// writes one byte to it once ready); killed and reaped on destruction.
class Child {
public:
    explicit Child(std::function<int(int ready_fd)> body);
    ~Child() { kill(); }
    Child(const Child &) = delete;
    Child &operator=(const Child &) = delete;

    pid_t pid() const { return pid_; }
    // True once the child said it is ready, false if it ended first.
    bool ready() const { return ready_; }
    // SIGKILL and reap; nothing if already done.
    void kill();

private:
    pid_t pid_ = -1;
    bool ready_ = false;
};

// An echo service publishing itself under each of `names`, serving with
// binder_loop2 on a mapping of `map_size` bytes.
std::unique_ptr<Child> start_echo(std::vector<std::string> names, uint32_t map_size = 128 * 1024);

// The service manager program, started once; true when it answers.
bool start_service_manager(const char *path);
void stop_service_manager();

// Polls `pred` up to `tries` times, 10 ms apart; true as soon as it holds.
bool eventually(const std::function<bool()> &pred, int tries = 500);

}  // namespace peer

#endif
