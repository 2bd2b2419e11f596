// The supervised receiver's state. The receiver runs an endpoint of its own
// (supervise/endpoint.cpp) on one thread: it registers and publishes it,
// probes it until a probe broadcast comes back, serves it, and registers it
// again after each death of the broadcast service. The endpoint matches each
// delivery against the registered filters and queues it; a fixed set of
// handler threads call the application's receivers from the queue. Nothing
// is started per delivery and nothing outlives the Receiving but the
// process's death-watch thread.
#include <hmisvc/receiving.h>

#include <hmisvc/broadcast.h>
#include <hmisvc/context.h>

#include "supervise/endpoint.h"
#include "supervise/watch.h"

#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstdio>
#include <deque>
#include <iterator>
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
// Probe rounds start short (a probe usually comes back at once) and grow to
// this while the endpoint does not receive.
constexpr std::chrono::milliseconds kFirstProbeRound{20};
constexpr std::chrono::milliseconds kProbeRound{250};
constexpr std::chrono::milliseconds kMinReadyLimit{1000};
// Without a usable driver the endpoint tries again this often.
constexpr std::chrono::milliseconds kNoDriverRetry{5000};
// The probe action of hmisvc::waitForReceiving(): no application filter
// holds it, and every receiver of it checks the sender's pid.
const char *const kProbeAction = "hmisvc.wait.PROBE";

struct Delivery {
    BroadcastReceiver *receiver;
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

std::string probeEncoding(int token)
{
    Intent probe(kProbeAction);
    probe.putExtra("pid", static_cast<int>(getpid()));
    probe.putExtra("token", token);
    return probe.toString();
}
} // namespace

class ReceivingCore : public DeathListener,
                      public DeliverySink,
                      public std::enable_shared_from_this<ReceivingCore> {
public:
    explicit ReceivingCore(ReceivingOptions options)
        : options_(std::move(options)), wake_(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC))
    {
        options_.queueCapacity = std::max<std::size_t>(1, options_.queueCapacity);
        options_.threads = std::max(1u, options_.threads);
        options_.readyLimit = std::max(options_.readyLimit, kMinReadyLimit);
    }
    ~ReceivingCore() override
    {
        if (wake_ >= 0)
            ::close(wake_);
    }
    ReceivingCore(const ReceivingCore &) = delete;
    ReceivingCore &operator=(const ReceivingCore &) = delete;

    void registerReceiver(BroadcastReceiver *receiver, IntentFilter *filter)
    {
        if (receiver == nullptr || filter == nullptr)
            throw std::invalid_argument("hmisvc::Receiving::registerReceiver: null receiver or filter");
        std::lock_guard<std::mutex> lock(mutex_);
        registry_.registerReceiver(receiver, filter);
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
                handlers_.emplace_back([self = shared_from_this()] { self->serve(); });
            endpoint_ = std::thread([self = shared_from_this()] { self->runEndpoint(); });
        }
        return waitUntilReceiving(limit);
    }

    bool waitUntilReceiving(std::chrono::milliseconds limit)
    {
        std::unique_lock<std::mutex> lock(mutex_);
        return changed_.wait_for(lock, limit, [&] { return state_.load() == ReceivingState::Receiving; });
    }

    // Under no lock of the Receiving. The endpoint's thread comes back from
    // any wait when poked; handler threads end after the call under way.
    void close() noexcept
    {
        {
            std::lock_guard<std::mutex> lock(callback_mutex_);
            closed_ = true;
        }
        {
            std::lock_guard<std::mutex> lock(mutex_);
            stopping_ = true;
            stop_ = true;
            queue_.clear();
            work_.notify_all();
        }
        poke();
        finish(endpoint_);
        for (auto &handler : handlers_)
            finish(handler);
    }

    // On the endpoint's thread: a probe is noted, a delivery queued once
    // per receiver whose filter holds its action.
    void delivered(std::shared_ptr<Intent> intent) override
    {
        const std::string action = intent->getAction();
        if (action == kProbeAction) {
            if (intent->getIntExtra("pid", -1) == static_cast<int>(getpid()))
                probed_ = std::max(probed_, intent->getIntExtra("token", 0));
            return;
        }
        std::lock_guard<std::mutex> lock(mutex_);
        if (stopping_)
            return;
        for (const auto &entry : registry_.receivers) {
            if (!entry.second->matchAction(action))
                continue;
            ++stats_.received;
            if (queue_.size() >= options_.queueCapacity) {
                ++stats_.dropped;
                if (options_.overflow == Overflow::DropNewest)
                    continue;
                queue_.pop_front();
            }
            queue_.push_back(Delivery{entry.first, intent});
            work_.notify_one();
        }
    }

    void malformed() override { count(&ReceivingStats::malformed); }
    void oneWay() override { count(&ReceivingStats::oneWay); }

    // Only the death of the registration the endpoint registered with
    // counts: an older one may die late.
    void serviceDied(const std::string &, std::uint64_t generation) override
    {
        if (generation != generation_.load())
            return;
        lost_.fetch_add(1);
        change(ReceivingState::Down);
        poke();
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
        return started_ ? &registry_ : nullptr;
    }

