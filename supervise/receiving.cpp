// The supervised receiver's state. The designed BroadcastService stays the
// endpoint; the layer registers on it, for each application receiver, a
// forwarder of its own with the application's filter (so matching is the
// designed one). A forwarder only queues the delivery and returns, so the
// designed dispatch thread it runs on ends at once; a fixed set of handler
// threads call the application's receivers from the queue. One supervisor
// thread makes the endpoints: the first at start(), a new one each time the
// broadcast service comes back after it died.
//
// What stays for the life of the process: every designed BroadcastService
// (the designed endpoint uses it until the process ends; each keeps its
// parked endpoint thread, so one per restart of the broadcast service) and
// every forwarder (they are registered on those services). Forwarders reach
// the Receiving weakly: once it is destroyed they drop what they get.
#include <hmisvc/receiving.h>

#include <hmisvc/broadcast.h>
#include <hmisvc/context.h>
#include <hmisvc/wait.h>

#include "supervise/watch.h"

#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstdio>
#include <deque>
#include <iterator>
#include <map>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <vector>

namespace hmisvc {

const char *receivingStateName(ReceivingState state) noexcept
{
    // In the order of the enumeration.
    static const char *const names[] = {"stopped", "starting", "receiving", "down"};
    const auto index = static_cast<std::size_t>(state);
    return index < std::size(names) ? names[index] : names[0];
}

namespace detail {

namespace {
using Clock = std::chrono::steady_clock;
constexpr std::chrono::milliseconds kPoll{10};
// The supervisor waits for a probe in rounds this long, so that it notices
// being stopped or the broadcast service dying meanwhile.
constexpr std::chrono::milliseconds kProbeRound{250};
// An endpoint given up keeps its thread: do not give them up quickly, nor
// often while the broadcast service lives.
constexpr std::chrono::milliseconds kMinReadyLimit{1000};
constexpr unsigned kRemakes = 3;

struct Delivery {
    BroadcastReceiver *receiver;
    BroadcastService *service;
    std::shared_ptr<Intent> intent;
};

void printHandlerError(std::exception_ptr error)
{
    try {
        std::rethrow_exception(error);
    } catch (const std::exception &e) {
        std::fprintf(stderr, "hmisvc: a receiver threw: %s\n", e.what());
    } catch (...) {
        std::fputs("hmisvc: a receiver threw something that is not a std::exception\n", stderr);
    }
}

// Joins `thread` unless it is the calling one (a Receiving destroyed from
// its own handler), which then ends on its own.
void finish(std::thread &thread)
{
    if (!thread.joinable())
        return;
    if (thread.get_id() == std::this_thread::get_id())
        thread.detach();
    else
        thread.join();
}
} // namespace

class ReceivingCore;

// Stands in for one application receiver on every endpoint. Never deleted:
// the designed services it is registered on live for the process.
class Forwarder final : public BroadcastReceiver {
public:
    Forwarder(BroadcastReceiver *target, IntentFilter *filter, std::weak_ptr<ReceivingCore> core)
        : target(target), filter(filter), core_(std::move(core))
    {
    }
    void onReceive(BroadcastService *service, std::shared_ptr<Intent> intent) override;

    BroadcastReceiver *const target;
    IntentFilter *const filter;

private:
    const std::weak_ptr<ReceivingCore> core_;
};

class ReceivingCore : public DeathListener, public std::enable_shared_from_this<ReceivingCore> {
public:
    explicit ReceivingCore(ReceivingOptions options) : options_(std::move(options))
    {
        options_.queueCapacity = std::max<std::size_t>(1, options_.queueCapacity);
        options_.threads = std::max(1u, options_.threads);
        options_.readyLimit = std::max(options_.readyLimit, kMinReadyLimit);
    }

    void registerReceiver(BroadcastReceiver *receiver, IntentFilter *filter)
    {
        if (receiver == nullptr || filter == nullptr)
            throw std::invalid_argument("hmisvc::Receiving::registerReceiver: null receiver or filter");
        std::lock_guard<std::mutex> lock(mutex_);
        if (forwarders_.count(receiver) != 0)
            return; // the first filter stays, as the designed registry does
        auto *forwarder = new Forwarder(receiver, filter, weak_from_this());
        forwarders_.emplace(receiver, forwarder);
        if (current_ != nullptr)
            current_->registerReceiver(forwarder, filter);
    }

