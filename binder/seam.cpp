// The binder layer's seam: the kernel's driver through its device, or the
// userspace driver (hmisvc-binderd) through its socket. Over the socket each
// thread that calls has a connection of its own, so the driver tells the
// threads apart as the kernel does; the first one, made by binder_open, is
// the process's and ends it when closed.

#include "binder/seam.h"

#include "binder/protocol.h"
#include "binder/seam_wire.h"

#include <hmisvc/binder_seam.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <mutex>
#include <poll.h>
#include <pthread.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <unordered_map>
#include <vector>

namespace hmisvc::binder {

namespace {

struct Session {
    uint64_t generation;
    uint64_t token = 0;
    std::vector<int> threads; // other threads' connections
};

std::mutex sessions_lock;
std::unordered_map<int, Session> sessions; // by the process connection
uint64_t generations = 0;
// Set once a userspace driver's connection was made: until then every call
// goes straight to the device.
std::atomic<bool> any_session{false};

// The free of the reply buffer a thread's last call got, held back to travel
// with the thread's next request on the same connection: a call's reply is
// freed just before the next call, and sent alone the free would cost the
// driver a wake-up of its own. Only a reply buffer waits so: it gates no
// one-way delivery and takes room only in the caller's own mapping, as a
// caller that frees it a little later would.
constexpr size_t kHeldReplyMax = 256;
struct HeldFree {
    int fd = -1; // the connection it goes on; -1 when none is held
    uint64_t generation = 0;
    binder_uintptr_t reply = 0; // the buffer of the last reply read, 0 when none
    int reply_fd = -1;
    unsigned char bytes[sizeof(uint32_t) + sizeof(binder_uintptr_t)];
};

bool send_request(int fd, msghdr &msg);

// This thread's connections: (process connection, generation) -> its own.
struct ThreadConnections {
    struct Entry {
        int session;
        uint64_t generation;
        int fd;
    };
    std::vector<Entry> entries;
    HeldFree held;
    ~ThreadConnections()
    {
        std::lock_guard<std::mutex> hold(sessions_lock);
        flush_held(false);
        for (const Entry &e : entries) {
            auto s = sessions.find(e.session);
            if (e.fd == e.session || s == sessions.end() || s->second.generation != e.generation)
                continue;
            auto &fds = s->second.threads;
            fds.erase(std::remove(fds.begin(), fds.end(), e.fd), fds.end());
            close(e.fd);
        }
    }
    // Sends the held free on its own (posted) where its connection is still
    // open; `lock` when sessions_lock is not held yet.
    void flush_held(bool lock)
    {
        if (held.fd < 0)
            return;
        std::unique_lock<std::mutex> hold(sessions_lock, std::defer_lock);
        if (lock)
            hold.lock();
        const bool open = std::any_of(sessions.begin(), sessions.end(), [&](const auto &s) {
            return s.second.generation == held.generation;
        });
        if (open) {
            binder_write_read bwr{};
            bwr.write_size = sizeof held.bytes;
            seam::Request head{seam::kIoctl, static_cast<uint32_t>(BINDER_WRITE_READ), seam::kPosted};
            iovec iov[3] = {{&head, sizeof head}, {&bwr, sizeof bwr}, {held.bytes, sizeof held.bytes}};
            msghdr msg{};
            msg.msg_iov = iov;
            msg.msg_iovlen = 3;
            send_request(held.fd, msg);
        }
        held.fd = -1;
    }
};
thread_local ThreadConnections thread_connections;

int connect_driver(const char *path)
{
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    if (std::strlen(path) >= sizeof addr.sun_path) {
        errno = ENAMETOOLONG;
        return -1;
    }
    std::strcpy(addr.sun_path, path);
    const int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return -1;
    const int size = seam::kMaxPacket + 4096;
    setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &size, sizeof size);
    if (connect(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr) != 0) {
        const int error = errno;
        close(fd);
        errno = error;
        return -1;
    }
    return fd;
}

// Room for the pieces of one request: a write may carry this many
// transactions (the library writes one at a time).
constexpr int kMaxTransactions = 40;
constexpr size_t kMaxArg = 256; // the driver's ioctl arguments are far smaller

// The pieces of one request, gathered straight from the caller's memory:
// nothing is copied or allocated on the way.
struct Pieces {
    iovec iov[3 + 3 * kMaxTransactions];
    int count = 0;
    seam::Request head{};
    seam::Attachment attached[kMaxTransactions];
    int transactions = 0;
    void add(const void *p, size_t n)
    {
        iov[count++] = {const_cast<void *>(p), n};
    }
};

// Where an answer goes: its header, the ioctl's argument, the bytes read.
struct Landing {
    seam::Answer head{};
    void *arg = nullptr;
    size_t arg_size = 0;
    void *read = nullptr;
    size_t read_room = 0;
    size_t read_got = 0;
    bool arg_back = false; // the answer held the argument
    int passed_fd = -1;
};

// Runs `io` until it succeeds or fails for good. Neither a signal nor a
// connection its owner made non-blocking ends the wait: the answer to a
// request is still to come, and the next request must not take it.
template <typename Io>
bool wait_for(int fd, short event, Io io)
{
    for (;;) {
        if (io() >= 0)
            return true;
        if (errno == EAGAIN || errno == EWOULDBLOCK) {
            pollfd p{fd, event, 0};
            poll(&p, 1, -1);
        } else if (errno != EINTR) {
            return false;
        }
    }
}

// Sends one request, in a memory file when it is too large for a packet.
bool send_request(int fd, msghdr &msg)
{
    size_t total = 0;
    for (size_t i = 0; i < msg.msg_iovlen; ++i)
        total += msg.msg_iov[i].iov_len;
    if (total <= seam::kMaxPacket)
        return wait_for(fd, POLLOUT, [&] { return sendmsg(fd, &msg, MSG_NOSIGNAL); });
    if (total > seam::kMaxRequest) {
        errno = EMSGSIZE;
        return false;
    }
    const int memfd = memfd_create("binder-request", MFD_CLOEXEC);
    if (memfd < 0)
        return false;
    off_t at = 0;
    for (size_t i = 0; i < msg.msg_iovlen; ++i)
        for (size_t done = 0; done < msg.msg_iov[i].iov_len;) {
            const ssize_t n = pwrite(memfd, static_cast<char *>(msg.msg_iov[i].iov_base) + done,
                                     msg.msg_iov[i].iov_len - done, at);
            if (n < 0 && errno == EINTR)
                continue;
            if (n <= 0) {
                const int error = errno;
                close(memfd);
                errno = error;
                return false;
            }
            done += static_cast<size_t>(n);
            at += n;
        }
    seam::Request head{seam::kLarge, 0, total};
    iovec iov{&head, sizeof head};
    msghdr large{};
    large.msg_iov = &iov;
    large.msg_iovlen = 1;
    seam::PassedFd room{};
    seam::pass_fd(large, room, memfd);
    const bool sent = wait_for(fd, POLLOUT, [&] { return sendmsg(fd, &large, MSG_NOSIGNAL); });
    const int error = errno;
    close(memfd);
    errno = error;
    return sent;
}

// One request and its answer. -1 with errno when the driver cannot be
// reached or refuses.
int exchange(int fd, const Pieces &out, Landing &in)
{
    msghdr msg{};
    msg.msg_iov = const_cast<iovec *>(out.iov);
    msg.msg_iovlen = static_cast<size_t>(out.count);
    if (!send_request(fd, msg))
        return -1;
    iovec iov[3] = {{&in.head, sizeof in.head}, {in.arg, in.arg_size}, {in.read, in.read_room}};
    msg = msghdr{};
    msg.msg_iov = iov;
    msg.msg_iovlen = 3;
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))];
    msg.msg_control = control;
    msg.msg_controllen = sizeof control;
    ssize_t got = -1;
    // Wake-ups sent for poll() before this answer are no answer.
    do
        wait_for(fd, POLLIN, [&] {
            msg.msg_controllen = sizeof control;
            return got = recvmsg(fd, &msg, MSG_CMSG_CLOEXEC);
        });
    while (got == static_cast<ssize_t>(sizeof in.head) && in.head.error == seam::kWakeUp);
    if (got < static_cast<ssize_t>(sizeof in.head)) {
        if (got >= 0)
            errno = ECONNRESET;
        return -1;
    }
    cmsghdr *c = CMSG_FIRSTHDR(&msg);
    if (c && c->cmsg_type == SCM_RIGHTS)
        std::memcpy(&in.passed_fd, CMSG_DATA(c), sizeof(int));
    const size_t rest = static_cast<size_t>(got) - sizeof in.head;
    in.arg_back = in.arg_size && rest >= in.arg_size;
    in.read_got = rest > in.arg_size ? rest - in.arg_size : 0;
    if (in.head.error) {
        errno = in.head.error;
        return -1;
    }
    return in.head.result;
}

