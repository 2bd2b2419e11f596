// The receiver's endpoint speaks the designed endpoint's wire but serves
// its connection itself rather than through the library's loop, for three
// reasons: the loop blocks in the driver with no way back (the endpoint must
// end when its Receiving does), it replies to every transaction (a reply to
// a one-way one is refused by the driver and fails the loop), and its
// handler's decoding errors end the process. The connection is
// non-blocking and every wait is a poll() on it and on the owner's wake-up
// descriptor, so that the thread comes back whenever asked, also in the
// middle of a call to a broadcast service that never answers.
#include "supervise/endpoint.h"

#include "binder/protocol.h"
#include "supervise/watch.h"

#include <hmisvc/binder.h>
#include <hmisvc/binder_seam.h>
#include <hmisvc/broadcast.h>

#include <fcntl.h>
#include <poll.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <functional>

namespace hmisvc::detail {

namespace {
using hmisvc::binder::BlockWriter;
using hmisvc::binder::read_at;
using hmisvc::binder::wire_ptr;

// As the designed endpoint: its mapping size and the delivery code.
constexpr std::uint32_t kMapSize = 4096;
constexpr std::uint32_t kDeliver = 1;
constexpr std::uint32_t kRegister = 0;
const char *const kBroadcastService = "broadcast";
constexpr std::uint32_t kNullLength = 0xffffffffu;

// Reads `n` bytes of the encoding from `pos`, or says it cannot.
bool skip(const std::string &bytes, std::size_t &pos, std::uint64_t n)
{
    if (n > bytes.size() - pos)
        return false;
    pos += static_cast<std::size_t>(n);
    return true;
}

bool length(const std::string &bytes, std::size_t &pos, std::uint64_t &n)
{
    if (bytes.size() - pos < sizeof n)
        return false;
    std::memcpy(&n, bytes.data() + pos, sizeof n);
    pos += sizeof n;
    return true;
}

bool counted(const std::string &bytes, std::size_t &pos)
{
    std::uint64_t n = 0;
    return length(bytes, pos, n) && skip(bytes, pos, n);
}

// The connection waits in poll(), so its reads must not block; the
// library's calls on it (the service manager's lookup and publication)
// read until their reply and need it blocking meanwhile.
class Blocking {
public:
    explicit Blocking(int fd) : fd_(fd), flags_(fcntl(fd, F_GETFL)) { fcntl(fd_, F_SETFL, flags_ & ~O_NONBLOCK); }
    ~Blocking() { fcntl(fd_, F_SETFL, flags_); }
    Blocking(const Blocking &) = delete;
    Blocking &operator=(const Blocking &) = delete;

private:
    const int fd_;
    const int flags_;
};
} // namespace

bool intentEncodingFits(const std::string &bytes)
{
    // action; integer extras (key, 4-byte value); string extras (key, value).
    std::size_t pos = 0;
    std::uint64_t n = 0;
    if (!counted(bytes, pos) || !length(bytes, pos, n))
        return false;
    for (std::uint64_t i = 0; i < n; ++i)
        if (!counted(bytes, pos) || !skip(bytes, pos, sizeof(std::int32_t)))
            return false;
    if (!length(bytes, pos, n))
        return false;
    for (std::uint64_t i = 0; i < n; ++i)
        if (!counted(bytes, pos) || !counted(bytes, pos))
            return false;
    return true;
}

struct Endpoint::Pending {
    binder_io *reply;
    bool done = false;
    bool answered = false;
};

Endpoint::Endpoint(int wake, const std::atomic<bool> &stop, DeliverySink &sink)
    : wake_(wake), stop_(stop), sink_(sink),
      name_("BroadCast#" + std::to_string(static_cast<long>(syscall(SYS_gettid))))
{
    // The owner retries every second without a driver: silently.
    if (!driverUsable())
        return;
    bs_ = binder_open(kMapSize);
    if (bs_ == nullptr)
        return;
    const int flags = fcntl(bs_->fd, F_GETFL);
    fcntl(bs_->fd, F_SETFL, flags | O_NONBLOCK);
    fcntl(bs_->fd, F_SETFD, FD_CLOEXEC);
    const std::uint32_t enter = BC_ENTER_LOOPER;
    binder_write(bs_, &enter, sizeof enter);
}

Endpoint::~Endpoint()
{
    if (bs_ != nullptr)
        binder_close(bs_);
}

bool Endpoint::announce()
{
    alignas(8) unsigned char area[256];
    binder_io msg;
    bio_init(&msg, area, sizeof area, 4);
    bio_put_uint32(&msg, 0);
    bio_put_string(&msg, name_.c_str());
    if (call(kBroadcastService, kRegister, msg, [](binder_io &reply) { bio_get_uint32(&reply); }) != Call::Answered)
        return false;
    // The object's pointer is ours to choose: transactions are told apart
    // by their code only.
    Blocking blocking(bs_->fd);
    return svcmgr_publish(bs_, SVCMGR_HANDLE, name_.c_str(), this) == 0;
}

bool Endpoint::send(const std::string &bytes)
{
    alignas(8) unsigned char area[512];
    binder_io msg;
    bio_init(&msg, area, sizeof area, 4);
    bio_put_uint32(&msg, 0);
    bio_put_mem(&msg, bytes.data(), static_cast<std::uint32_t>(bytes.size()));
    return call(kBroadcastService, kDeliver, msg, [](binder_io &) {}) == Call::Answered;
}

// A synchronous call as binder_call makes it, but waiting in poll(): the
// reply is read when the connection has work, and a stop abandons the call
// (the connection is closed right after, which drops its transaction).
Endpoint::Call Endpoint::call(const char *service, std::uint32_t code, binder_io &msg,
                              const std::function<void(binder_io &)> &read)
{
    if (msg.flags & BIO_FLAG_OVERFLOW)
        return Call::Failed;
    std::uint32_t handle = 0;
    {
        Blocking blocking(bs_->fd);
        handle = svcmgr_lookup(bs_, SVCMGR_HANDLE, service);
    }
    if (handle == 0)
        return Call::Failed;
    unsigned char block[hmisvc::binder::kCallBlockSize];
    hmisvc::binder::build_call_block(block, &msg, handle, code);
    binder_io reply{};
    Pending pending{&reply};
    Call result = Call::Broken;
    if (binder_write(bs_, block, sizeof block) == 0) {
        for (;;) {
            pollfd fds[2] = {{bs_->fd, POLLIN, 0}, {wake_, POLLIN, 0}};
            if (::poll(fds, 2, -1) < 0 && errno != EINTR)
                break;
            if ((fds[1].revents & POLLIN) && drain()) {
                result = Call::Stopped;
                break;
            }
            if (fds[0].revents != 0 && !pump(&pending))
                break;
            if (pending.done) {
                result = pending.answered ? Call::Answered : Call::Failed;
                break;
            }
        }
    }
    if (pending.answered) {
        read(reply);
        binder_done(bs_, &msg, &reply);
    }
    binder_release(bs_, handle);
    return result;
}

Endpoint::Wait Endpoint::serve(Clock::time_point until)
{
    for (;;) {
        int timeout = -1;
        if (until != Clock::time_point::max()) {
            const auto left = std::chrono::ceil<std::chrono::milliseconds>(until - Clock::now()).count();
            if (left <= 0)
                return Wait::Timeout;
            timeout = static_cast<int>(std::min<long long>(left, 60000));
        }
        pollfd fds[2] = {{bs_->fd, POLLIN, 0}, {wake_, POLLIN, 0}};
        if (::poll(fds, 2, timeout) < 0 && errno != EINTR)
            return Wait::Broken;
        if (fds[1].revents & POLLIN) {
            drain();
            return Wait::Woken;
        }
        if (fds[0].revents != 0 && !pump(nullptr))
            return Wait::Broken;
    }
}

void Endpoint::giveBack(binder_uintptr_t buffer)
{
    unsigned char block[sizeof(std::uint32_t) + sizeof(binder_uintptr_t)];
    BlockWriter(block).put(std::uint32_t{BC_FREE_BUFFER}).put(buffer);
    binder_write(bs_, block, sizeof block);
}

// Empties the wake-up descriptor; whether the owner wants the thread for good.
bool Endpoint::drain()
{
    std::uint64_t count = 0;
    while (::read(wake_, &count, sizeof count) > 0) {
    }
    return stop_.load();
}

// One read of what the driver has for this thread; false when the
// connection no longer works.
bool Endpoint::pump(Pending *pending)
{
    alignas(8) unsigned char buffer[256];
    binder_write_read bwr{};
    bwr.read_size = sizeof buffer;
    bwr.read_buffer = wire_ptr(buffer);
    if (binder_ioctl(bs_, BINDER_WRITE_READ, &bwr) < 0)
        return errno == EAGAIN || errno == EINTR;
    walk(buffer, static_cast<std::size_t>(bwr.read_consumed), pending);
    return true;
}

// Every return code carries its payload size in the code itself, so codes
// the endpoint has no use for are skipped whole.
void Endpoint::walk(const unsigned char *data, std::size_t size, Pending *pending)
{
    std::size_t pos = 0;
    while (size - pos >= sizeof(std::uint32_t)) {
        const auto cmd = read_at<std::uint32_t>(data + pos);
        pos += sizeof cmd;
        const std::size_t payload = _IOC_SIZE(cmd);
        if (size - pos < payload)
            return;
        switch (cmd) {
        case BR_TRANSACTION: {
            auto txn = read_at<binder_transaction_data>(data + pos);
            take(txn);
            break;
        }
        case BR_REPLY: {
            auto txn = read_at<binder_transaction_data>(data + pos);
            if (pending != nullptr && !pending->done) {
                bio_init_from_txn(pending->reply, &txn);
                pending->done = pending->answered = true;
            } else { // the reply of an abandoned call
                giveBack(txn.data.ptr.buffer);
            }
            break;
        }
        case BR_DEAD_REPLY:
        case BR_FAILED_REPLY:
            if (pending != nullptr)
                pending->done = true;
            break;
        default:
            break;
        }
        pos += payload;
    }
}

// One incoming transaction: a delivery is decoded and handed on; anything
// else is counted. Two-way ones get the designed empty success reply.
void Endpoint::take(binder_transaction_data &txn)
{
    const bool one_way = (txn.flags & TF_ONE_WAY) != 0;
    if (one_way)
        sink_.oneWay();
    binder_io msg;
    bio_init_from_txn(&msg, &txn);
    bio_get_uint32(&msg); // header word
    std::uint32_t len = 0;
    const void *bytes = txn.code == kDeliver ? bio_get_mem(&msg, &len) : nullptr;
    std::shared_ptr<Intent> intent;
    // The null marker comes back as a position with its own length: no block.
    if (bytes != nullptr && len != kNullLength) {
        std::string encoding(static_cast<const char *>(bytes), len);
        if (intentEncodingFits(encoding)) {
            intent = std::make_shared<Intent>();
            try {
                intent->fromString(std::move(encoding));
            } catch (...) {
                intent.reset();
            }
        }
    }
    if (one_way) {
        giveBack(txn.data.ptr.buffer);
    } else {
        alignas(8) unsigned char area[16];
        binder_io reply;
        bio_init(&reply, area, sizeof area, 0);
        binder_send_reply(bs_, &reply, txn.data.ptr.buffer, 0);
    }
    if (intent)
        sink_.delivered(std::move(intent));
    else
        sink_.malformed();
}

} // namespace hmisvc::detail
