// Waits and scenarios held for a client: at most kMax at once, and each
// ended as soon as its client goes away (the calling process exits, the
// panel's connection closes) or the device is reset, so that abandoned ones
// never keep the places of others.
#ifndef HMISVC_DEVSIM_HOLDS_H
#define HMISVC_DEVSIM_HOLDS_H

#include "call_log.h"

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

namespace hmisvc::devsim {

// Who asked: a process (its pid, as the driver gives it), or a connection
// (its socket), or nobody to watch (a scenario given at start).
struct HoldClient {
    int pid = 0;
    int fd = -1;
};

class Holds {
public:
    static constexpr int kMax = 16;

    struct Hold {
        std::atomic<bool> ended{false};
        std::string why;  // set before `ended`
        std::thread::id owner;
        uint64_t id = 0;
        int watch = -1;  // a pidfd or a duplicate of the socket
    };
    using Ticket = std::shared_ptr<Hold>;

    // `log` is poked when a hold ends, which wakes its wait.
    explicit Holds(CallLog &log) : log_(log) {}
    ~Holds();
    Holds(const Holds &) = delete;
    Holds &operator=(const Holds &) = delete;

    // The client of the request the calling thread serves; whoever takes
    // requests sets it (the serving loop, the panel).
    static HoldClient &client();

    // A hold for the calling thread's client; null when kMax are held. A
    // client already gone gets one already ended.
    Ticket take();
    void release(const Ticket &hold);
    // Ends every hold but the calling thread's own (a scenario's reset
    // step does not end the scenario).
    void end_all(const std::string &why);
    int held() const;

private:
    void end(Hold &hold, const std::string &why);
    void run_watcher();

    CallLog &log_;
    mutable std::mutex mutex_;
    std::map<uint64_t, Ticket> held_;
    uint64_t next_id_ = 0;
    int epoll_ = -1;
    int wake_ = -1;  // an eventfd: the watcher stops
    std::thread watcher_;
};

}  // namespace hmisvc::devsim

#endif
