// The supervised handle's state: one proxy at a time, replaced after the
// service died or a call failed in the driver; a fixed set of workers for
// calls with a time limit.
#include <hmisvc/service.h>

#include "supervise/watch.h"

#include <pthread.h>

#include <algorithm>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>
#include <vector>

namespace hmisvc {

const char *serviceStateName(ServiceState state) noexcept
{
    switch (state) {
    case ServiceState::Unknown:
        return "unknown";
    case ServiceState::Up:
        return "up";
    case ServiceState::Down:
        return "down";
    }
    return "unknown";
}

namespace detail {

namespace {
using Clock = std::chrono::steady_clock;
constexpr std::chrono::milliseconds kPoll{10};

} // namespace

Job::~Job() = default;
void Job::deliver(Outcome) {}
void Job::abandon() {}

class ServiceCore : public DeathListener, public std::enable_shared_from_this<ServiceCore> {
public:
    ServiceCore(std::string name, ServiceOptions options)
        : name_(std::move(name)), options_(std::move(options)), watch_(Watcher::instance().watch(name_))
    {
        options_.workers = std::max(1u, options_.workers);
    }

    // Only the death of the registration the proxy came from counts: an
    // older one may die late, after a new proxy already answers.
    void serviceDied(const std::string &, std::uint64_t generation) override
    {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            if (!proxy_ || generation != generation_)
                return;
            proxy_.reset();
        }
        change(ServiceState::Down);
    }

    // The clock is read only when there is no proxy: a call should cost
    // what a plain proxy call does.
    std::shared_ptr<ServiceManager> acquire(Outcome &why, std::chrono::milliseconds limit)
    {
        std::unique_lock<std::mutex> lock(mutex_);
        if (proxy_) {
            // A registration died since: if it was not the proxy's, watch the
            // one the name stands for now (the proxy's, unless it died too).
            if (deaths(watch_) != seen_) {
                seen_ = deaths(watch_);
                if (const std::uint64_t generation = Watcher::instance().link(watch_))
                    generation_ = generation;
            }
            return proxy_;
        }
        const auto until = Clock::now() + limit;
        why = Outcome::NotRegistered;
        for (bool first = true;; first = false) {
            seen_ = deaths(watch_);
            // Linked first: a death from here on is the new proxy's.
            if (const std::uint64_t generation = Watcher::instance().link(watch_)) {
                auto proxy = Context::getSystemService(name_);
                if (proxy && proxyUsable(*proxy)) {
                    proxy_ = std::move(proxy);
                    generation_ = generation;
                    return proxy_;
                }
            } else if (first && !driverUsable()) { // no name will ever be registered
                why = Outcome::NoDriver;
                break;
            }
            if (Clock::now() >= until)
                break;
            std::this_thread::sleep_until(std::min(until, Clock::now() + kPoll));
        }
        lock.unlock();
        change(ServiceState::Down);
        return nullptr;
    }

    // Up is reported on an answer, not on a lookup: a name can still point
    // to a service that has just died.
    void settle(const std::shared_ptr<ServiceManager> &proxy, Outcome outcome)
    {
        if (outcome == Outcome::Ok || outcome == Outcome::ReplyUndecodable) {
            if (state_.load(std::memory_order_relaxed) != ServiceState::Up)
                change(ServiceState::Up);
            return;
        }
        if (outcome != Outcome::TransactionFailed && outcome != Outcome::NotRegistered &&
            outcome != Outcome::NoDriver)
            return;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            if (proxy_ == proxy)
                proxy_.reset();
        }
        change(ServiceState::Down);
    }

    // A job whose worker was still waiting for the name when the limit
    // passed was not registered within the call's time.
    Outcome runWithin(const std::shared_ptr<Job> &job, std::chrono::milliseconds limit)
    {
        std::unique_lock<std::mutex> lock(pool_mutex_);
        startWorkers();
        job->deadline_ = Clock::now() + limit;
        queue_.push_back(job);
        work_.notify_one();
        if (finished_.wait_until(lock, job->deadline_, [&] { return job->done_; }))
            return Outcome::Ok;
        if (!job->started_) {
            queue_.erase(std::find(queue_.begin(), queue_.end(), job));
            return Outcome::TimedOut;
        }
        return job->sent_ ? Outcome::TimedOut : Outcome::NotRegistered;
    }

