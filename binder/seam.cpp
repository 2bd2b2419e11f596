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

// This thread's connections: (process connection, generation) -> its own.
struct ThreadConnections {
    struct Entry {
        int session;
        uint64_t generation;
        int fd;
    };
    std::vector<Entry> entries;
    ~ThreadConnections()
    {
        std::lock_guard<std::mutex> hold(sessions_lock);
        for (const Entry &e : entries) {
            auto s = sessions.find(e.session);
            if (e.fd == e.session || s == sessions.end() || s->second.generation != e.generation)
                continue;
            auto &fds = s->second.threads;
            fds.erase(std::remove(fds.begin(), fds.end(), e.fd), fds.end());
            close(e.fd);
        }
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

// One request and its answer; `in` receives the answer's bytes after the
// header. -1 with errno when the driver cannot be reached or refuses.
int exchange(int fd, const std::vector<unsigned char> &out, std::vector<unsigned char> *in,
             int *passed_fd = nullptr, uint64_t *value = nullptr)
{
    if (send(fd, out.data(), out.size(), MSG_NOSIGNAL) < 0)
        return -1;
    std::vector<unsigned char> buf(seam::kMaxPacket + 4096);
    iovec iov{buf.data(), buf.size()};
    msghdr msg{};
    msg.msg_iov = &iov;
    msg.msg_iovlen = 1;
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))];
    msg.msg_control = control;
    msg.msg_controllen = sizeof control;
    ssize_t got;
    // A signal does not end the wait: the driver's answer is still to come.
    while ((got = recvmsg(fd, &msg, MSG_CMSG_CLOEXEC)) < 0 && errno == EINTR) {
    }
    if (got < static_cast<ssize_t>(sizeof(seam::Answer))) {
        if (got >= 0)
            errno = ECONNRESET;
        return -1;
    }
    cmsghdr *c = CMSG_FIRSTHDR(&msg);
    if (passed_fd && c && c->cmsg_type == SCM_RIGHTS)
        std::memcpy(passed_fd, CMSG_DATA(c), sizeof(int));
    seam::Answer a;
    std::memcpy(&a, buf.data(), sizeof a);
    if (in)
        in->assign(buf.begin() + sizeof a, buf.begin() + got);
    if (value)
        *value = a.value;
    if (a.error) {
        errno = a.error;
        return -1;
    }
    return a.result;
}

std::vector<unsigned char> request(uint32_t op, uint32_t code, uint64_t value)
{
    seam::Request r{op, code, value};
    std::vector<unsigned char> out(sizeof r);
    std::memcpy(out.data(), &r, sizeof r);
    return out;
}

template <typename T>
void append(std::vector<unsigned char> &out, const T *p, size_t n)
{
    const auto *bytes = reinterpret_cast<const unsigned char *>(p);
    out.insert(out.end(), bytes, bytes + n);
}

// The unconsumed commands of a write, each transaction's data after them.
void append_writes(std::vector<unsigned char> &out, const binder_write_read &bwr)
{
    const auto *cmds = native_ptr<const unsigned char>(bwr.write_buffer) + bwr.write_consumed;
    const size_t n = static_cast<size_t>(bwr.write_size - bwr.write_consumed);
    append(out, cmds, n);
    for (size_t pos = 0; pos + sizeof(uint32_t) <= n;) {
        const auto cmd = read_at<uint32_t>(cmds + pos);
        pos += sizeof cmd;
        if ((cmd == BC_TRANSACTION || cmd == BC_REPLY) && pos + sizeof(binder_transaction_data) <= n) {
            const auto txn = read_at<binder_transaction_data>(cmds + pos);
            const seam::Attachment a{txn.data_size, txn.offsets_size};
            append(out, &a, sizeof a);
            append(out, native_ptr<const unsigned char>(txn.data.ptr.buffer), txn.data_size);
            append(out, native_ptr<const unsigned char>(txn.data.ptr.offsets), txn.offsets_size);
        }
        pos += _IOC_SIZE(cmd);
    }
}

// The calling thread's connection to the process `fd` opened; -1 when `fd`
// is no userspace driver's connection.
int thread_connection(int fd, bool *userspace)
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
    const char *path = std::getenv(seam::kSocketEnv);
    const int own = path ? connect_driver(path) : -1;
    if (own < 0 || exchange(own, request(seam::kAttach, 0, token), nullptr) < 0) {
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
    int memfd = -1;
    uint64_t token = 0;
    if (exchange(fd, request(seam::kOpen, 0, size), nullptr, &memfd, &token) < 0)
        return MAP_FAILED;
    {
        std::lock_guard<std::mutex> hold(sessions_lock);
        sessions[fd].token = token;
    }
    void *map = mmap(nullptr, size, PROT_READ, MAP_SHARED, memfd, 0);
    const int error = errno;
    close(memfd);
    if (map == MAP_FAILED) {
        errno = error;
        return MAP_FAILED;
    }
    if (exchange(fd, request(seam::kMap, 0, reinterpret_cast<uintptr_t>(map)), nullptr) < 0) {
        const int failed = errno;
        munmap(map, size);
        errno = failed;
        return MAP_FAILED;
    }
    return map;
}

int seam_ioctl(int fd, unsigned long code, void *arg)
{
    bool userspace = false;
    const int own = thread_connection(fd, &userspace);
    if (!userspace)
        return ioctl(fd, code, arg);
    if (own < 0)
        return -1;
    std::vector<unsigned char> out = request(seam::kIoctl, static_cast<uint32_t>(code), 0);
    const size_t size = _IOC_SIZE(code);
    if ((_IOC_DIR(code) & _IOC_WRITE) && arg)
        append(out, static_cast<unsigned char *>(arg), size);
    if (code == BINDER_WRITE_READ && arg)
        append_writes(out, *static_cast<binder_write_read *>(arg));
    const binder_size_t read_from =
        code == BINDER_WRITE_READ && arg ? static_cast<binder_write_read *>(arg)->read_consumed : 0;
    std::vector<unsigned char> in;
    const int res = exchange(own, out, &in);
    if (!in.empty() && (_IOC_DIR(code) & _IOC_READ) && arg && in.size() >= size) {
        const int saved = errno;
        std::memcpy(arg, in.data(), size);
        if (code == BINDER_WRITE_READ) {
            auto *bwr = static_cast<binder_write_read *>(arg);
            std::memcpy(native_ptr<unsigned char>(bwr->read_buffer) + read_from, in.data() + size,
                        in.size() - size);
        }
        errno = saved;
    }
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