    bool start(std::chrono::milliseconds limit)
    {
        bool first = false;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            first = !started_ && !stopping_;
            started_ = true;
        }
        if (first) {
            // The watcher's thread starts with its first use: not before.
            watch_ = &Watcher::instance().watch(Context::BROADCAST_SERVICE);
            change(ReceivingState::Starting);
            Watcher::instance().subscribe(*watch_, weak_from_this());
            std::lock_guard<std::mutex> lock(mutex_);
            for (unsigned i = 0; i < options_.threads; ++i)
                handlers_.emplace_back([this] { serve(); });
            supervisor_ = std::thread([this] { supervise(); });
        }
        return waitUntilReceiving(limit);
    }

    bool waitUntilReceiving(std::chrono::milliseconds limit)
    {
        std::unique_lock<std::mutex> lock(mutex_);
        return changed_.wait_for(lock, limit, [&] { return state_.load() == ReceivingState::Receiving; });
    }

    // Under no lock of the Receiving; the threads end after what they do.
    void close() noexcept
    {
        {
            std::lock_guard<std::mutex> lock(callback_mutex_);
            closed_ = true;
        }
        {
            std::lock_guard<std::mutex> lock(mutex_);
            stopping_ = true;
            queue_.clear();
            work_.notify_all();
            wake_.notify_all();
        }
        for (auto &handler : handlers_)
            finish(handler);
        finish(supervisor_);
    }

    // From a forwarder, on a designed dispatch thread: queue and return.
    void push(BroadcastReceiver *receiver, BroadcastService *service, std::shared_ptr<Intent> intent)
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (stopping_ || service != current_)
            return; // a replaced endpoint's delivery, or too late
        ++stats_.received;
        if (queue_.size() >= options_.queueCapacity) {
            ++stats_.dropped;
            if (options_.overflow == Overflow::DropNewest)
                return;
            queue_.pop_front();
        }
        queue_.push_back(Delivery{receiver, service, std::move(intent)});
        work_.notify_one();
    }

    // Only the death of the registration the endpoint was made for counts:
    // an older one may die late.
    void serviceDied(const std::string &, std::uint64_t generation) override
    {
        if (generation != generation_.load())
            return;
        lost_.fetch_add(1);
        change(ReceivingState::Down);
        std::lock_guard<std::mutex> lock(mutex_);
        wake_.notify_all();
    }

    ReceivingState state() const { return state_.load(); }

    ReceivingStats stats() const
    {
        std::lock_guard<std::mutex> lock(mutex_);
        ReceivingStats now = stats_;
        now.queued = queue_.size();
        return now;
    }

    BroadcastService *service() const
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return current_;
    }

