// Death notifications for services by name: one connection and one thread
// for the process, which links to the death of each watched service and
// tells the listeners when it dies.
#ifndef HMISVC_SUPERVISE_WATCH_H
#define HMISVC_SUPERVISE_WATCH_H

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

namespace hmisvc::detail {

// Told when a watched service dies; called on the watch thread, with no
// lock of the watch held.
class DeathListener {
public:
    virtual ~DeathListener() = default;
    virtual void serviceDied(const std::string &name) = 0;
};

class Watch; // one per watched name, kept for the process

// Deaths of `name` seen so far; read it before resolving, compare later.
std::uint64_t deaths(const Watch &watch);

class Watcher {
public:
    // The process's watcher; starts its thread on first use.
    static Watcher &instance();

    // The entry for `name`, made on first use.
    Watch &watch(const std::string &name);

    // Links a death notification to the service `name` is registered as
    // now, unless one is linked already. False when the name is not
    // registered (or the driver cannot be opened).
    bool link(Watch &watch);

    // Listeners are held weakly: a listener that is gone is skipped.
    void subscribe(Watch &watch, std::weak_ptr<DeathListener> listener);

    // Whether death notifications work at all (the driver could be opened).
    bool available() const;

private:
    Watcher();
    struct State;
    State *state_; // never freed: the watch thread runs for the process
};

// Whether `name` is registered now, asked on the watcher's connection
// (prints nothing).
bool registered(const std::string &name);

} // namespace hmisvc::detail

#endif
