#include "broadcast_hub.h"

#include <atomic>
#include <condition_variable>
#include <cstdio>
#include <deque>
#include <map>
#include <mutex>
#include <system_error>
#include <thread>
#include <vector>

namespace hmisvc::devsim {

namespace {

constexpr uint32_t kDeliver = 1;
// An endpoint's delivery thread with nothing to deliver for this long ends.
constexpr auto kIdleWorker = std::chrono::seconds(10);
// Look-ups of a name not published yet slow down to this.
constexpr std::chrono::milliseconds kSlowestRetry{1000};
// An endpoint with a full queue that took nothing for this long no longer
// makes senders wait for room; one that takes intents does, so that a storm
// loses nothing.
constexpr auto kStuck = std::chrono::seconds(1);

using Steady = std::chrono::steady_clock;

}  // namespace

struct BroadcastHub::Shared : std::enable_shared_from_this<Shared> {
    // One sent intent, held once however many queues hold it.
    struct Queued {
        std::string bytes;
        uint64_t seq = 0;        // in the order sent
        std::size_t queues = 0;  // that hold it (guarded by Shared::mutex)
    };
    using Payload = std::shared_ptr<Queued>;

    // All fields guarded by Shared::mutex.
    struct Endpoint {
        Shared *hub = nullptr;
        std::string name;
        uint32_t handle = 0;  // 0 until looked up
        Steady::time_point next_try;
        Steady::time_point give_up;
        std::chrono::milliseconds wait{0};  // before the next try
        std::deque<Payload> queue;
        Steady::time_point progress;  // its last delivery, or when its queue began
        std::condition_variable wake;  // its delivery thread
        bool delivering = false;       // it has a delivery thread
        bool busy = false;             // that thread is calling it
        bool dropped = false;
        uint64_t lost = 0;  // intents dropped from its queue, not said yet
        binder_death_record death{};
    };
    using EndpointPtr = std::shared_ptr<Endpoint>;

    int attempts = 0;
    std::chrono::milliseconds retry{0};
    std::atomic<binder_connection *> bs{nullptr};

    mutable std::mutex mutex;
    std::condition_variable lookups;  // the look-up thread
    std::condition_variable room;     // senders waiting for a queue to take more
    bool stopping = false;
    bool looking_up = false;  // the look-up thread runs
    bool refusing = false;
    bool refusing_large = false;
    std::map<std::string, EndpointPtr> endpoints;
    // A death record must outlive its handle's notification; endpoints
    // linked to one stay here until it has come, or their handle is
    // released: the driver then drops the notification, but one it handed
    // out already may still be on its way to us, so the last kRetired
    // released are kept a while longer, the oldest let go first.
    std::map<Endpoint *, EndpointPtr> linked;
    static constexpr std::size_t kRetired = 2 * kMaxEndpoints;
    std::deque<EndpointPtr> retired;
    uint64_t sent = 0;
    std::size_t queued_bytes = 0;
    uint64_t dropped_intents = 0;

    static void on_death(binder_connection *, void *user)
    {
        auto *ep = static_cast<Endpoint *>(user);
        Shared &hub = *ep->hub;
        EndpointPtr keep;  // the record is not used again after this returns
        std::lock_guard<std::mutex> lock(hub.mutex);
        if (auto found = hub.linked.find(ep); found != hub.linked.end()) {
            keep = found->second;
            hub.linked.erase(found);
        }
        if (keep)
            hub.drop(keep, "its process died");
    }

    // With the lock held, for the rest of this block: queue bookkeeping,
    // counting each distinct intent's bytes once.
    void push(Endpoint &ep, const Payload &p)
    {
        ep.queue.push_back(p);
        if (p->queues++ == 0)
            queued_bytes += p->bytes.size();
    }

    Payload pop(Endpoint &ep)
    {
        Payload p = std::move(ep.queue.front());
        ep.queue.pop_front();
        if (--p->queues == 0)
            queued_bytes -= p->bytes.size();
        return p;
    }

    void lose(Endpoint &ep)
    {
        pop(ep);
        ++dropped_intents;
        if (ep.lost++ == 0)
            std::fprintf(stderr,
                         "hmisvc-devsim: broadcast endpoint \"%s\" takes no intents: the oldest queued are "
                         "dropped (%zu or %zu MiB kept)\n",
                         ep.name.c_str(), kMaxKept, kMaxKeptBytes >> 20);
    }

    // Once an endpoint that lost intents has taken the rest, or is dropped.
    void say_lost(Endpoint &ep)
    {
        if (ep.lost)
            std::fprintf(stderr, "hmisvc-devsim: broadcast endpoint \"%s\": %llu intent(s) dropped\n",
                         ep.name.c_str(), static_cast<unsigned long long>(ep.lost));
        ep.lost = 0;
    }

