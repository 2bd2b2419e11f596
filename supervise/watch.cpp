// One binder connection and one looper thread for the process: the driver
// delivers death notifications only to a thread that serves, and a proxy's
// connection has none. The watcher holds its own reference to each watched
// service, linked to its death; after a death it gives the notification
// back, drops the reference and links again when asked.
#include "supervise/watch.h"

#include <hmisvc/binder.h>

#include <pthread.h>

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
} // namespace

class Watch {
public:
    explicit Watch(std::string n) : name(std::move(n)) {}
    const std::string name;
    std::atomic<std::uint64_t> deaths{0};
    // Under the watcher's lock:
    uint32_t handle = 0; // 0: not linked
    binder_death_record record{};
    std::vector<std::weak_ptr<DeathListener>> listeners;
};

std::uint64_t deaths(const Watch &watch) { return watch.deaths.load(std::memory_order_acquire); }

struct Watcher::State {
    binder_connection *bs = nullptr;
    std::mutex mutex;
    std::map<std::string, Watch *> watches; // never freed: their records may be in the driver's hands
};

namespace {

// Serves nothing: the watcher publishes no object.
int refuse(binder_connection *, binder_transaction_data *, binder_io *, binder_io *) { return -1; }

void give_back(binder_connection *bs, Watch &watch)
{
    unsigned char cmds[4 + sizeof(binder_uintptr_t) + 8];
    const uint32_t done = kDeadBinderDone;
    const auto cookie = static_cast<binder_uintptr_t>(reinterpret_cast<uintptr_t>(&watch.record));
    const uint32_t release[2] = {BC_RELEASE, watch.handle};
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

Watcher::Watcher() : state_(new State)
{
    state_->bs = binder_open(kMapSize);
    if (state_->bs == nullptr)
        return;
    std::thread([bs = state_->bs] {
        pthread_setname_np(pthread_self(), "hmisvc-watch");
        binder_loop(bs, refuse);
    }).detach();
}

bool Watcher::available() const { return state_->bs != nullptr; }

Watch &Watcher::watch(const std::string &name)
{
    std::lock_guard<std::mutex> lock(state_->mutex);
    Watch *&watch = state_->watches[name];
    if (watch == nullptr) {
        watch = new Watch(name);
        watch->record.user = watch;
        watch->record.on_death = [](binder_connection *bs, void *user) {
            auto &watch = *static_cast<Watch *>(user);
            std::vector<std::shared_ptr<DeathListener>> told;
            {
                std::lock_guard<std::mutex> lock(Watcher::instance().state_->mutex);
                give_back(bs, watch);
                watch.handle = 0;
                watch.deaths.fetch_add(1, std::memory_order_acq_rel);
                for (const auto &weak : watch.listeners)
                    if (auto listener = weak.lock())
                        told.push_back(std::move(listener));
            }
            for (const auto &listener : told)
                listener->serviceDied(watch.name);
        };
    }
    return *watch;
}

bool Watcher::link(Watch &watch)
{
    if (state_->bs == nullptr)
        return false;
    std::lock_guard<std::mutex> lock(state_->mutex);
    if (watch.handle != 0)
        return true;
    const uint32_t handle = svcmgr_lookup(state_->bs, SVCMGR_HANDLE, watch.name.c_str());
    if (handle == 0)
        return false;
    watch.handle = handle;
    binder_link_to_death(state_->bs, handle, &watch.record);
    return true;
}

void Watcher::subscribe(Watch &watch, std::weak_ptr<DeathListener> listener)
{
    std::lock_guard<std::mutex> lock(state_->mutex);
    auto &listeners = watch.listeners;
    listeners.erase(std::remove_if(listeners.begin(), listeners.end(), [](const auto &l) { return l.expired(); }),
                    listeners.end());
    listeners.push_back(std::move(listener));
}

bool registered(const std::string &name)
{
    Watcher &watcher = Watcher::instance();
    if (!watcher.available())
        return false;
    Watch &watch = watcher.watch(name);
    return watcher.link(watch);
}

} // namespace hmisvc::detail