// A request of `op` without payload.
int simple(int fd, uint32_t op, uint64_t value, Landing &in)
{
    Pieces out;
    out.head = {op, 0, value};
    out.add(&out.head, sizeof out.head);
    return exchange(fd, out, in);
}

// Commands whose write the driver always takes whole, without an error.
bool never_fails(uint32_t cmd)
{
    switch (cmd) {
    case BC_TRANSACTION:
    case BC_REPLY:
    case BC_FREE_BUFFER:
    case BC_ACQUIRE:
    case BC_RELEASE:
    case BC_ENTER_LOOPER:
    case BC_REQUEST_DEATH_NOTIFICATION:
    case _IOW('c', 4, uint32_t):                           // BC_INCREFS
    case _IOW('c', 7, uint32_t):                           // BC_DECREFS
    case _IOW('c', 8, binder_ptr_cookie):                  // BC_INCREFS_DONE
    case _IOW('c', 9, binder_ptr_cookie):                  // BC_ACQUIRE_DONE
    case _IO('c', 11):                                     // BC_REGISTER_LOOPER
    case _IO('c', 13):                                     // BC_EXIT_LOOPER
    case _IOW('c', 15, char[sizeof(uint32_t) + sizeof(binder_uintptr_t)]): // BC_CLEAR_DEATH_NOTIFICATION
    case _IOW('c', 16, binder_uintptr_t):                  // BC_DEAD_BINDER_DONE
        return true;
    default:
        return false;
    }
}

