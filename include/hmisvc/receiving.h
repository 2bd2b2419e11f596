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
    Starting,  ///< an endpoint is being made and registered
    Receiving, ///< a probe broadcast came back: broadcasts sent now arrive
    Down,      ///< the broadcast service is gone; a new endpoint follows when it returns
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
    /// How long one endpoint may take to receive a probe before it is
    /// made again (at least 1 s). An endpoint given up keeps its thread, so
    /// while the broadcast service lives an endpoint is made again at most
    /// 3 times; after that the last one is probed until it receives.
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
    std::uint64_t received = 0;      ///< deliveries to a registered receiver (one per matching receiver) from the current endpoint
    std::uint64_t handled = 0;       ///< onReceive calls that returned
    std::uint64_t dropped = 0;       ///< deliveries the full queue gave up
    std::uint64_t handlerErrors = 0; ///< onReceive calls that threw
    std::size_t queued = 0;          ///< deliveries waiting now
    unsigned endpoints = 0;          ///< endpoints made (1 plus one per restart of the broadcast service)
};

namespace detail {
class ReceivingCore;
}

/// Receives broadcasts for the application and keeps receiving them.
///
/// Owns the broadcast endpoint (a BroadcastService from
/// Context::CreateBroadcastService()), registers the application's
/// receivers on it and waits until it receives (as waitForReceiving()
/// does). When the broadcast service dies, it waits for it to return, makes
/// a new endpoint, registers the receivers again and waits until that one
/// receives; onStateChange reports each step.
///
/// Deliveries do not start a thread each: they go on a queue of
/// ReceivingOptions::queueCapacity entries, served by
/// ReceivingOptions::threads threads that call the receivers' onReceive.
/// When the queue is full, ReceivingOptions::overflow decides what is
/// dropped; ReceivingStats::dropped counts it. A receiver is called with the
/// BroadcastService that received the delivery.
///
/// Threads: a fixed number of handler threads and one supervisor thread,
/// started by start(). The designed dispatch threads that carry a delivery
/// to the layer end at once (they only queue it). An endpoint the layer
/// replaced keeps its thread, as every endpoint does (one parked thread per
/// restart of the broadcast service), and receives nothing more: deliveries
/// reaching it are ignored.
///
/// Lifetimes: the designed services made for it are never deleted, nor the
/// small forwarding receivers the layer registers on them in place of the
/// application's receivers (one per registered receiver); after the
/// Receiving is destroyed they drop what arrives. The application's filters
/// stay referenced by those services: keep them for the process.
class HMISVC_API Receiving {
public:
    /// A stopped receiver; nothing is started before start().
    explicit Receiving(ReceivingOptions options = {});
    /// Stops the handler threads (after the onReceive calls under way) and
    /// the supervisor, and drops what is queued. Receivers are no longer
    /// called afterwards; filters are still read by the designed services
    /// (see the class notes).
    ~Receiving();
    Receiving(const Receiving &) = delete;            ///< Not copyable.
    Receiving &operator=(const Receiving &) = delete; ///< Not copyable.

    /// Adds @p receiver with @p filter, as BroadcastService::registerReceiver
    /// does: a receiver already registered keeps its first filter, the
    /// filter is referenced (actions added later count). The receiver must
    /// outlive the Receiving, the filter the process (the designed
    /// endpoints keep reading it). Register before start(): the designed
    /// registry is not locked against a delivery under way.
    /// @throws std::invalid_argument when @p receiver or @p filter is null.
    void registerReceiver(BroadcastReceiver *receiver, IntentFilter *filter);

    /// Starts the handler threads and the supervisor, which makes the
    /// endpoint once the broadcast service is registered, and waits until
    /// it receives. A second call only waits.
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
    /// The endpoint's service that receives now (null before start()).
    BroadcastService *service() const;

private:
    std::shared_ptr<detail::ReceivingCore> core_;
};

} // namespace hmisvc

#endif