    // Drops the oldest queued intent from every queue it heads, making
    // room for a new one; false when nothing is queued.
    bool lose_oldest()
    {
        Payload oldest;
        for (auto &entry : endpoints) {
            const auto &q = entry.second->queue;
            if (!q.empty() && (!oldest || q.front()->seq < oldest->seq))
                oldest = q.front();
        }
        if (!oldest)
            return false;
        for (auto &entry : endpoints)
            if (!entry.second->queue.empty() && entry.second->queue.front() == oldest)
                lose(*entry.second);
        return true;
    }

    void release(Endpoint &ep)
    {
        if (!ep.handle || ep.busy)
            return;
        binder_release(bs.load(), ep.handle);
        ep.handle = 0;
        if (auto found = linked.find(&ep); found != linked.end()) {
            retired.push_back(std::move(found->second));
            linked.erase(found);
            if (retired.size() > kRetired)
                retired.pop_front();
        }
    }

    void drop(const EndpointPtr &ep, const char *why)
    {
        if (ep->dropped)
            return;
        ep->dropped = true;
        while (!ep->queue.empty())
            pop(*ep);
        say_lost(*ep);
        ep->wake.notify_one();
        room.notify_all();
        auto found = endpoints.find(ep->name);
        if (found != endpoints.end() && found->second == ep)
            endpoints.erase(found);
        release(*ep);
        std::fprintf(stderr, "hmisvc-devsim: broadcast endpoint \"%s\" dropped (%s)\n", ep->name.c_str(), why);
    }

