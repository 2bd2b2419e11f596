// The broadcast service of the simulated device: it remembers endpoint names
// and fans every sent intent out to them. One thread looks up names that are
// not published yet; each endpoint with intents to take has a delivery
// thread of its own, one delivery in flight at a time, in order, so that an
// endpoint that never answers holds up its own deliveries and nobody else's.
#ifndef HMISVC_DEVSIM_BROADCAST_HUB_H
#define HMISVC_DEVSIM_BROADCAST_HUB_H

#include <hmisvc/binder.h>

#include <chrono>
#include <cstddef>
#include <memory>
#include <string>
#include <vector>

namespace hmisvc::devsim {

class BroadcastHub {
public:
    // Endpoints remembered at once, looked up or not; a registration past
    // them is refused.
    static constexpr std::size_t kMaxEndpoints = 256;
    // Intents queued for one endpoint that has not taken them yet; past
    // that the sender waits for room while the endpoint takes intents. Once
    // it took none for a second (stopped, not serving, or only starved of
    // CPU for a moment) senders stop waiting for it, and it keeps up to
    // kMaxKept: past them the oldest is dropped (and said so). An intent
    // queued for many endpoints is held once; all queues together hold at
    // most kMaxKeptBytes of distinct intents, the oldest dropped past them.
    // An intent larger than kMaxIntentBytes is not sent at all (the
    // library's endpoints take at most 4 KiB). So queued and in-flight
    // intents take at most kMaxKeptBytes + kMaxEndpoints * kMaxIntentBytes.
    static constexpr std::size_t kMaxQueued = 64;
    static constexpr std::size_t kMaxKept = 1024;
    static constexpr std::size_t kMaxKeptBytes = 16 << 20;
    static constexpr std::size_t kMaxIntentBytes = 64 << 10;

    // A name that cannot be looked up is dropped after `attempts` times
    // `retry` (endpoints register before they publish); it is tried after
    // `retry`, then ever less often, at least once a second.
    explicit BroadcastHub(int attempts = 100, std::chrono::milliseconds retry = std::chrono::milliseconds(50));
    ~BroadcastHub();
    BroadcastHub(const BroadcastHub &) = delete;
    BroadcastHub &operator=(const BroadcastHub &) = delete;

    // The connection deliveries are made on (shared with the serving loop;
    // the driver keeps the state of each calling thread apart).
    void attach(binder_connection *bs);

    // Code 0: a name already known is kept once; false (and said on
    // standard error) when kMaxEndpoints are remembered already.
    bool add(const std::string &name);
    // Code 1: queues the payload for every endpoint; returns at once unless
    // a queue is full (see kMaxQueued). False (and said on standard error)
    // when it is larger than kMaxIntentBytes. `waiting` is told (true)
    // before it waits for room, on no lock of the hub's, and (false) once
    // done, so that the caller can let others be served meanwhile.
    bool send(const std::string &payload, void (*waiting)(bool) = nullptr);
    // Forgets every endpoint, as the broadcast service's process does when
    // it ends: their queues are dropped, a delivery in flight ends with its
    // call, and each must register again.
    void clear(const char *why);

    std::size_t endpoints() const;
    // Bytes of the distinct intents queued now, and intents dropped so far
    // (too large, or lost from a queue), each drop counted per endpoint.
    std::size_t queued_bytes() const;
    uint64_t dropped() const;
    std::vector<std::string> names() const;

private:
    struct Shared;
    std::shared_ptr<Shared> shared_;
};

}  // namespace hmisvc::devsim

#endif
