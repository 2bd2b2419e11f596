// Death notifications for services by name: one connection and one thread
// for the process, which links to the death of each watched service and
// tells the listeners when it dies.
#ifndef HMISVC_SUPERVISE_WATCH_H
#define HMISVC_SUPERVISE_WATCH_H

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

struct binder_connection;

namespace hmisvc::detail {

// Told when a registration of a watched name dies; called on the watch
// thread, with no lock of the watcher held. `generation` is the one link()
// gave for that registration.
class DeathListener {
public:
    virtual ~DeathListener() = default;
    virtual void serviceDied(const std::string &name, std::uint64_t generation) = 0;
};

// Whether /dev/binder can be opened, asked silently (the library's open
// prints why it cannot on stderr, which a layer that retries should not
// repeat).
bool driverUsable();

class Watch; // one per watched name, kept for the process

// Deaths of `name` seen so far; read it before resolving, compare later.
std::uint64_t deaths(const Watch &watch);

class Watcher {
public:
    // The process's watcher; opens its connection and starts its thread on
    // the first link() that finds the driver.
    static Watcher &instance();

    // The entry for `name`, made on first use.
    Watch &watch(const std::string &name);

    // Looks the name up and links a death notification to the registration
    // it names now, unless that one is linked already. Returns the link's
    // generation (never 0), or 0 when the name is not registered (or the
    // driver cannot be opened).
    std::uint64_t link(Watch &watch);

    // Listeners are held weakly: a listener that is gone is skipped.
    void subscribe(Watch &watch, std::weak_ptr<DeathListener> listener);

private:
    Watcher();
    static void died(binder_connection *bs, void *user);
    bool connected();
    struct State;
    State *state_; // never freed: the watch thread runs for the process
};

} // namespace hmisvc::detail

#endif