    // An asynchronous call: its end comes from the worker that ran it or,
    // once its limit passed, from the timer thread, whichever is first.
    void post(const std::shared_ptr<Job> &job, std::chrono::milliseconds limit)
    {
        std::unique_lock<std::mutex> lock(pool_mutex_);
        job->async_ = true;
        if (stopping_) {
            job->claimed_ = true;
            lock.unlock();
            job->abandon();
            return;
        }
        startWorkers();
        job->deadline_ = limit.count() > 0 ? Clock::now() + limit : Clock::time_point::max();
        queue_.push_back(job);
        if (limit.count() > 0) {
            startTimer();
            timed_.push_back(job);
            timer_.notify_one();
        }
        work_.notify_one();
    }

    void close() noexcept
    {
        {
            std::lock_guard<std::recursive_mutex> lock(callback_mutex_);
            closed_ = true;
        }
        {
            std::lock_guard<std::recursive_mutex> lock(deliver_mutex_);
            delivering_closed_ = true;
        }
        std::vector<std::shared_ptr<Job>> abandoned;
        {
            std::lock_guard<std::mutex> lock(pool_mutex_);
            stopping_ = true;
            for (auto &job : queue_)
                if (job->async_ && !job->claimed_)
                    abandoned.push_back(job);
            for (auto &job : timed_)
                if (!job->claimed_ && std::find(abandoned.begin(), abandoned.end(), job) == abandoned.end())
                    abandoned.push_back(job);
            for (auto &job : abandoned)
                job->claimed_ = true;
            queue_.clear();
            timed_.clear();
            work_.notify_all();
            timer_.notify_all();
        }
        for (auto &job : abandoned)
            job->abandon();
    }

    ServiceState state() const { return state_.load(); }
    const std::string &name() const { return name_; }
    std::chrono::milliseconds callLimit() const { return options_.callLimit; }
    std::chrono::milliseconds lookupLimit() const { return options_.lookupLimit; }

    void subscribe() { Watcher::instance().subscribe(watch_, weak_from_this()); }

private:
    // The proxy found its service (a lookup that raced an unpublication
    // leaves it without one).
    static bool proxyUsable(ServiceManager &proxy)
    {
        struct Handle : ServiceManager {
            static int of(ServiceManager &p) { return p.*(&Handle::handle); }
        };
        return Handle::of(proxy) > 0;
    }

    void change(ServiceState to)
    {
        if (state_.exchange(to) == to)
            return;
        const bool first = to == ServiceState::Up && !answered_.exchange(true);
        std::lock_guard<std::recursive_mutex> lock(callback_mutex_);
        if (!closed_ && options_.onStateChange)
            options_.onStateChange(ServiceChange(to, first));
    }

    // Under pool_mutex_. The workers keep the core alive while they run.
    void startWorkers()
    {
        if (workers_started_)
            return;
        workers_started_ = true;
        for (unsigned i = 0; i < options_.workers; ++i)
            std::thread([self = shared_from_this()] { self->work(); }).detach();
    }

    void startTimer()
    {
        if (timer_started_)
            return;
        timer_started_ = true;
        std::thread([self = shared_from_this()] { self->watchDeadlines(); }).detach();
    }

    // Under pool_mutex_: whether the job's end is this caller's to deliver.
    bool claim(const std::shared_ptr<Job> &job)
    {
        if (job->claimed_)
            return false;
        job->claimed_ = true;
        if (job->deadline_ != Clock::time_point::max())
            timed_.erase(std::find(timed_.begin(), timed_.end(), job));
        return true;
    }

    // The handle's end: no delivery starts after close(), and close() waits
    // for one under way (a recursive lock: a callback may end the handle).
    void deliver(const std::shared_ptr<Job> &job, Outcome late)
    {
        std::lock_guard<std::recursive_mutex> lock(deliver_mutex_);
        if (!delivering_closed_)
            job->deliver(late);
        else
            job->abandon(); // a future still learns of the end

    }