// Whether a write without a read holds only commands about the process's
// references and buffers, not the calling thread: a thread that has no
// connection of its own sends such a write on the process's, so that
// dropping a proxy or a buffer from any thread costs no descriptor.
bool thread_agnostic(const binder_write_read &bwr)
{
    if (bwr.read_size > bwr.read_consumed || bwr.write_size <= bwr.write_consumed)
        return false;
    const auto *cmds = native_ptr<const unsigned char>(bwr.write_buffer) + bwr.write_consumed;
    const size_t n = static_cast<size_t>(bwr.write_size - bwr.write_consumed);
    for (size_t pos = 0; pos < n;) {
        if (pos + sizeof(uint32_t) > n)
            return false;
        const auto cmd = read_at<uint32_t>(cmds + pos);
        switch (cmd) {
        case BC_FREE_BUFFER:
        case BC_ACQUIRE:
        case BC_RELEASE:
        case _IOW('c', 4, uint32_t):          // BC_INCREFS
        case _IOW('c', 7, uint32_t):          // BC_DECREFS
        case _IOW('c', 8, binder_ptr_cookie): // BC_INCREFS_DONE
        case _IOW('c', 9, binder_ptr_cookie): // BC_ACQUIRE_DONE
            break;
        default:
            return false;
        }
        pos += sizeof cmd + _IOC_SIZE(cmd);
    }
    return true;
}

