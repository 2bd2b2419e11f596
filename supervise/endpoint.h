// The supervised receiver's own broadcast endpoint: the designed endpoint's
// wire (registration, the published name, code-1 deliveries), served on a
// connection whose every wait can be interrupted.
#ifndef HMISVC_SUPERVISE_ENDPOINT_H
#define HMISVC_SUPERVISE_ENDPOINT_H

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include <hmisvc/binder.h>

class Intent;

namespace hmisvc::detail {

// Told what reaches the endpoint, on the endpoint's thread.
class DeliverySink {
public:
    virtual ~DeliverySink() = default;
    virtual void delivered(std::shared_ptr<Intent> intent) = 0;
    virtual void malformed() = 0;
    virtual void oneWay() = 0;
};

// Whether `bytes` is a whole intent encoding whose lengths stay within it:
// checked before decoding, so that a forged length never makes the decoder
// allocate what the payload does not hold.
bool intentEncodingFits(const std::string &bytes);

// One endpoint: a connection, its published name ("BroadCast#" and the
// thread id of the thread that made it) and the thread that made it, which
// alone uses it. Every wait also watches `wake`, a descriptor that becomes
// readable when the owner wants the thread back; `stop` says it is for good.
class Endpoint {
public:
    using Clock = std::chrono::steady_clock;
    enum class Wait { Timeout, Woken, Broken };

    Endpoint(int wake, const std::atomic<bool> &stop, DeliverySink &sink);
    ~Endpoint(); // closes the connection: the object dies with it
    Endpoint(const Endpoint &) = delete;
    Endpoint &operator=(const Endpoint &) = delete;

    // False when the driver cannot be used.
    bool ok() const { return bs_ != nullptr; }
    const std::string &name() const { return name_; }

    // Registers the name with the broadcast service, then publishes it:
    // the designed order. False when either failed or the wait was stopped.
    bool announce();
    // Sends `bytes` (an intent's encoding) through the broadcast service as
    // a sender would. False when it failed or the wait was stopped.
    bool send(const std::string &bytes);
    // Serves deliveries until `until` or a wake-up.
    Wait serve(Clock::time_point until);

private:
    struct Pending;
    enum class Call { Answered, Failed, Stopped, Broken };
    Call call(const char *service, std::uint32_t code, binder_io &msg, const std::function<void(binder_io &)> &read);
    bool pump(Pending *pending);
    void walk(const unsigned char *data, std::size_t size, Pending *pending);
    void take(binder_transaction_data &txn);
    bool drain();
    void giveBack(binder_uintptr_t buffer);

    binder_connection *bs_ = nullptr;
    const int wake_;
    const std::atomic<bool> &stop_;
    DeliverySink &sink_;
    std::string name_;
};

} // namespace hmisvc::detail

#endif
