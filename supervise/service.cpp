// The supervised handle's state: one proxy at a time, replaced after the
// service died or a call failed in the driver. Calls with a time limit run
// on threads the process shares, a few per service name: binder cannot
// cancel a transaction, so a hung service holds the threads its calls are
// on until it answers; keeping them per name and few bounds what any number
// of handles, made and destroyed while it hangs, can hold, and keeps one
// hung service from holding up the others.
#include <hmisvc/service.h>

#include "supervise/watch.h"

#include <pthread.h>

#include <algorithm>
#include <condition_variable>
#include <map>
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
// Threads of a service name's lane, unless a handle on it asks for more
// workers; never more than kMostLaneThreads.
constexpr unsigned kLaneThreads = 2;
constexpr unsigned kMostLaneThreads = 8;
} // namespace

// One service name's limited calls, in the order they were made, and the
// threads that run them; kept for the process.
struct Lane {
    std::map<std::uint64_t, std::shared_ptr<Job>> queue; // by sequence number
    std::condition_variable work;
    unsigned size = kLaneThreads;
    unsigned threads = 0, busy = 0;
};

// What every handle of the process shares, under one lock: the lanes, the
// asynchronous calls' deadlines and the state of every job.
struct Shared {
    std::mutex mutex;
    std::condition_variable finished; // a job ran
    std::condition_variable timer;    // an earlier deadline
    std::map<std::string, Lane> lanes;
    std::map<std::pair<Clock::time_point, std::uint64_t>, std::shared_ptr<Job>> deadlines;
    std::uint64_t jobs = 0;
    bool timing = false;

    // Under the lock: the timer thread learns of `job`'s deadline.
    void expect(const std::shared_ptr<Job> &job);
};

// Never freed: its threads run for the process.
Shared &shared()
{
    static Shared *const s = new Shared;
    return *s;
}

Job::~Job() = default;
void Job::deliver(Outcome) {}
void Job::abandon() {}

class ServiceCore : public DeathListener, public std::enable_shared_from_this<ServiceCore> {
    friend struct Shared;

public:
    ServiceCore(std::string name, ServiceOptions options)
        : name_(std::move(name)), options_(std::move(options)), watch_(Watcher::instance().watch(name_))
    {
        options_.workers = std::max(1u, options_.workers);
        std::lock_guard<std::mutex> lock(shared().mutex);
        lane_ = &shared().lanes[name_];
        lane_->size = std::min(kMostLaneThreads, std::max(lane_->size, options_.workers));
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

    // A job whose thread was still waiting for the name when the limit
    // passed was not registered within the call's time.
    Outcome runWithin(const std::shared_ptr<Job> &job, std::chrono::milliseconds limit)
    {
        Shared &s = shared();
        std::unique_lock<std::mutex> lock(s.mutex);
        job->deadline_ = Clock::now() + limit;
        enqueue(job);
        if (s.finished.wait_until(lock, job->deadline_, [&] { return job->done_; }))
            return Outcome::Ok;
        if (!job->started_) {
            lane_->queue.erase(job->seq_);
            return Outcome::TimedOut;
        }
        return job->sent_ ? Outcome::TimedOut : Outcome::NotRegistered;
    }

    // An asynchronous call: its end comes from the thread that ran it or,
    // once its limit passed, from the timer thread, whichever is first.
    void post(const std::shared_ptr<Job> &job, std::chrono::milliseconds limit)
    {
        Shared &s = shared();
        std::unique_lock<std::mutex> lock(s.mutex);
        job->async_ = true;
        if (stopping_) {
            job->claimed_ = true;
            lock.unlock();
            job->abandon();
            return;
        }
        job->deadline_ = limit.count() > 0 ? Clock::now() + limit : Clock::time_point::max();
        enqueue(job);
        outstanding_.emplace(job->seq_, job);
        if (limit.count() > 0)
            s.expect(job);
    }

    // The handle's queued calls are dropped and its connection closed at
    // once; a call under way keeps both until the driver returns it, on its
    // lane's thread.
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
            Shared &s = shared();
            std::lock_guard<std::mutex> lock(s.mutex);
            stopping_ = true;
            for (auto &entry : outstanding_)
                abandoned.push_back(entry.second);
            for (auto &job : abandoned)
                claim(job);
            for (auto &job : abandoned)
                if (!job->started_)
                    lane_->queue.erase(job->seq_);
        }
        std::shared_ptr<ServiceManager> proxy;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            proxy = std::move(proxy_);
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

