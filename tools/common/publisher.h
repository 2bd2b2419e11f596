// Keeps a program's services published: it publishes them with the service
// manager and, when the service manager dies (a death notification on handle
// 0), publishes them all again as soon as a new one serves.
#ifndef HMISVC_TOOLS_PUBLISHER_H
#define HMISVC_TOOLS_PUBLISHER_H

#include <hmisvc/binder.h>

#include <condition_variable>
#include <map>
#include <mutex>
#include <string>
#include <thread>

namespace hmisvc::tools {

class Publisher {
public:
    // `bs` must be served by a looper (serve()), which delivers the death.
    // Without a connection (in a test) only the list of names is kept.
    explicit Publisher(binder_connection *bs);
    // A program whose names other processes of its own hold (the
    // simulator's services) steers them by overriding these.
    virtual ~Publisher();
    Publisher(const Publisher &) = delete;
    Publisher &operator=(const Publisher &) = delete;

    // The service manager's status (0: published), -1 when the call failed.
    // A published name is published again after a service manager restart.
    virtual int publish(const std::string &name, void *object);
    // 0 when dropped; otherwise a message says why on standard error.
    virtual int unpublish(const std::string &name, void *object);
    // Whether `name` is among the names kept published.
    virtual bool published(const std::string &name) const;

    // From now on every name published is also claimed for this program
    // (kept for it across its restart, see ServiceRegistry), those
    // published so far included. The first name refused, or "".
    std::string claim_names();

    // Starts watching the service manager; call once the first services
    // are published.
    void watch();

    // How often a restarted service manager is looked for.
    static constexpr int kRetryMs = 10;

private:
    static void died(binder_connection *, void *self);
    void run();
    // Claims `name` when names are claimed; false when refused.
    bool claim(const std::string &name);

    binder_connection *bs_;
    binder_death_record record_{};
    mutable std::mutex mutex_;
    std::condition_variable wake_;
    std::map<std::string, void *> names_;
    bool claiming_ = false;
    bool dead_ = false;
    bool stopping_ = false;
    std::thread thread_;
};

}  // namespace hmisvc::tools

#endif