// The unconsumed commands of a write, and after them the data and offsets
// of each transaction among them. False when there are too many. `posted`
// tells whether the write cannot fail (see kPosted).
bool add_writes(Pieces &out, const binder_write_read &bwr, bool *posted)
{
    const auto *cmds = native_ptr<const unsigned char>(bwr.write_buffer) + bwr.write_consumed;
    const size_t n = static_cast<size_t>(bwr.write_size - bwr.write_consumed);
    out.add(cmds, n);
    *posted = bwr.read_size <= bwr.read_consumed;
    for (size_t pos = 0; pos + sizeof(uint32_t) <= n;) {
        const auto cmd = read_at<uint32_t>(cmds + pos);
        pos += sizeof cmd;
        // A failed transaction stops the write: only the last may be posted.
        if (!never_fails(cmd) || pos + _IOC_SIZE(cmd) > n ||
            ((cmd == BC_TRANSACTION || cmd == BC_REPLY) && pos + _IOC_SIZE(cmd) < n))
            *posted = false;
        if ((cmd == BC_TRANSACTION || cmd == BC_REPLY) && pos + sizeof(binder_transaction_data) <= n) {
            if (out.transactions == kMaxTransactions)
                return false;
            const auto txn = read_at<binder_transaction_data>(cmds + pos);
            seam::Attachment &a = out.attached[out.transactions++];
            a = {txn.data_size, txn.offsets_size};
            out.add(&a, sizeof a);
            out.add(native_ptr<const void>(txn.data.ptr.buffer), txn.data_size);
            out.add(native_ptr<const void>(txn.data.ptr.offsets), txn.offsets_size);
        }
        pos += _IOC_SIZE(cmd);
    }
    return true;
}

// The calling thread's connection to the process `fd` opened; -1 when `fd`
// is no userspace driver's connection.
int thread_connection(int fd, bool *userspace, bool borrow, uint64_t *session_generation)
{
    uint64_t generation, token;
    *userspace = false;
    if (!any_session.load(std::memory_order_acquire))
        return -1;
    {
        std::lock_guard<std::mutex> hold(sessions_lock);
        auto s = sessions.find(fd);
        *userspace = s != sessions.end();
        if (!*userspace)
            return -1;
        generation = s->second.generation;
        token = s->second.token;
    }
    *session_generation = generation;
    auto &entries = thread_connections.entries;
    // Entries of connections since closed under the same descriptor go.
    entries.erase(std::remove_if(entries.begin(), entries.end(),
                                 [&](const ThreadConnections::Entry &e) {
                                     return e.session == fd && e.generation != generation;
                                 }),
                  entries.end());
    for (const auto &e : entries)
        if (e.session == fd)
            return e.fd;
    if (borrow)
        return fd;
    const char *path = std::getenv(seam::kSocketEnv);
    const int own = path ? connect_driver(path) : -1;
    Landing in;
    if (own < 0 || simple(own, seam::kAttach, token, in) < 0) {
        if (own >= 0)
            close(own);
        return -1;
    }
    std::lock_guard<std::mutex> hold(sessions_lock);
    auto s = sessions.find(fd);
    if (s == sessions.end() || s->second.generation != generation) {
        close(own);
        errno = EBADF;
        return -1;
    }
    s->second.threads.push_back(own);
    entries.push_back({fd, generation, own});
    return own;
}

} // namespace

int seam_open()
{
    const char *path = std::getenv(seam::kSocketEnv);
    if (!path || !*path)
        return open("/dev/binder", O_RDWR);
    // A forked child does not send the free its parent held back.
    static std::once_flag at_fork;
    std::call_once(at_fork, [] {
        pthread_atfork(nullptr, nullptr, [] {
            thread_connections.held.fd = -1;
            thread_connections.held.reply = 0;
        });
    });
    const int fd = connect_driver(path);
    if (fd < 0)
        return -1;
    std::lock_guard<std::mutex> hold(sessions_lock);
    const uint64_t generation = ++generations;
    sessions[fd].generation = generation;
    any_session.store(true, std::memory_order_release);
    // The opening thread speaks through the process's own connection.
    thread_connections.entries.push_back({fd, generation, fd});
    return fd;
}