    // Under the shared lock: queued on the name's lane, which starts one
    // more of its threads when none is free for it.
    void enqueue(const std::shared_ptr<Job> &job)
    {
        Shared &s = shared();
        job->owner_ = shared_from_this();
        job->seq_ = ++s.jobs;
        Lane &lane = *lane_;
        lane.queue.emplace(job->seq_, job);
        if (lane.threads - lane.busy < lane.queue.size() && lane.threads < lane.size) {
            std::thread(&ServiceCore::serve, std::ref(lane)).detach();
            ++lane.threads;
        }
        lane.work.notify_one();
    }

    // Under the shared lock: whether the job's end is this caller's to
    // deliver. Its owner no longer holds it.
    bool claim(const std::shared_ptr<Job> &job)
    {
        if (job->claimed_)
            return false;
        job->claimed_ = true;
        if (job->deadline_ != Clock::time_point::max())
            shared().deadlines.erase({job->deadline_, job->seq_});
        outstanding_.erase(job->seq_);
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

    // The one timer thread of the process: ends, in deadline order, the
    // asynchronous calls whose limit passed.
    static void watchDeadlines()
    {
        pthread_setname_np(pthread_self(), "hmisvc-timer");
        Shared &s = shared();
        std::unique_lock<std::mutex> lock(s.mutex);
        std::vector<std::pair<std::shared_ptr<Job>, Outcome>> late;
        for (;;) {
            if (s.deadlines.empty()) {
                s.timer.wait(lock);
                continue;
            }
            const auto now = Clock::now();
            // A copy: the entry may be erased while the lock is let go.
            const auto next = s.deadlines.begin()->first.first;
            if (next > now) {
                s.timer.wait_until(lock, next);
                continue;
            }
            while (!s.deadlines.empty() && s.deadlines.begin()->first.first <= now) {
                auto job = s.deadlines.begin()->second;
                ServiceCore &core = *job->owner_;
                core.claim(job);
                Outcome why = Outcome::TimedOut;
                if (!job->started_)
                    core.lane_->queue.erase(job->seq_); // never sent
                else if (!job->sent_)
                    why = Outcome::NotRegistered;
                late.emplace_back(std::move(job), why);
            }
            lock.unlock();
            for (auto &[job, why] : late)
                job->owner_->deliver(job, why);
            late.clear(); // callbacks' captures, and maybe a handle's core, go unlocked
            lock.lock();
        }
    }

    // A thread of a lane, for the process: runs its queue's calls in order.
    static void serve(Lane &lane)
    {
        pthread_setname_np(pthread_self(), "hmisvc-call");
        Shared &s = shared();
        std::unique_lock<std::mutex> lock(s.mutex);
        for (;;) {
            lane.work.wait(lock, [&] { return !lane.queue.empty(); });
            auto job = std::move(lane.queue.begin()->second);
            lane.queue.erase(lane.queue.begin());
            job->started_ = true;
            ++lane.busy;
            std::shared_ptr<ServiceCore> core = job->owner_;
            lock.unlock();
            core->execute(*job);
            lock.lock();
            --lane.busy;
            job->done_ = true;
            s.finished.notify_all();
            const bool mine = job->async_ && core->claim(job);
            lock.unlock();
            if (mine)
                core->deliver(job, Outcome::Ok);
            job.reset(); // its callback's captures, and maybe the core, go unlocked
            core.reset();
            lock.lock();
        }
    }

    // The lookup waits no longer than the caller does.
    void execute(Job &job)
    {
        auto lookup = options_.lookupLimit;
        if (job.deadline_ != Clock::time_point::max())
            lookup = std::min(lookup,
                              std::chrono::duration_cast<std::chrono::milliseconds>(job.deadline_ - Clock::now()));
        Outcome why = Outcome::Ok;
        auto proxy = acquire(why, std::max(std::chrono::milliseconds(0), lookup));
        job.sent_ = proxy != nullptr;
        job.run(proxy, why);
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

    Lane *lane_;                                           // of the name, for the process
    std::map<std::uint64_t, std::shared_ptr<Job>> outstanding_; // asynchronous calls not ended; shared lock
    bool stopping_ = false;                                // shared lock
};

void Shared::expect(const std::shared_ptr<Job> &job)
{
    const bool earliest = deadlines.empty() || job->deadline_ < deadlines.begin()->first.first;
    deadlines.emplace(std::make_pair(job->deadline_, job->seq_), job);
    if (!timing) {
        std::thread(&ServiceCore::watchDeadlines).detach();
        timing = true;
    } else if (earliest) {
        timer.notify_one();
    }
}

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
