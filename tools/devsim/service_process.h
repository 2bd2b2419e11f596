// A process per device service, as on the device: each service's process
// owns the binder object published under the service's name and forwards
// every transaction to the simulator's main process, which answers from the
// one device state. Killing a service's process is therefore the service's
// death as its clients see it (dead replies, death notifications, the name
// dropped), while the state lives on in the main process.
#ifndef HMISVC_DEVSIM_SERVICE_PROCESS_H
#define HMISVC_DEVSIM_SERVICE_PROCESS_H

#include "publisher.h"
#include "services.h"

#include <condition_variable>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <sys/types.h>

namespace hmisvc::devsim {

// The option by which the program runs as a service's process:
// `hmisvc-devsim --service-process NAME,FD`.
constexpr const char *kServiceProcessOption = "--service-process";

// Runs as the process of service `name`, forwarding over descriptor `fd`
// (and publishing the name at once with `publish`); returns the program's
// exit status.
int run_service_process(const std::string &name, int fd, bool publish = false);

struct ServiceLink;

// The main process's side: starts, watches and steers the services'
// processes. Names it serves in a process are published and unpublished by
// that process; the control service's by the main process.
class ServiceProcesses : public tools::Publisher {
public:
    ServiceProcesses(binder_connection *bs, Simulator &simulator, std::string program);
    ~ServiceProcesses() override;

    // Starts a process for each service; those named in `publish` publish
    // their names as soon as they serve, all at once. "" or why not.
    std::string start(const std::set<std::string> &publish);
    // What the service manager answered to a publication of start()'s, as
    // publish() gives it (0: published).
    int start_status(const std::string &name) const;

    int publish(const std::string &name, void *object) override;
    int unpublish(const std::string &name, void *object) override;
    bool published(const std::string &name) const override;

    // Whether this service runs in a process of its own.
    bool separate(const std::string &name) const { return child(name) != nullptr; }
    // "" while the service's process serves, otherwise why not ("crashed;
    // ...", "restarting").
    std::string down(const std::string &name) const;
    // Told, on no lock of ours, each time a service's process has ended
    // (crashed or by itself), before it counts as down: what the process
    // kept in its memory is lost with it. Set it before start().
    void on_end(std::function<void(const std::string &name)> f) { on_end_ = std::move(f); }

    struct Status {
        std::string name;
        pid_t pid = 0;  // 0: down
        int restarts = 0;
        bool crashed = false;  // down until `sim restart`
        int calls = 0;         // in progress
    };
    std::vector<Status> status() const;

    // For the simulator's delay hook, on the thread that starts (or ends)
    // waiting out a delay: true when that thread answers a service's
    // process, which has a thread for the call already; its reading then
    // goes on in a new thread, while the delayed call keeps this one.
    static bool delaying(bool starts);
    // For the simulator's late hook: false when the calling thread answers
    // a call whose service's process has ended since it forwarded it.
    static bool call_wanted();

    // Kills the service's process at once (SIGKILL) and answers once it is
    // gone; a new one publishes again after restart_after_ms (below 0: at
    // `restart`). "" or why not.
    std::string crash(const std::string &name, int restart_after_ms);
    // Starts a crashed service's process again; answers once it serves and
    // is published again. "" or why not.
    std::string restart(const std::string &name);
    // Before the main process exits: kills every service's process and
    // reaps it, so that none outlives the simulator holding a name.
    static void end_all();

private:
    struct Child;
    Child *child(const std::string &name) const;
    // With `fork_only`, the child goes on from the fork (this process must
    // have one thread); otherwise it execs the program. With `read`, also
    // starts the thread that reads its socket.
    void launch(Child &child, bool fork_only = false, bool read = true);
    // A launch once start() is done, with `lock` (on mutex_) held: made by
    // the launcher thread, which lives as long as the simulator, since a
    // process's parent-death signal follows the thread that forked it.
    // Returns once launched.
    void relaunch(Child &child, std::unique_lock<std::mutex> &lock);
    void run_launcher();
    void read_loop(Child *child, std::shared_ptr<ServiceLink> link, pid_t pid);
    // Sends a command to a child and waits for its answer; -1 when it is down.
    int command(Child &child, uint32_t kind);
    int set_published(Child &child, bool published);

    // With mutex_ held.
    std::string down_locked(const Child &child) const;

    Simulator &simulator_;
    std::string program_;
    std::function<void(const std::string &)> on_end_;
    mutable std::mutex mutex_;
    std::condition_variable changed_;
    std::map<std::string, std::unique_ptr<Child>> children_;
    uint32_t next_id_ = 1;
    bool stopping_ = false;
    std::deque<Child *> to_launch_;
    uint64_t launches_asked_ = 0, launches_done_ = 0;
    bool launcher_ = false;  // runs
    std::condition_variable launch_;
};

}  // namespace hmisvc::devsim

#endif