    void watchDeadlines()
    {
        pthread_setname_np(pthread_self(), "hmisvc-timer");
        std::unique_lock<std::mutex> lock(pool_mutex_);
        while (!stopping_) {
            auto next = Clock::time_point::max();
            for (auto &job : timed_)
                next = std::min(next, job->deadline_);
            if (next == Clock::time_point::max()) {
                timer_.wait(lock);
                continue;
            }
            if (timer_.wait_until(lock, next) == std::cv_status::no_timeout && Clock::now() < next)
                continue;
            const auto now = Clock::now();
            std::vector<std::pair<std::shared_ptr<Job>, Outcome>> late;
            for (auto &job : std::vector<std::shared_ptr<Job>>(timed_)) {
                if (job->deadline_ > now || !claim(job))
                    continue;
                Outcome why = Outcome::TimedOut;
                if (!job->started_)
                    queue_.erase(std::find(queue_.begin(), queue_.end(), job)); // never sent
                else if (!job->sent_)
                    why = Outcome::NotRegistered;
                late.emplace_back(job, why);
            }
            lock.unlock();
            for (auto &[job, why] : late)
                deliver(job, why);
            lock.lock();
        }
    }

    void work()
    {
        pthread_setname_np(pthread_self(), "hmisvc-call");
        std::unique_lock<std::mutex> lock(pool_mutex_);
        for (;;) {
            work_.wait(lock, [&] { return stopping_ || !queue_.empty(); });
            if (stopping_)
                return;
            auto job = queue_.front();
            queue_.pop_front();
            job->started_ = true;
            lock.unlock();
            // The lookup waits no longer than the caller does.
            auto lookup = options_.lookupLimit;
            if (job->deadline_ != Clock::time_point::max())
                lookup = std::min(lookup, std::chrono::duration_cast<std::chrono::milliseconds>(job->deadline_ - Clock::now()));
            Outcome why = Outcome::Ok;
            auto proxy = acquire(why, std::max(std::chrono::milliseconds(0), lookup));
            job->sent_ = proxy != nullptr;
            job->run(proxy, why);
            lock.lock();
            job->done_ = true;
            finished_.notify_all();
            if (job->async_ && claim(job)) {
                lock.unlock();
                deliver(job, Outcome::Ok);
                job.reset(); // its callback's captures go on this thread, unlocked
                lock.lock();
            }
        }
    }

    const std::string name_;
    ServiceOptions options_;
    Watch &watch_;
    std::atomic<ServiceState> state_{ServiceState::Unknown};
    std::atomic<bool> answered_{false}; // it has been Up before

    std::mutex mutex_; // the proxy
    std::shared_ptr<ServiceManager> proxy_;
    std::uint64_t generation_ = 0; // of the registration the proxy came from
    std::uint64_t seen_ = 0;       // deaths of the name's registrations then

    std::recursive_mutex callback_mutex_; // a callback may call through the handle
    bool closed_ = false;

    std::recursive_mutex deliver_mutex_; // asynchronous calls' ends
    bool delivering_closed_ = false;

    std::mutex pool_mutex_;
    std::condition_variable work_, finished_, timer_;
    std::deque<std::shared_ptr<Job>> queue_;
    std::vector<std::shared_ptr<Job>> timed_; // asynchronous calls with a limit, not yet ended
    bool workers_started_ = false;
    bool timer_started_ = false;
    bool stopping_ = false;
};

std::shared_ptr<ServiceCore> makeServiceCore(std::string name, ServiceOptions options)
{
    auto core = std::make_shared<ServiceCore>(std::move(name), std::move(options));
    core->subscribe();
    return core;
}

void closeServiceCore(ServiceCore &core) noexcept { core.close(); }

std::shared_ptr<ServiceManager> acquire(ServiceCore &core, Outcome &why)
{
    return core.acquire(why, core.lookupLimit());
}

bool connect(ServiceCore &core, std::chrono::milliseconds limit)
{
    Outcome why = Outcome::Ok;
    return core.acquire(why, limit) != nullptr;
}

void settle(ServiceCore &core, const std::shared_ptr<ServiceManager> &proxy, Outcome outcome)
{
    core.settle(proxy, outcome);
}

Outcome runWithin(ServiceCore &core, const std::shared_ptr<Job> &job, std::chrono::milliseconds limit)
{
    return core.runWithin(job, limit);
}

void post(ServiceCore &core, const std::shared_ptr<Job> &job, std::chrono::milliseconds limit)
{
    core.post(job, limit);
}

ServiceState state(const ServiceCore &core) { return core.state(); }
const std::string &name(const ServiceCore &core) { return core.name(); }
std::chrono::milliseconds callLimit(const ServiceCore &core) { return core.callLimit(); }

} // namespace detail
} // namespace hmisvc
