// Processes driver tests talk to: children of the test program (the service
// manager, services), each with a binder connection of its own.
#ifndef HMISVC_TESTS_DRIVER_PROCESS_H
#define HMISVC_TESTS_DRIVER_PROCESS_H

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

// Runs a program whose first line on stdout says it is ready (the device
// simulator's "ready"); check ready() on the result.
std::unique_ptr<Child> start_program(std::vector<std::string> argv);

// The device simulator (`argv`: its path and arguments), one copy at a time;
// start_devsim does nothing while it runs. stop_devsim waits until the service
// manager has forgotten `names`, published by it.
bool start_devsim(std::vector<std::string> argv);
bool stop_devsim(std::vector<std::string> names);

// Whether the service manager knows `name`.
bool service_found(const char *name);

// The service manager program, started once; true when it answers.
bool start_service_manager(const char *path);
void stop_service_manager();

// The thread count of a process ("self" or a pid); -1 when it is gone.
int threads_of(const std::string &process = "self");
// Its open descriptors; -1 when it is gone.
int descriptors_of(const std::string &process = "self");

// Sends SIGSTOP to `pid` and returns once every thread of it has stopped
// (the signal is delivered after kill() returns); false when it never does.
bool stop_process(int pid);

// Polls `pred` up to `tries` times, 10 ms apart; true as soon as it holds.
bool eventually(const std::function<bool()> &pred, int tries = 500);

}  // namespace peer

#endif
