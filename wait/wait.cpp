// The waits an application needs and the library does not offer.
//
// How an endpoint is known to receive: its thread first registers its name
// with the broadcast service, then publishes "BroadCast#<tid>" in the service
// manager, then serves. Seeing the name published says that registration
// was attempted, not that it succeeded, and nothing published tells which
// BroadcastService an endpoint feeds. So the wait asks the whole path: it
// sends a probe broadcast through the broadcast service, as any sender would,
// and a receiver registered on the awaited service notes its arrival. Once a
// probe has come back, the endpoint is registered, its name can be looked up
// and it serves; a broadcast sent afterwards takes the same path. A probe
// sent too early is simply lost (the broadcast service cannot deliver to a
// name not yet published), so probes are repeated until one arrives.
//
// The probe is sent on the binder layer directly, so that a missing
// broadcast service prints nothing while waiting.
#include <hmisvc/wait.h>

#include <hmisvc/binder.h>
#include <hmisvc/broadcast.h>

#include <unistd.h>

#include <algorithm>
#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <thread>

namespace {

using Clock = std::chrono::steady_clock;
constexpr std::chrono::milliseconds kPoll{10};
constexpr uint32_t kLookupMapSize = 1024;
constexpr uint32_t kDeliver = 1;
const char *const kProbeAction = "hmisvc.wait.PROBE";

struct Connection {
    binder_connection *bs = binder_open(kLookupMapSize);
    ~Connection()
    {
        if (bs != nullptr)
            binder_close(bs);
    }
};

// Notes each probe of this process that a service received: the highest
// token per service.
class ProbeReceiver : public BroadcastReceiver {
public:
    void onReceive(BroadcastService *service, std::shared_ptr<Intent> intent) override
    {
        if (intent->getIntExtra("pid", -1) != static_cast<int>(getpid()))
            return; // another process's probe
        const int token = intent->getIntExtra("token", 0);
        std::lock_guard<std::mutex> lock(mutex_);
        int &last = answered_[service];
        last = std::max(last, token);
        arrived_.notify_all();
    }

    // Registers on `service` once; probes then reach it for good.
    void attach(BroadcastService *service)
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (attached_.emplace(service, true).second)
            service->registerReceiver(this, &filter_);
    }

    int next_token()
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return ++tokens_;
    }

    // Whether `service` got a probe numbered `since` or later, waiting until `until`.
    bool answered(BroadcastService *service, int since, Clock::time_point until)
    {
        std::unique_lock<std::mutex> lock(mutex_);
        return arrived_.wait_until(lock, until, [&] { return answered_[service] >= since; });
    }

    IntentFilter filter_;

private:
    std::mutex mutex_;
    std::condition_variable arrived_;
    std::map<BroadcastService *, int> answered_;
    std::map<BroadcastService *, bool> attached_;
    int tokens_ = 0;
};

// Lives as long as the services it is registered on: for the process.
ProbeReceiver &probe_receiver()
{
    static ProbeReceiver *receiver = [] {
        auto *r = new ProbeReceiver;
        r->filter_.addAction(kProbeAction);
        return r;
    }();
    return *receiver;
}

// One delivery request to the broadcast service, as BroadcastManager sends
// it: the word 0, then the intent's encoding as one block.
bool send_probe(binder_connection *bs, int token)
{
    const uint32_t handle = svcmgr_lookup(bs, SVCMGR_HANDLE, "broadcast");
    if (handle == 0)
        return false;
    Intent probe(kProbeAction);
    probe.putExtra("pid", static_cast<int>(getpid()));
    probe.putExtra("token", token);
    const std::string bytes = probe.toString();
    alignas(8) unsigned char area[512];
    binder_io msg;
    binder_io reply;
    bio_init(&msg, area, sizeof area, 4);
    bio_put_uint32(&msg, 0);
    bio_put_mem(&msg, bytes.data(), static_cast<uint32_t>(bytes.size()));
    const bool sent = binder_call(bs, &msg, &reply, handle, kDeliver) == 0;
    if (sent)
        binder_done(bs, &msg, &reply);
    binder_release(bs, handle);
    return sent;
}

} // namespace

namespace hmisvc {

bool waitForService(const std::string &name, std::chrono::milliseconds timeout)
{
    const auto deadline = Clock::now() + timeout;
    Connection c;
    if (c.bs == nullptr)
        return false;
    for (;;) {
        if (const uint32_t handle = svcmgr_lookup(c.bs, SVCMGR_HANDLE, name.c_str())) {
            binder_release(c.bs, handle);
            return true;
        }
        if (Clock::now() >= deadline)
            return false;
        std::this_thread::sleep_until(std::min(deadline, Clock::now() + kPoll));
    }
}

bool waitForReceiving(BroadcastService *service, std::chrono::milliseconds timeout)
{
    if (service == nullptr)
        return false;
    const auto deadline = Clock::now() + timeout;
    Connection c;
    if (c.bs == nullptr)
        return false;
    ProbeReceiver &receiver = probe_receiver();
    receiver.attach(service);
    const int first = receiver.next_token();
    for (int token = first;; token = receiver.next_token()) {
        // The delivery is done when the send returns, but the receiver runs
        // on a thread of its own: give it a moment before probing again.
        send_probe(c.bs, token);
        if (receiver.answered(service, first, std::min(deadline, Clock::now() + 2 * kPoll)))
            return true;
        if (Clock::now() >= deadline)
            return false;
    }
}

} // namespace hmisvc
