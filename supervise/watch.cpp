// One binder connection and one looper thread for the process: the driver
// delivers death notifications only to a thread that serves, and a proxy's
// connection has none. The watcher holds its own reference to each
// registration of a watched name that it was asked about, linked to its
// death; each link has a generation number, so that a listener can tell the
// death of the registration its proxy came from from that of an older one
// (after a restart the service manager may still name the dead one for a
// moment). After a death the watcher gives the notification back and drops
// its reference.
#include "supervise/watch.h"

#include <hmisvc/binder.h>
#include <hmisvc/binder_seam.h>

#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <mutex>
#include <thread>
#include <vector>

namespace hmisvc::detail {

namespace {
constexpr uint32_t kMapSize = 4096;
// Gives a delivered death notification back (not in the library's own
// command set: nothing designed needs it).
constexpr uint32_t kDeadBinderDone = _IOW('c', 16, binder_uintptr_t);

// One linked registration; freed once its death has been handled.
struct Link {
    binder_death_record record{};
    Watch *watch = nullptr;
    uint32_t handle = 0;
    std::uint64_t generation = 0;
};
} // namespace

class Watch {
public:
    explicit Watch(std::string n) : name(std::move(n)) {}
    const std::string name;
    std::atomic<std::uint64_t> deaths{0};
    // Under the watcher's lock:
    std::map<uint32_t, Link *> links; // by the watcher's handle
    std::vector<std::weak_ptr<DeathListener>> listeners;
};

std::uint64_t deaths(const Watch &watch) { return watch.deaths.load(std::memory_order_acquire); }

struct Watcher::State {
    binder_connection *bs = nullptr;
    std::mutex mutex;
    std::map<std::string, Watch *> watches; // kept for the process
    std::uint64_t generations = 0;
};

namespace {

// Serves nothing: the watcher publishes no object.
int refuse(binder_connection *, binder_transaction_data *, binder_io *, binder_io *) { return -1; }

void give_back(binder_connection *bs, const Link &link)
{
    unsigned char cmds[4 + sizeof(binder_uintptr_t) + 8];
    const uint32_t done = kDeadBinderDone;
    const auto cookie = static_cast<binder_uintptr_t>(reinterpret_cast<uintptr_t>(&link.record));
    const uint32_t release[2] = {BC_RELEASE, link.handle};
    std::memcpy(cmds, &done, 4);
    std::memcpy(cmds + 4, &cookie, sizeof cookie);
    std::memcpy(cmds + 4 + sizeof cookie, release, sizeof release);
    binder_write(bs, cmds, sizeof cmds);
}

} // namespace

Watcher &Watcher::instance()
{
    static Watcher *watcher = new Watcher; // the thread uses it for the process
    return *watcher;
}

Watcher::Watcher() : state_(new State) {}

bool driverUsable()
{
    return binder_driver_reachable() != 0;
}

// Under the lock. Opened on the first link rather than at construction, so
// that a driver that was not there at first (the module not loaded yet) is
// used once it is.
bool Watcher::connected()
{
    if (state_->bs != nullptr)
        return true;
    if (!driverUsable())
        return false;
    state_->bs = binder_open(kMapSize);
    if (state_->bs == nullptr)
        return false;
    std::thread([bs = state_->bs] {
        pthread_setname_np(pthread_self(), "hmisvc-watch");
        binder_loop(bs, refuse);
    }).detach();
    return true;
}

Watch &Watcher::watch(const std::string &name)
{
    std::lock_guard<std::mutex> lock(state_->mutex);
    Watch *&watch = state_->watches[name];
    if (watch == nullptr)
        watch = new Watch(name);
    return *watch;
}

// On the watch thread, inside the library's loop.
void Watcher::died(binder_connection *bs, void *user)
{
    auto *link = static_cast<Link *>(user);
    Watch &watch = *link->watch;
    const std::uint64_t generation = link->generation;
    std::vector<std::shared_ptr<DeathListener>> told;
    {
        std::lock_guard<std::mutex> lock(instance().state_->mutex);
        give_back(bs, *link);
        watch.links.erase(link->handle);
        watch.deaths.fetch_add(1, std::memory_order_acq_rel);
        for (const auto &weak : watch.listeners)
            if (auto listener = weak.lock())
                told.push_back(std::move(listener));
    }
    delete link; // the driver is done with its record
    for (const auto &listener : told)
        listener->serviceDied(watch.name, generation);
}

std::uint64_t Watcher::link(Watch &watch)
{
    std::lock_guard<std::mutex> lock(state_->mutex);
    if (!connected())
        return 0;
    const uint32_t handle = svcmgr_lookup(state_->bs, SVCMGR_HANDLE, watch.name.c_str());
    if (handle == 0)
        return 0;
    if (auto known = watch.links.find(handle); known != watch.links.end()) {
        binder_release(state_->bs, handle); // the lookup's reference: one is held already
        return known->second->generation;
    }
    auto *link = new Link;
    link->record.on_death = &Watcher::died;
    link->record.user = link;
    link->watch = &watch;
    link->handle = handle;
    link->generation = ++state_->generations;
    watch.links.emplace(handle, link);
    binder_link_to_death(state_->bs, handle, &link->record);
    return link->generation;
}

void Watcher::subscribe(Watch &watch, std::weak_ptr<DeathListener> listener)
{
    std::lock_guard<std::mutex> lock(state_->mutex);
    auto &listeners = watch.listeners;
    listeners.erase(std::remove_if(listeners.begin(), listeners.end(), [](const auto &l) { return l.expired(); }),
                    listeners.end());
    listeners.push_back(std::move(listener));
}

} // namespace hmisvc::detail