void *seam_map(int fd, size_t size)
{
    if (!any_session.load(std::memory_order_acquire))
        return mmap(nullptr, size, PROT_READ, MAP_PRIVATE, fd, 0);
    {
        std::lock_guard<std::mutex> hold(sessions_lock);
        if (!sessions.count(fd))
            return mmap(nullptr, size, PROT_READ, MAP_PRIVATE, fd, 0);
    }
    Landing opened;
    if (simple(fd, seam::kOpen, size, opened) < 0)
        return MAP_FAILED;
    const int memfd = opened.passed_fd;
    {
        std::lock_guard<std::mutex> hold(sessions_lock);
        sessions[fd].token = opened.head.value;
    }
    void *map = mmap(nullptr, size, PROT_READ, MAP_SHARED, memfd, 0);
    const int error = errno;
    close(memfd);
    if (map == MAP_FAILED) {
        errno = error;
        return MAP_FAILED;
    }
    Landing mapped;
    if (simple(fd, seam::kMap, reinterpret_cast<uintptr_t>(map), mapped) < 0) {
        const int failed = errno;
        munmap(map, size);
        errno = failed;
        return MAP_FAILED;
    }
    return map;
}

// Whether a posted write is the free of the reply buffer this thread's last
// call got on `own`, and so may wait for the thread's next request.
bool holdable_free(const binder_write_read &bwr, int own)
{
    const HeldFree &held = thread_connections.held;
    if (held.reply == 0 || held.reply_fd != own || held.fd >= 0 ||
        bwr.write_size - bwr.write_consumed != sizeof held.bytes)
        return false;
    const auto *cmds = native_ptr<const unsigned char>(bwr.write_buffer) + bwr.write_consumed;
    return read_at<uint32_t>(cmds) == BC_FREE_BUFFER &&
           read_at<binder_uintptr_t>(cmds + sizeof(uint32_t)) == held.reply;
}

// Notes the buffer of a reply among the bytes just read on `own`.
void note_reply(const unsigned char *read, size_t size, int own)
{
    for (size_t pos = 0; pos + sizeof(uint32_t) <= size;) {
        const auto cmd = read_at<uint32_t>(read + pos);
        pos += sizeof cmd;
        if (cmd == BR_REPLY && pos + sizeof(binder_transaction_data) <= size) {
            const auto txn = read_at<binder_transaction_data>(read + pos);
            // A large reply's room is wanted back at once.
            const bool small = txn.data_size + txn.offsets_size <= kHeldReplyMax;
            thread_connections.held.reply = small ? txn.data.ptr.buffer : 0;
            thread_connections.held.reply_fd = own;
        }
        pos += _IOC_SIZE(cmd);
    }
}

