#include "broadcast_hub.h"

#include <atomic>
#include <condition_variable>
#include <cstdio>
#include <deque>
#include <map>
#include <mutex>
#include <thread>
#include <vector>

namespace hmisvc::devsim {

namespace {

constexpr uint32_t kDeliver = 1;

}  // namespace

struct BroadcastHub::Shared {
    struct Endpoint {
        std::string name;
        std::deque<std::string> queue;  // guarded by Shared::mutex
        std::condition_variable wake;
        std::atomic<bool> dead{false};
        binder_death_record death{};
        std::mutex *mutex = nullptr;  // Shared::mutex, for the death callback
    };

    int attempts;
    std::chrono::milliseconds retry;
    std::atomic<binder_connection *> bs{nullptr};

    mutable std::mutex mutex;
    bool stopping = false;
    std::map<std::string, std::shared_ptr<Endpoint>> endpoints;
    // A death record must outlive its handle's reference; endpoints linked
    // to a death notification stay here for the life of the hub.
    std::vector<std::shared_ptr<Endpoint>> linked;

    static void on_death(binder_connection *, void *user)
    {
        auto *ep = static_cast<Endpoint *>(user);
        std::lock_guard<std::mutex> lock(*ep->mutex);
        ep->dead = true;
        ep->wake.notify_all();
    }

    // Looks the name up, giving an endpoint that has not published yet its
    // grace period; 0 when it never shows up or the hub stops.
    uint32_t resolve(Endpoint &ep)
    {
        for (int i = 0; i < attempts; ++i) {
            if (binder_connection *c = bs.load())
                if (uint32_t handle = svcmgr_lookup(c, SVCMGR_HANDLE, ep.name.c_str()))
                    return handle;
            std::unique_lock<std::mutex> lock(mutex);
            if (ep.wake.wait_for(lock, retry, [&] { return stopping; }))
                return 0;
        }
        return 0;
    }

    bool deliver(uint32_t handle, const std::string &payload)
    {
        // A request of exactly the endpoint's layout: header word, then the block.
        std::vector<unsigned char> data(payload.size() + 64);
        binder_io msg, reply;
        bio_init(&msg, data.data(), data.size(), 4);
        bio_put_uint32(&msg, 0);
        bio_put_mem(&msg, payload.data(), static_cast<uint32_t>(payload.size()));
        if (binder_call(bs.load(), &msg, &reply, handle, kDeliver) != 0)
            return false;
        binder_done(bs.load(), &msg, &reply);
        return true;
    }

    void forget(const std::shared_ptr<Endpoint> &ep, const char *why)
    {
        std::lock_guard<std::mutex> lock(mutex);
        auto found = endpoints.find(ep->name);
        if (found != endpoints.end() && found->second == ep)
            endpoints.erase(found);
        std::fprintf(stderr, "hmisvc-devsim: broadcast endpoint \"%s\" dropped (%s)\n", ep->name.c_str(), why);
    }

    // The delivery thread of one endpoint.
    static void run(std::shared_ptr<Shared> self, std::shared_ptr<Endpoint> ep)
    {
        uint32_t handle = self->resolve(*ep);
        if (handle == 0) {
            self->forget(ep, "not found");
            return;
        }
        {
            std::lock_guard<std::mutex> lock(self->mutex);
            self->linked.push_back(ep);
        }
        ep->death = {on_death, ep.get()};
        binder_link_to_death(self->bs.load(), handle, &ep->death);
        for (;;) {
            std::string payload;
            {
                std::unique_lock<std::mutex> lock(self->mutex);
                ep->wake.wait(lock, [&] { return self->stopping || ep->dead || !ep->queue.empty(); });
                if (self->stopping)
                    return;
                if (ep->dead)
                    break;
                payload = std::move(ep->queue.front());
                ep->queue.pop_front();
            }
            if (!self->deliver(handle, payload))
                break;
        }
        self->forget(ep, ep->dead ? "its process died" : "delivery failed");
        binder_release(self->bs.load(), handle);
    }
};

BroadcastHub::BroadcastHub(int attempts, std::chrono::milliseconds retry) : shared_(std::make_shared<Shared>())
{
    shared_->attempts = attempts;
    shared_->retry = retry;
}

BroadcastHub::~BroadcastHub()
{
    // Delivery threads are detached and own the shared part; they end at
    // their next wake-up (one blocked in a call ends when the call does).
    std::lock_guard<std::mutex> lock(shared_->mutex);
    shared_->stopping = true;
    for (auto &entry : shared_->endpoints)
        entry.second->wake.notify_all();
}

void BroadcastHub::attach(binder_connection *bs) { shared_->bs = bs; }

void BroadcastHub::add(const std::string &name)
{
    std::lock_guard<std::mutex> lock(shared_->mutex);
    if (shared_->stopping || shared_->endpoints.count(name))
        return;
    auto ep = std::make_shared<Shared::Endpoint>();
    ep->name = name;
    ep->mutex = &shared_->mutex;
    shared_->endpoints.emplace(name, ep);
    std::thread(Shared::run, shared_, ep).detach();
}

void BroadcastHub::send(const std::string &payload)
{
    std::lock_guard<std::mutex> lock(shared_->mutex);
    for (auto &entry : shared_->endpoints) {
        entry.second->queue.push_back(payload);
        entry.second->wake.notify_one();
    }
}

std::size_t BroadcastHub::endpoints() const
{
    std::lock_guard<std::mutex> lock(shared_->mutex);
    return shared_->endpoints.size();
}

std::vector<std::string> BroadcastHub::names() const
{
    std::lock_guard<std::mutex> lock(shared_->mutex);
    std::vector<std::string> out;
    for (const auto &entry : shared_->endpoints)
        out.push_back(entry.first);
    return out;
}

}  // namespace hmisvc::devsim