private:
    // A handler thread.
    void serve()
    {
        pthread_setname_np(pthread_self(), "hmisvc-receive");
        std::unique_lock<std::mutex> lock(mutex_);
        for (;;) {
            work_.wait(lock, [&] { return stopping_ || !queue_.empty(); });
            if (stopping_)
                return;
            Delivery delivery = std::move(queue_.front());
            queue_.pop_front();
            lock.unlock();
            const bool returned = call(delivery);
            lock.lock();
            ++(returned ? stats_.handled : stats_.handlerErrors);
        }
    }

    bool call(Delivery &delivery)
    {
        try {
            delivery.receiver->onReceive(delivery.service, std::move(delivery.intent));
            return true;
        } catch (...) {
            if (options_.onHandlerError)
                options_.onHandlerError(std::current_exception());
            else
                printHandlerError(std::current_exception());
            return false;
        }
    }

    // The supervisor thread: an endpoint now, a new one after each death of
    // the broadcast service.
    void supervise()
    {
        pthread_setname_np(pthread_self(), "hmisvc-restart");
        for (;;) {
            const std::uint64_t settled = connect();
            std::unique_lock<std::mutex> lock(mutex_);
            wake_.wait(lock, [&] { return stopping_ || lost_.load() != settled; });
            if (stopping_)
                return;
        }
    }

    // Makes endpoints until one receives; returns the deaths of the
    // broadcast service seen when it was made (or at once when stopping).
    std::uint64_t connect()
    {
        BroadcastService *service = nullptr;
        std::uint64_t made_at = 0; // deaths when `service` was made
        unsigned remade = 0;       // endpoints given up since then
        for (;;) {
            const std::uint64_t before = lost_.load();
            if (stopping())
                return before;
            // Linking the death watch also says the service is registered.
            const std::uint64_t generation = Watcher::instance().link(*watch_);
            if (generation == 0) {
                pause(kPoll);
                continue;
            }
            // Each endpoint given up keeps a thread: without a death or a new
            // registration, only a few are made before the last one is
            // simply probed again.
            const bool same = service != nullptr && made_at == before && generation == generation_.load();
            if (!same || remade < kRemakes) {
                remade = same ? remade + 1 : 0;
                generation_ = generation;
                service = makeEndpoint();
                made_at = before;
            }
            if (receives(service, before) && change(ReceivingState::Receiving, &before))
                return before;
        }
    }

    BroadcastService *makeEndpoint()
    {
        BroadcastService *service = Context::CreateBroadcastService();
        std::lock_guard<std::mutex> lock(mutex_);
        for (const auto &entry : forwarders_)
            service->registerReceiver(entry.second, entry.second->filter);
        current_ = service;
        ++stats_.endpoints;
        return service;
    }

    // Whether `service` received a probe within the ready limit, while
    // the broadcast service did not die and the Receiving is not stopped.
    bool receives(BroadcastService *service, std::uint64_t before)
    {
        const auto deadline = Clock::now() + options_.readyLimit;
        for (;;) {
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
            if (waitForReceiving(service, std::max(std::chrono::milliseconds(0), std::min(left, kProbeRound))))
                return true;
            // A registration that changed (the old one may die late) needs a
            // new endpoint.
            if (Clock::now() >= deadline || lost_.load() != before || stopping() ||
                Watcher::instance().link(*watch_) != generation_.load())
                return false;
        }
    }

    bool stopping() const
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return stopping_;
    }

    void pause(std::chrono::milliseconds time)
    {
        std::unique_lock<std::mutex> lock(mutex_);
        wake_.wait_for(lock, time, [&] { return stopping_; });
    }

    // One change at a time, so callbacks come in the order of the changes.
    // Receiving holds only while the broadcast service has not died since
    // `*before` deaths (a death after the check reports Down after it).
    bool change(ReceivingState to, const std::uint64_t *before = nullptr)
    {
        std::lock_guard<std::mutex> lock(callback_mutex_);
        if (closed_ || (before != nullptr && lost_.load() != *before))
            return false;
        if (state_.exchange(to) != to && options_.onStateChange)
            options_.onStateChange(to);
        std::lock_guard<std::mutex> wake(mutex_);
        changed_.notify_all();
        return true;
    }

    ReceivingOptions options_;
    Watch *watch_ = nullptr; // set by the first start()
    std::atomic<ReceivingState> state_{ReceivingState::Stopped};
    std::atomic<std::uint64_t> generation_{0}; // of the registration the endpoint was made for
    std::atomic<std::uint64_t> lost_{0};       // deaths of such registrations

    std::mutex callback_mutex_; // taken before mutex_
    bool closed_ = false;

    mutable std::mutex mutex_;
    std::condition_variable work_, wake_, changed_;
    std::deque<Delivery> queue_;
    ReceivingStats stats_;
    std::map<BroadcastReceiver *, Forwarder *> forwarders_;
    BroadcastService *current_ = nullptr;
    bool started_ = false;
    bool stopping_ = false;
    std::vector<std::thread> handlers_;
    std::thread supervisor_;
};

void Forwarder::onReceive(BroadcastService *service, std::shared_ptr<Intent> intent)
{
    if (auto core = core_.lock())
        core->push(target, service, std::move(intent));
}

} // namespace detail

Receiving::Receiving(ReceivingOptions options) : core_(std::make_shared<detail::ReceivingCore>(std::move(options)))
{
}

Receiving::~Receiving() { core_->close(); }

void Receiving::registerReceiver(BroadcastReceiver *receiver, IntentFilter *filter)
{
    core_->registerReceiver(receiver, filter);
}

bool Receiving::start(std::chrono::milliseconds limit) { return core_->start(limit); }
bool Receiving::waitUntilReceiving(std::chrono::milliseconds limit) { return core_->waitUntilReceiving(limit); }
ReceivingState Receiving::state() const { return core_->state(); }
ReceivingStats Receiving::stats() const { return core_->stats(); }
BroadcastService *Receiving::service() const { return core_->service(); }

} // namespace hmisvc
