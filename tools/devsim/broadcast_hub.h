// The broadcast service of the simulated device: it remembers endpoint names
// and fans every sent intent out to them, each endpoint fed by a delivery
// thread of its own so that a slow or dead one holds up nobody else.
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
    // A name that cannot be looked up is tried `attempts` times, `retry`
    // apart, before it is dropped: endpoints register before they publish.
    explicit BroadcastHub(int attempts = 100, std::chrono::milliseconds retry = std::chrono::milliseconds(50));
    ~BroadcastHub();
    BroadcastHub(const BroadcastHub &) = delete;
    BroadcastHub &operator=(const BroadcastHub &) = delete;

    // The connection deliveries are made on (shared with the serving loop;
    // the driver keeps the state of each calling thread apart).
    void attach(binder_connection *bs);

    // Code 0: a name already known is kept once.
    void add(const std::string &name);
    // Code 1: queues the payload for every endpoint and returns at once.
    void send(const std::string &payload);

    std::size_t endpoints() const;
    std::vector<std::string> names() const;

private:
    struct Shared;
    std::shared_ptr<Shared> shared_;
};

}  // namespace hmisvc::devsim

#endif