private:
    template <class Counter> void count(Counter ReceivingStats::*counter)
    {
        std::lock_guard<std::mutex> lock(mutex_);
        ++(stats_.*counter);
    }

    void poke()
    {
        const std::uint64_t one = 1;
        if (wake_ >= 0 && ::write(wake_, &one, sizeof one) < 0) {
            // Only a full counter refuses: the thread is being woken anyway.
        }
    }

    // Waits `time` unless poked.
    void idle(std::chrono::milliseconds time)
    {
        pollfd fd{wake_, POLLIN, 0};
        ::poll(&fd, 1, static_cast<int>(time.count()));
        std::uint64_t count = 0;
        while (::read(wake_, &count, sizeof count) > 0) {
        }
    }

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
            delivery.receiver->onReceive(&registry_, std::move(delivery.intent));
            return true;
        } catch (...) {
            if (options_.onHandlerError)
                options_.onHandlerError(std::current_exception());
            else
                printHandlerError(std::current_exception());
            return false;
        }
    }

    // The endpoint's thread: one connection after another (a new one only
    // when the driver refused the last), until stopped.
    void runEndpoint()
    {
        pthread_setname_np(pthread_self(), "hmisvc-endpoint");
        while (!stop_) {
            Endpoint endpoint(wake_, stop_, *this);
            if (!endpoint.ok()) {
                idle(kNoDriverRetry);
                continue;
            }
            if (!runWith(endpoint))
                idle(kPoll);
        }
    }

    // Registers `endpoint` with the broadcast service, probes it until it
    // receives and serves it; registers again after each death of the
    // broadcast service and after each ready limit passed without a probe.
    // False when the connection broke, true when stopped.
    bool runWith(Endpoint &endpoint)
    {
        std::uint64_t registered = 0; // the registration's generation
        std::uint64_t lost_then = 0;  // deaths when it registered
        Clock::time_point ready_by{};
        bool receiving = false;
        int first_token = 0, token = probed_;
        auto round = kFirstProbeRound;
        while (!stop_) {
            const std::uint64_t lost = lost_.load();
            // Linking the death watch also says the service is registered.
            const std::uint64_t generation = Watcher::instance().link(*watch_);
            Endpoint::Wait waited = Endpoint::Wait::Timeout;
            if (generation == 0) {
                waited = endpoint.serve(Clock::now() + kPoll);
            } else if (generation != registered || lost != lost_then || (!receiving && Clock::now() >= ready_by)) {
                generation_ = generation; // a death from here on is this registration's
                if (endpoint.announce()) {
                    registered = generation;
                    lost_then = lost;
                    ready_by = Clock::now() + options_.readyLimit;
                    receiving = false;
                    first_token = token + 1;
                    round = kFirstProbeRound;
                    count(&ReceivingStats::endpoints);
                } else if (!stop_) {
                    waited = endpoint.serve(Clock::now() + kPoll);
                }
            } else if (!receiving) {
                endpoint.send(probeEncoding(++token));
                waited = endpoint.serve(Clock::now() + round);
                round = std::min(kProbeRound, round * 2);
                receiving = probed_ >= first_token && change(ReceivingState::Receiving, &lost_then);
            } else {
                waited = endpoint.serve(Clock::time_point::max());
            }
            if (waited == Endpoint::Wait::Broken)
                return false;
        }
        return true;
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
    const int wake_;                // pokes the endpoint's thread out of any wait
    std::atomic<bool> stop_{false}; // for good
    Watch *watch_ = nullptr;        // set by the first start()
    std::atomic<ReceivingState> state_{ReceivingState::Stopped};
    std::atomic<std::uint64_t> generation_{0}; // of the registration the endpoint registered with
    std::atomic<std::uint64_t> lost_{0};       // deaths of such registrations
    int probed_ = 0; // the highest probe token that came back; endpoint thread only

    std::mutex callback_mutex_; // taken before mutex_
    bool closed_ = false;

    mutable std::mutex mutex_;
    std::condition_variable work_, changed_;
    std::deque<Delivery> queue_;
    ReceivingStats stats_;
    mutable BroadcastService registry_; // the receivers' filters; matched under mutex_
    bool started_ = false;
    bool stopping_ = false;
    std::vector<std::thread> handlers_;
    std::thread endpoint_;
};

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