int seam_ioctl(int fd, unsigned long code, void *arg)
{
    bool userspace = false;
    uint64_t generation = 0;
    const bool agnostic =
        code == BINDER_WRITE_READ && arg && thread_agnostic(*static_cast<binder_write_read *>(arg));
    const int own = thread_connection(fd, &userspace, agnostic, &generation);
    if (!userspace)
        return ioctl(fd, code, arg);
    if (own < 0)
        return -1;
    const size_t size = _IOC_SIZE(code);
    if (size > kMaxArg) {
        errno = EINVAL;
        return -1;
    }
    HeldFree &held = thread_connections.held;
    auto *bwr = code == BINDER_WRITE_READ ? static_cast<binder_write_read *>(arg) : nullptr;
    // A held free goes first, within this request when it is a write-read
    // on the same connection.
    const bool prepend = held.fd == own && held.generation == generation && bwr;
    if (held.fd >= 0 && !prepend)
        thread_connections.flush_held(true);
    Pieces out;
    out.head = {seam::kIoctl, static_cast<uint32_t>(code), 0};
    out.add(&out.head, sizeof out.head);
    binder_write_read sent{};
    if (prepend) {
        sent = *bwr;
        sent.write_size += sizeof held.bytes;
        out.add(&sent, sizeof sent);
        out.add(held.bytes, sizeof held.bytes);
    } else if ((_IOC_DIR(code) & _IOC_WRITE) && arg) {
        out.add(arg, size);
    }
    const size_t extra = prepend ? sizeof held.bytes : 0;
    // The file's flag on the device is every thread's: here the process's.
    // A posted write carries it too: it tells the driver the thread polls.
    auto nonblock = [fd] {
        const int flags = fcntl(fd, F_GETFL);
        return flags >= 0 && (flags & O_NONBLOCK) ? seam::kNonBlock : uint64_t{0};
    };
    bool posted = false;
    if (bwr && !add_writes(out, *bwr, &posted)) {
        errno = E2BIG;
        return -1;
    }
    // Sent now, or kept for the next request when this one fails before it goes.
    held.fd = -1;
    if (posted && bwr->write_size > bwr->write_consumed) {
        if (!extra && holdable_free(*bwr, own)) {
            std::memcpy(held.bytes,
                        native_ptr<const unsigned char>(bwr->write_buffer) + bwr->write_consumed,
                        sizeof held.bytes);
            held.fd = own;
            held.generation = generation;
            held.reply = 0;
            bwr->write_consumed = bwr->write_size;
            return 0;
        }
        out.head.value |= seam::kPosted | nonblock();
        msghdr msg{};
        msg.msg_iov = out.iov;
        msg.msg_iovlen = static_cast<size_t>(out.count);
        if (!send_request(own, msg))
            return -1;
        bwr->write_consumed = bwr->write_size;
        return 0;
    }
    out.head.value |= nonblock();
    // The argument comes back beside it; the bytes read land in place.
    alignas(8) unsigned char back[kMaxArg];
    Landing in;
    if ((_IOC_DIR(code) & _IOC_READ) && arg) {
        in.arg = back;
        in.arg_size = size;
    }
    if (bwr && bwr->read_size > bwr->read_consumed) {
        in.read = native_ptr<unsigned char>(bwr->read_buffer) + bwr->read_consumed;
        in.read_room = static_cast<size_t>(bwr->read_size - bwr->read_consumed);
    }
    const auto consumed = bwr ? bwr->write_consumed : 0;
    const int res = exchange(own, out, in);
    const int saved = errno;
    if (in.arg_back) {
        std::memcpy(arg, back, size);
        if (extra) {
            // The held free's bytes were the driver's, not the caller's.
            bwr->write_size -= extra;
            bwr->write_consumed = bwr->write_consumed >= consumed + extra
                                      ? bwr->write_consumed - extra
                                      : consumed;
        }
    }
    if (bwr && in.read_got)
        note_reply(static_cast<const unsigned char *>(in.read), in.read_got, own);
    errno = saved;
    return res;
}

void seam_close(int fd, void *map, size_t size)
{
    if (map)
        munmap(map, size);
    if (any_session) {
        std::lock_guard<std::mutex> hold(sessions_lock);
        auto s = sessions.find(fd);
        if (s != sessions.end()) {
            for (int own : s->second.threads)
                close(own);
            sessions.erase(s);
        }
    }
    close(fd);
}

} // namespace hmisvc::binder

extern "C" int binder_ioctl(binder_connection *bs, unsigned long request, void *arg)
{
    return hmisvc::binder::seam_ioctl(bs->fd, request, arg);
}

extern "C" int binder_driver_reachable(void)
{
    using namespace hmisvc::binder;
    const char *path = std::getenv(seam::kSocketEnv);
    const int fd = path && *path ? connect_driver(path) : open("/dev/binder", O_RDWR | O_CLOEXEC);
    if (fd < 0)
        return 0;
    close(fd);
    return 1;
}
