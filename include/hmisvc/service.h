/**
 * @file
 * A supervised service handle: a proxy that finds its service when it is
 * there, notices when it dies, builds itself again, and gives every call a
 * time limit if asked to.
 */
#ifndef HMISVC_SERVICE_H
#define HMISVC_SERVICE_H

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <future>
#include <memory>
#include <string>
#include <tuple>
#include <type_traits>
#include <utility>

#include <hmisvc/context.h>
#include <hmisvc/export.h>
#include <hmisvc/outcome.h>

namespace hmisvc {

/// Where a supervised service stands, as far as its handle knows.
enum class ServiceState {
    Unknown, ///< not called yet
    Up,      ///< answered the last call
    Down,    ///< died, failed a call in the driver, or was not registered when asked
};

/// A short lower-case name of @p state: "unknown", "up", "down".
HMISVC_API const char *serviceStateName(ServiceState state) noexcept;

/// One change of a supervised service's state, as
/// ServiceOptions::onStateChange gets it: the new state, and for Up whether
/// it is the handle's first answer or a recovery after the service was
/// down. It converts to the new ServiceState, so a callback that takes a
/// ServiceState works unchanged.
///
/// @code
/// options.onStateChange = [](hmisvc::ServiceChange change) {
///     if (change.recovered())
///         reloadSettings();   // the service came back: its state may be new
/// };
/// @endcode
class ServiceChange {
public:
    /// A change to @p state; @p first says the handle never saw its
    /// service answer before (meaningful for ServiceState::Up only).
    constexpr ServiceChange(ServiceState state, bool first) noexcept : state_(state), first_(first) {}
    /// The new state.
    constexpr ServiceState state() const noexcept { return state_; }
    /// Up for the first time: the first answer the handle got.
    constexpr bool firstUp() const noexcept { return state_ == ServiceState::Up && first_; }
    /// Up after an earlier answer and a Down: the service recovered.
    constexpr bool recovered() const noexcept { return state_ == ServiceState::Up && !first_; }
    /// The new state, for callbacks and comparisons written for ServiceState.
    constexpr operator ServiceState() const noexcept { return state_; }

private:
    ServiceState state_;
    bool first_;
};

/// How a Service looks its service up and calls it.
struct ServiceOptions {
    /// How long a call waits for the service's name to be registered when
    /// the handle has no proxy (polled every 10 ms). 0: look once.
    std::chrono::milliseconds lookupLimit{1000};
    /// Time limit of every call; 0 (the default) runs calls on the caller's
    /// thread with no limit, at the cost of a plain proxy call.
    std::chrono::milliseconds callLimit{0};
    /// Limited calls run on threads the process shares per service name
    /// (its lane): 2, or the largest `workers` a handle on the name asked
    /// for, at most 8. A call that passes its limit leaves its transaction
    /// to finish on its thread; while all of the lane's are busy, further
    /// limited calls to the name wait their limit. Other names' calls are
    /// not held up.
    unsigned workers = 1;
    /// Called on every change of state(), with the change (the new state,
    /// and whether an Up is the first answer or a recovery; a callback may
    /// take a plain ServiceState instead): on the calling thread (or lane's)
    /// when a call is answered or fails, on the layer's watch thread when
    /// the service dies. Keep it short (the watch thread serves every handle
    /// of the process); it may call through the handle, but must not
    /// destroy it. No call comes after ~Service().
    std::function<void(ServiceChange)> onStateChange;
};

namespace detail {

class ServiceCore;
struct Shared;

/// A limited call, run on a thread of its service name's lane.
class HMISVC_API Job {
public:
    virtual ~Job();
    /// Makes the call with @p proxy (null when the service was not found by
    /// @p why) and keeps its result.
    virtual void run(const std::shared_ptr<ServiceManager> &proxy, Outcome why) = 0;
    /// An asynchronous call's end: hands its result on (@p late is Outcome::Ok
    /// after run(), else why there is none). Called once, never after the
    /// handle closed.
    virtual void deliver(Outcome late);
    /// An asynchronous call the closing handle gives up on.
    virtual void abandon();

private:
    friend class ServiceCore;
    friend struct Shared;
    bool started_ = false; // under the layer's lock
    bool done_ = false;
    bool async_ = false;
    bool claimed_ = false; // its end is being delivered (asynchronous calls)
    std::atomic<bool> sent_{false}; // the service was found: the call is under way
    std::chrono::steady_clock::time_point deadline_{}; // of its caller's wait
    std::uint64_t seq_ = 0;               // its place in its lane's queue
    std::shared_ptr<ServiceCore> owner_; // the handle's state, kept while it runs
};

/// Builds the handle's state for service @p name.
HMISVC_API std::shared_ptr<ServiceCore> makeServiceCore(std::string name, ServiceOptions options);
/// Ends what the handle started: no callback runs after it returns; its
/// queued calls are dropped and its connection closed, unless a call on it
/// is stuck in the driver (on its lane's thread, until it returns).
HMISVC_API void closeServiceCore(ServiceCore &core) noexcept;
/// The current proxy, looked up and built if there is none; null with
/// @p why set when the service was not found within the lookup limit.
HMISVC_API std::shared_ptr<ServiceManager> acquire(ServiceCore &core, Outcome &why);
/// After a call through @p proxy that ended with @p outcome: a failed
/// transaction drops the proxy and reports the service down.
HMISVC_API void settle(ServiceCore &core, const std::shared_ptr<ServiceManager> &proxy, Outcome outcome);
/// Runs @p job on its name's lane and waits @p limit at most: Outcome::Ok
/// when it finished in time; otherwise Outcome::TimedOut (sent, or still
/// waiting for a thread: a job not yet started then never runs) or
/// Outcome::NotRegistered (the name was not registered within the limit).
HMISVC_API Outcome runWithin(ServiceCore &core, const std::shared_ptr<Job> &job, std::chrono::milliseconds limit);
/// Queues @p job on its name's lane and returns at once; its end is
/// delivered on the thread that ran it, or on the process's timer thread with
/// Outcome::TimedOut (or Outcome::NotRegistered) once @p limit passed
/// (0: no limit).
HMISVC_API void post(ServiceCore &core, const std::shared_ptr<Job> &job, std::chrono::milliseconds limit);
/// Looks the service up now unless the handle has a proxy, waiting up to
/// @p limit; whether it has one.
HMISVC_API bool connect(ServiceCore &core, std::chrono::milliseconds limit);
/// Where the service stands, as far as the handle knows.
HMISVC_API ServiceState state(const ServiceCore &core);
/// The service's name.
HMISVC_API const std::string &name(const ServiceCore &core);
/// The time limit of the handle's calls (ServiceOptions::callLimit).
HMISVC_API std::chrono::milliseconds callLimit(const ServiceCore &core);

/// Calls @p method on @p proxy and returns what became of it; an exception
/// of a failed or undecodable call becomes its outcome.
template <class Proxy, class R, class... P, class... A>
Result<R> invoke(ServiceCore &core, const std::shared_ptr<ServiceManager> &proxy, R (Proxy::*method)(P...),
                 A &&...args)
{
    auto &target = static_cast<Proxy &>(*proxy);
    setLastOutcome(Outcome::Ok);
    try {
        if constexpr (std::is_void_v<R>) {
            (target.*method)(std::forward<A>(args)...);
            const Outcome outcome = lastOutcome();
            settle(core, proxy, outcome);
            return Result<void>(outcome);
        } else {
            R value = (target.*method)(std::forward<A>(args)...);
            const Outcome outcome = lastOutcome();
            settle(core, proxy, outcome);
            return outcome == Outcome::Ok ? Result<R>(std::move(value)) : Result<R>(outcome);
        }
    } catch (const std::exception &) {
        // The MAC and CCID getters throw after a failed call; a record that
        // does not decode throws too.
        Outcome outcome = lastOutcome();
        if (outcome == Outcome::Ok)
            outcome = Outcome::ReplyUndecodable;
        setLastOutcome(outcome);
        settle(core, proxy, outcome);
        return Result<R>(outcome);
    }
}

/// A call run on a lane's thread: the arguments copied into the job, its result
/// kept for whoever waits for it.
template <class Proxy, class R, class... P> class CallJob : public Job {
public:
    using Method = R (Proxy::*)(P...); ///< The proxy method called.
    /// A call of @p method with copies of @p args, for a handle's @p core.
    template <class... A>
    CallJob(ServiceCore &core, Method method, A &&...args)
        : core_(core), method_(method), args_(std::forward<A>(args)...)
    {
    }
    /// Makes the call with @p proxy, or keeps @p why when there is none.
    void run(const std::shared_ptr<ServiceManager> &proxy, Outcome why) override
    {
        result_ = proxy ? std::apply([&](auto &...a) { return invoke<Proxy>(core_, proxy, method_, a...); }, args_)
                        : Result<R>(why);
    }

protected:
    ServiceCore &core_; ///< the job holds its core while it runs
    Method method_;     ///< the proxy method called
    std::tuple<std::decay_t<P>...> args_; ///< the copies the call is made with
    Result<R> result_{Outcome::TimedOut}; ///< its result once run
};

/// A limited call its caller waits for: out-parameters (non-const
/// references) copied back when the call finished in time.
template <class Proxy, class R, class... P> class MethodJob final : public CallJob<Proxy, R, P...> {
public:
    using CallJob<Proxy, R, P...>::CallJob;
    /// Hands the result to the caller's thread, copying out-parameters back
    /// into @p args.
    template <class... A> Result<R> finish(A &...args)
    {
        copyBack(std::index_sequence_for<P...>{}, args...);
        return std::move(this->result_);
    }

private:
    template <std::size_t... I, class... A> void copyBack(std::index_sequence<I...>, A &...args)
    {
        (assignIfOut<P>(args, std::get<I>(this->args_)), ...);
    }
    template <class Param, class Arg, class Held> static void assignIfOut(Arg &arg, Held &held)
    {
        if constexpr (std::is_lvalue_reference_v<Param> && !std::is_const_v<std::remove_reference_t<Param>>)
            arg = held;
    }
};

/// Fulfils a future: with the result, or Outcome::TimedOut when the handle
/// closed first.
template <class R> struct Promise {
    std::shared_ptr<std::promise<Result<R>>> promise = std::make_shared<std::promise<Result<R>>>(); ///< the future's
    void operator()(Result<R> result) { promise->set_value(std::move(result)); } ///< The call's end.
    void operator()() { promise->set_value(Result<R>(Outcome::TimedOut)); }      ///< The handle closed first.
};

/// An asynchronous call: its end goes to @p Done, with the arguments as the
/// call left them when Done takes them (out-parameters), else the result
/// alone.
template <class Done, class Proxy, class R, class... P> class AsyncJob final : public CallJob<Proxy, R, P...> {
public:
    /// A call of @p method with copies of @p args whose end goes to @p done.
    template <class... A>
    AsyncJob(Done done, ServiceCore &core, R (Proxy::*method)(P...), A &&...args)
        : CallJob<Proxy, R, P...>(core, method, std::forward<A>(args)...), done_(std::move(done))
    {
    }
    /// Hands the result (or @p late) to the callback.
    void deliver(Outcome late) override
    {
        Result<R> result = late == Outcome::Ok ? std::move(this->result_) : Result<R>(late);
        if constexpr (std::is_invocable_v<Done &, Result<R>, std::decay_t<P> &...>)
            std::apply([&](auto &...a) { done_(std::move(result), a...); }, this->args_);
        else
            done_(std::move(result));
    }
    /// Ends a future's wait when the handle closed first.
    void abandon() override
    {
        if constexpr (std::is_same_v<Done, Promise<R>>)
            done_();
    }

private:
    Done done_;
};

} // namespace detail

/// A supervised handle on one service.
///
/// Proxy is one of the proxy classes (BacklightManager, SettingsManager,
/// ...). The handle looks the service up on its first call, waiting up to
/// ServiceOptions::lookupLimit for the name to be registered; it keeps one
/// proxy and builds a new one after the service died (it links to the
/// service's death through the binder driver) or after a call through it
/// failed in the driver. Calls return a Result: the method's value, or why
/// there is none: Outcome::NoDriver when /dev/binder cannot be opened,
/// Outcome::NotRegistered when the name was not registered within the
/// lookup limit (or, for a limited call, within its limit), otherwise what
/// became of the transaction.
///
/// @code
/// hmisvc::Service<BacklightManager> backlight;
/// if (auto level = backlight.call(&BacklightManager::GetBrightness))
///     show(*level);               // or level.value()
/// backlight.call(&BacklightManager::SetBrightness, 80);
/// @endcode
///
/// Without ServiceOptions::callLimit a call runs on the caller's thread and
/// costs what a plain proxy call does. With it, the call runs on a thread
/// the process shares among the handles on the same name (see
/// ServiceOptions::workers) and the caller waits at most the limit; a call
/// that passes it returns Outcome::TimedOut while its transaction finishes
/// on that thread (binder cannot cancel one). A call is sent at most once:
/// the handle never repeats a failed one.
///
/// Any number of threads may call through one handle at once.
template <class Proxy> class Service {
public:
    /// A handle on the service the proxy class names (Proxy::SERVICE_NAME).
    explicit Service(ServiceOptions options = {}) : Service(Proxy::SERVICE_NAME, std::move(options)) {}
    /// A handle on service @p name served by Proxy's protocol.
    Service(std::string name, ServiceOptions options)
        : core_(detail::makeServiceCore(std::move(name), std::move(options)))
    {
    }
    /// Ends the handle without waiting for a stuck call: the call finishes
    /// on its lane's thread, holding the handle's connection until then;
    /// nothing else of the handle outlives it.
    ~Service()
    {
        if (core_)
            detail::closeServiceCore(*core_);
    }
    Service(const Service &) = delete;            ///< Not copyable.
    Service &operator=(const Service &) = delete; ///< Not copyable.

    /// Calls @p method with @p args under the handle's time limit.
    template <class R, class... P, class... A> Result<R> call(R (Proxy::*method)(P...), A &&...args)
    {
        return callWithin(detail::callLimit(*core_), method, std::forward<A>(args)...);
    }

    /// Calls @p method with @p args under the time limit @p limit (0: none,
    /// on the caller's thread).
    template <class R, class... P, class... A>
    Result<R> callWithin(std::chrono::milliseconds limit, R (Proxy::*method)(P...), A &&...args)
    {
        if (limit.count() <= 0) {
            Outcome why = Outcome::Ok;
            const std::shared_ptr<ServiceManager> proxy = detail::acquire(*core_, why);
            if (!proxy) {
                detail::setLastOutcome(why);
                return Result<R>(why);
            }
            return detail::invoke<Proxy>(*core_, proxy, method, std::forward<A>(args)...);
        }
        auto job = std::make_shared<detail::MethodJob<Proxy, R, P...>>(*core_, method, args...);
        if (const Outcome late = detail::runWithin(*core_, job, limit); late != Outcome::Ok) {
            detail::setLastOutcome(late);
            return Result<R>(late);
        }
        Result<R> result = job->finish(args...);
        detail::setLastOutcome(result.outcome());
        return result;
    }

    /// Calls @p method with @p args asynchronously, under the handle's time
    /// limit: returns at once; the future holds the result (the method's
    /// value or why there is none: Outcome::TimedOut once the limit passed,
    /// also when the handle is destroyed first). Out-parameters are not
    /// handed back: take the callback form for them.
    ///
    /// @code
    /// auto level = backlight.callAsync(&BacklightManager::GetBrightness);
    /// ...
    /// if (auto r = level.get()) show(*r);
    /// @endcode
    template <class R, class... P, class... A>
    std::future<Result<R>> callAsync(R (Proxy::*method)(P...), A &&...args)
    {
        detail::Promise<R> promise;
        auto future = promise.promise->get_future();
        post(std::move(promise), method, std::forward<A>(args)...);
        return future;
    }

    /// Calls @p method with @p args asynchronously, under the handle's time
    /// limit, and hands the result to @p done: `done(Result<R>)`, or
    /// `done(Result<R>, args...)` to see the arguments as the call left them
    /// (out-parameters such as the record GetWifiinfo fills).
    ///
    /// The call runs on a thread of its name's lane (ServiceOptions::workers),
    /// never on a thread of its own; @p done runs once, on that thread, or
    /// on the process's timer thread with Outcome::TimedOut when the limit
    /// passed first (the transaction goes on on its thread; a call still
    /// waiting for one then is never sent) or Outcome::NotRegistered when the
    /// name was not registered within it. Without a limit (callLimit 0) it
    /// waits for the answer. @p done never runs after the handle is
    /// destroyed: the destructor waits for a @p done under way (unless
    /// called from it) and drops the rest. Keep it short: it holds up the
    /// other calls' ends (of every handle). From @p done, call the handle
    /// asynchronously: a limited call() there waits for a thread of the
    /// lane, and may wait for the one running @p done (it times out).
    ///
    /// @code
    /// backlight.callAsync([](hmisvc::Result<bool> accepted) { ... },
    ///                     &BacklightManager::SetBrightness, 80);
    /// @endcode
    template <class Done, class R, class... P, class... A,
              class = std::enable_if_t<!std::is_member_function_pointer_v<std::decay_t<Done>>>>
    void callAsync(Done &&done, R (Proxy::*method)(P...), A &&...args)
    {
        post(std::forward<Done>(done), method, std::forward<A>(args)...);
    }

    /// Looks the service up now if the handle has no proxy, waiting up to
    /// @p limit for its name. The state changes on the next call's answer.
    /// @return whether the handle has a proxy for a registered service.
    bool connect(std::chrono::milliseconds limit) { return detail::connect(*core_, limit); }

    /// Where the service stands, as far as the handle knows.
    ServiceState state() const { return detail::state(*core_); }
    /// The service's name.
    const std::string &name() const { return detail::name(*core_); }

private:
    template <class Done, class R, class... P, class... A> void post(Done &&done, R (Proxy::*method)(P...), A &&...args)
    {
        auto job = std::make_shared<detail::AsyncJob<std::decay_t<Done>, Proxy, R, P...>>(
            std::forward<Done>(done), *core_, method, std::forward<A>(args)...);
        detail::post(*core_, job, detail::callLimit(*core_));
    }

    std::shared_ptr<detail::ServiceCore> core_;
};

} // namespace hmisvc

#endif
