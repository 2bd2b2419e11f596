/**
 * @file
 * A supervised receiver: broadcasts that keep arriving when the broadcast
 * service restarts, handled on a bounded queue by a fixed number of threads.
 */
#ifndef HMISVC_RECEIVING_H
#define HMISVC_RECEIVING_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <functional>
#include <memory>

#include <hmisvc/export.h>

class BroadcastReceiver;
class BroadcastService;
class IntentFilter;

namespace hmisvc {

/// Which delivery a full queue gives up.
enum class Overflow {
    DropOldest, ///< the longest-waiting delivery makes room for the new one
    DropNewest, ///< the new delivery is dropped
};

/// Where a Receiving stands.
enum class ReceivingState {
    Stopped,   ///< not started yet
    Starting,  ///< the endpoint is being made and registered
    Receiving, ///< a probe broadcast came back: broadcasts sent now arrive
    Down,      ///< the broadcast service is gone; the endpoint registers again when it returns
};

/// A short lower-case name of @p state: "stopped", "starting", "receiving", "down".
HMISVC_API const char *receivingStateName(ReceivingState state) noexcept;

/// How a Receiving queues and reports.
struct ReceivingOptions {
    /// Deliveries waiting for a handler thread at most (at least 1).
    std::size_t queueCapacity = 1024;
    /// Threads that call the receivers (at least 1). With one, a receiver's
    /// onReceive never runs twice at once.
    unsigned threads = 1;
    /// What a full queue drops.
    Overflow overflow = Overflow::DropOldest;
    /// How long the endpoint may take to receive a probe after it
    /// registered before it registers and publishes itself again (at least
    /// 1 s). It goes on probing meanwhile; no thread is added.
    std::chrono::milliseconds readyLimit{10000};
    /// Called on every change of state(), on a thread of the layer; keep it
    /// short and do not destroy the Receiving from it.
    std::function<void(ReceivingState)> onStateChange;
    /// Called on a handler thread with what an onReceive threw (it must not
    /// throw itself); by default one line "hmisvc: a receiver threw: " and
    /// the exception's text goes to standard error. Either way the delivery
    /// counts in ReceivingStats::handlerErrors and the thread goes on.
    std::function<void(std::exception_ptr)> onHandlerError;
};

/// Counters of a Receiving, all since it was made. Every delivery counted in
/// received ends in exactly one of handled, handlerErrors, dropped, queued,
/// or is being handled now.
struct ReceivingStats {
    std::uint64_t received = 0;      ///< deliveries to a registered receiver (one per matching receiver)
    std::uint64_t handled = 0;       ///< onReceive calls that returned
    std::uint64_t dropped = 0;       ///< deliveries the full queue gave up
    std::uint64_t handlerErrors = 0; ///< onReceive calls that threw
    std::size_t queued = 0;          ///< deliveries waiting now
    /// Registrations of the endpoint with the broadcast service: 1, plus one
    /// per restart of the broadcast service (and per ready limit passed).
    unsigned endpoints = 0;
    /// Transactions that reached the endpoint but carried no intent: another
    /// code than 1, a missing or short payload, an encoding that does not
    /// decode. Answered as a delivery is; nothing reaches a receiver.
    std::uint64_t malformed = 0;
    /// One-way transactions that reached the endpoint (decoded and queued
    /// like the others, or counted as malformed; not answered: the sender
    /// waits for no reply).
    std::uint64_t oneWay = 0;
};

namespace detail {
class ReceivingCore;
}

/// Receives broadcasts for the application and keeps receiving them.
///
/// Runs a broadcast endpoint of its own, on the same wire as the one behind
/// Context::CreateBroadcastService(): a thread that registers the name
/// "BroadCast#" and its kernel thread id with the broadcast service,
/// publishes itself under that name in the service manager and serves the
/// deliveries (code 1, the intent's encoding). start() waits until it
/// receives (a probe broadcast came back). When the broadcast service dies,
/// the endpoint registers again once it returns and waits until it
/// receives; onStateChange reports each step.
///
/// Deliveries do not start a thread each: the endpoint matches them against
/// the registered filters and puts them on a queue of
/// ReceivingOptions::queueCapacity entries, served by
/// ReceivingOptions::threads threads that call the receivers' onReceive.
/// When the queue is full, ReceivingOptions::overflow decides what is
/// dropped; ReceivingStats::dropped counts it. A transaction that carries
/// no intent is counted (ReceivingStats::malformed) and answered; a one-way
/// one is served without a reply. A receiver is called with service().
///
/// Threads: the handler threads and the endpoint's, whatever arrives
/// (besides, the process has one death-watch thread, shared by every
/// Receiving and hmisvc::Service). Descriptors: the endpoint's binder
/// connection and one wake-up descriptor. The destructor ends them all: the
/// endpoint never waits for the broadcast service without also watching for
/// it, so a broadcast service that hangs or is stopped does not hold the
/// destructor up. Where /dev/binder cannot be opened the endpoint tries
/// again every 5 s, quietly, and the state stays Starting.
class HMISVC_API Receiving {
public:
    /// A stopped receiver; nothing is started before start().
    explicit Receiving(ReceivingOptions options = {});
    /// Ends the endpoint (its thread and connection: the broadcast service's
    /// later deliveries to its name fail), stops the handler threads after
    /// the onReceive calls under way and drops what is queued. Receivers and
    /// filters are not used afterwards.
    ~Receiving();
    Receiving(const Receiving &) = delete;            ///< Not copyable.
    Receiving &operator=(const Receiving &) = delete; ///< Not copyable.

    /// Adds @p receiver with @p filter, as BroadcastService::registerReceiver
    /// does: a receiver already registered keeps its first filter, the
    /// filter is referenced (actions added later count). Both must outlive
    /// the Receiving. May be called at any time; a delivery counts the
    /// receivers registered when it arrives.
    /// @throws std::invalid_argument when @p receiver or @p filter is null.
    void registerReceiver(BroadcastReceiver *receiver, IntentFilter *filter);

    /// Starts the handler threads and the endpoint, which registers once the
    /// broadcast service is registered, and waits until it receives. A
    /// second call only waits.
    /// @param limit how long to wait at most.
    /// @return true once broadcasts sent now arrive; false when @p limit
    ///         passed first (the layer goes on trying in the background).
    bool start(std::chrono::milliseconds limit);

    /// Waits until the state is ReceivingState::Receiving.
    /// @param limit how long to wait at most.
    /// @return whether it is receiving.
    bool waitUntilReceiving(std::chrono::milliseconds limit);

    /// Where it stands now.
    ReceivingState state() const;
    /// Its counters now.
    ReceivingStats stats() const;
    /// The registry the receivers are called with (null before start()):
    /// it holds the registered receivers and their filters, no endpoint of
    /// the design, and lives as long as the Receiving.
    BroadcastService *service() const;

private:
    std::shared_ptr<detail::ReceivingCore> core_;
};

} // namespace hmisvc

#endif