    // Wakes the endpoint's delivery thread, or starts one.
    void schedule(const EndpointPtr &ep)
    {
        if (ep->dropped || !ep->handle || ep->queue.empty())
            return;
        if (ep->delivering) {
            ep->wake.notify_one();
            return;
        }
        try {
            std::thread(run_endpoint, shared_from_this(), ep).detach();
            ep->delivering = true;
        } catch (const std::system_error &e) {  // tried again at the next intent
            std::fprintf(stderr, "hmisvc-devsim: broadcast endpoint \"%s\": no delivery thread (%s)\n",
                         ep->name.c_str(), e.what());
        }
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

    // One endpoint's deliveries, in order, one at a time; ends when the
    // endpoint is dropped or has had nothing for kIdleWorker.
    static void run_endpoint(std::shared_ptr<Shared> self, EndpointPtr ep)
    {
        Shared &hub = *self;
        std::unique_lock<std::mutex> lock(hub.mutex);
        for (;;) {
            ep->wake.wait_for(lock, kIdleWorker,
                              [&] { return hub.stopping || ep->dropped || !ep->queue.empty(); });
            if (hub.stopping || ep->dropped || ep->queue.empty()) {
                ep->delivering = false;
                return;
            }
            Payload payload = hub.pop(*ep);
            if (ep->queue.empty())
                hub.say_lost(*ep);
            ep->busy = true;
            uint32_t handle = ep->handle;
            lock.unlock();
            bool ok = hub.deliver(handle, payload->bytes);
            payload.reset();
            lock.lock();
            ep->busy = false;
            ep->progress = Steady::now();
            hub.room.notify_all();
            if (ep->dropped)
                hub.release(*ep);
            else if (!ok)
                hub.drop(ep, "delivery failed");
        }
    }

    // Looks names up until each is found or out of attempts; ends when no
    // name waits.
    static void run_lookups(std::shared_ptr<Shared> self)
    {
        Shared &hub = *self;
        std::unique_lock<std::mutex> lock(hub.mutex);
        while (!hub.stopping) {
            std::vector<EndpointPtr> due;
            Steady::time_point next = Steady::time_point::max();
            for (auto &[name, ep] : hub.endpoints) {
                if (ep->handle)
                    continue;
                next = std::min(next, ep->next_try);
                if (ep->next_try <= Steady::now())
                    due.push_back(ep);
            }
            if (next == Steady::time_point::max()) {
                hub.looking_up = false;
                return;
            }
            if (due.empty()) {
                hub.lookups.wait_until(lock, next);
                continue;
            }
            std::vector<uint32_t> found;
            lock.unlock();
            binder_connection *bs = hub.bs.load();
            for (const EndpointPtr &ep : due)
                found.push_back(bs ? svcmgr_lookup(bs, SVCMGR_HANDLE, ep->name.c_str()) : 0);
            lock.lock();
            for (std::size_t i = 0; i < due.size(); ++i) {
                const EndpointPtr &ep = due[i];
                if (ep->dropped) {
                    if (found[i])
                        binder_release(hub.bs.load(), found[i]);
                } else if (found[i]) {
                    ep->handle = found[i];
                    ep->death = {on_death, ep.get()};
                    hub.linked[ep.get()] = ep;
                    binder_link_to_death(hub.bs.load(), ep->handle, &ep->death);
                    hub.schedule(ep);
                } else if (Steady::now() >= ep->give_up) {
                    hub.drop(ep, "not found");
                } else {
                    ep->next_try = std::min(Steady::now() + ep->wait, ep->give_up);
                    ep->wait = std::min(ep->wait * 2, std::max(hub.retry, kSlowestRetry));
                }
            }
        }
        hub.looking_up = false;
    }
};

BroadcastHub::BroadcastHub(int attempts, std::chrono::milliseconds retry) : shared_(std::make_shared<Shared>())
{
    shared_->attempts = attempts;
    shared_->retry = retry;
}

BroadcastHub::~BroadcastHub()
{
    // The threads are detached and own the shared part; they end at their
    // next wake-up (one blocked in a call ends when the call does).
    std::lock_guard<std::mutex> lock(shared_->mutex);
    shared_->stopping = true;
    for (auto &entry : shared_->endpoints)
        entry.second->wake.notify_one();
    shared_->lookups.notify_all();
    shared_->room.notify_all();
}

void BroadcastHub::attach(binder_connection *bs) { shared_->bs = bs; }

bool BroadcastHub::add(const std::string &name)
{
    Shared &hub = *shared_;
    std::lock_guard<std::mutex> lock(hub.mutex);
    if (hub.stopping)
        return false;
    if (hub.endpoints.count(name))
        return true;
    if (hub.endpoints.size() >= kMaxEndpoints) {
        if (!hub.refusing)
            std::fprintf(stderr,
                         "hmisvc-devsim: broadcast endpoint \"%s\" refused: %zu endpoints are registered "
                         "(further refusals not shown until one is taken again)\n",
                         name.c_str(), kMaxEndpoints);
        hub.refusing = true;
        return false;
    }
    hub.refusing = false;
    auto ep = std::make_shared<Shared::Endpoint>();
    ep->hub = &hub;
    ep->name = name;
    ep->next_try = Steady::now();
    ep->give_up = ep->next_try + hub.attempts * hub.retry;
    ep->wait = hub.retry;
    hub.endpoints.emplace(name, ep);
    if (!hub.looking_up) {
        hub.looking_up = true;
        std::thread(Shared::run_lookups, shared_).detach();
    } else {
        hub.lookups.notify_one();
    }
    return true;
}

bool BroadcastHub::send(const std::string &payload, void (*waiting)(bool))
{
    Shared &hub = *shared_;
    std::unique_lock<std::mutex> lock(hub.mutex);
    if (payload.size() > kMaxIntentBytes) {
        ++hub.dropped_intents;
        if (!hub.refusing_large)
            std::fprintf(stderr,
                         "hmisvc-devsim: broadcast of %zu bytes dropped: an intent takes at most %zu "
                         "(further ones not shown until one is sent; %llu dropped so far)\n",
                         payload.size(), kMaxIntentBytes, static_cast<unsigned long long>(hub.dropped_intents));
        hub.refusing_large = true;
        return false;
    }
    hub.refusing_large = false;
    auto queued = std::make_shared<Shared::Queued>();
    queued->bytes = payload;
    queued->seq = ++hub.sent;
    // Waiting for room lets the list change meanwhile.
    std::vector<Shared::EndpointPtr> targets;
    for (auto &entry : hub.endpoints)
        targets.push_back(entry.second);
    bool waited = false;
    for (const Shared::EndpointPtr &ep : targets) {
        while (!hub.stopping && !ep->dropped && ep->queue.size() >= kMaxQueued &&
               Steady::now() < ep->progress + kStuck) {
            if (waiting && !waited) {  // then looked at again
                waited = true;
                lock.unlock();
                waiting(true);
                lock.lock();
                continue;
            }
            hub.room.wait_until(lock, ep->progress + kStuck);
        }
        if (hub.stopping || ep->dropped)
            continue;
        if (ep->queue.size() >= kMaxKept)
            hub.lose(*ep);
        else if (ep->queue.empty())
            ep->progress = Steady::now();
        // Bytes are counted once, at the intent's first queue.
        while (queued->queues == 0 && hub.queued_bytes + payload.size() > kMaxKeptBytes && hub.lose_oldest()) {
        }
        hub.push(*ep, queued);
        hub.schedule(ep);
    }
    lock.unlock();
    if (waited)
        waiting(false);
    return true;
}

void BroadcastHub::clear(const char *why)
{
    Shared &hub = *shared_;
    std::lock_guard<std::mutex> lock(hub.mutex);
    // drop() erases from the map: walk a copy.
    std::vector<Shared::EndpointPtr> all;
    for (auto &entry : hub.endpoints)
        all.push_back(entry.second);
    for (const Shared::EndpointPtr &ep : all)
        hub.drop(ep, why);
}

std::size_t BroadcastHub::endpoints() const
{
    std::lock_guard<std::mutex> lock(shared_->mutex);
    return shared_->endpoints.size();
}

std::size_t BroadcastHub::queued_bytes() const
{
    std::lock_guard<std::mutex> lock(shared_->mutex);
    return shared_->queued_bytes;
}

uint64_t BroadcastHub::dropped() const
{
    std::lock_guard<std::mutex> lock(shared_->mutex);
    return shared_->dropped_intents;
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
