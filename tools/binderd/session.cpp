#include "session.h"

#include "seam_wire.h"

#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <algorithm>
#include <cstring>
#include <map>
#include <vector>

namespace binderd {

namespace seam = hmisvc::binder::seam;

namespace {
// Open connections and their peers' credentials.
std::map<int, ucred> peers;
} // namespace

void close_connection(int fd)
{
    peers.erase(fd);
    close(fd);
}

void send_packet(int fd, const void *data, size_t size, int pass_fd)
{
    iovec iov{const_cast<void *>(data), size};
    msghdr msg{};
    msg.msg_iov = &iov;
    msg.msg_iovlen = 1;
    seam::PassedFd room{};
    if (pass_fd >= 0)
        seam::pass_fd(msg, room, pass_fd);
    // A peer that went away is noticed as a hangup by the loop.
    while (sendmsg(fd, &msg, MSG_NOSIGNAL) < 0 && errno == EINTR) {
    }
}

int listen_on(const std::string &path, std::string &error)
{
    const std::string dir = path.substr(0, path.rfind('/') == std::string::npos ? 0 : path.rfind('/'));
    struct stat st;
    if (!dir.empty()) {
        if (stat(dir.c_str(), &st) != 0 && mkdir(dir.c_str(), 0700) != 0) {
            error = dir + ": " + std::strerror(errno);
            return -1;
        }
        if (stat(dir.c_str(), &st) != 0 || !S_ISDIR(st.st_mode) || st.st_uid != geteuid() ||
            (st.st_mode & 077)) {
            error = dir + ": must be a directory only its owner (this user) can enter (mode 0700)";
            return -1;
        }
    }
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    if (path.size() >= sizeof addr.sun_path) {
        error = path + ": socket path too long (at most " +
                std::to_string(sizeof addr.sun_path - 1) + " bytes)";
        return -1;
    }
    std::memcpy(addr.sun_path, path.c_str(), path.size() + 1);
    const int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    unlink(path.c_str());
    if (fd < 0 || bind(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr) != 0 ||
        listen(fd, 128) != 0) {
        error = path + ": " + std::strerror(errno);
        if (fd >= 0)
            close(fd);
        return -1;
    }
    return fd;
}

void serve(Handler &driver, int listener, int stop_fd)
{
    const int ep = epoll_create1(EPOLL_CLOEXEC);
    auto watch = [&](int fd) {
        epoll_event ev{};
        ev.events = EPOLLIN;
        ev.data.fd = fd;
        epoll_ctl(ep, EPOLL_CTL_ADD, fd, &ev);
    };
    watch(listener);
    if (stop_fd >= 0)
        watch(stop_fd);
    std::vector<unsigned char> buf(seam::kMaxPacket + 4096);
    for (;;) {
        epoll_event events[32];
        const int n = epoll_wait(ep, events, 32, -1);
        if (n < 0 && errno != EINTR)
            break;
        for (int i = 0; i < n; ++i) {
            const int fd = events[i].data.fd;
            if (fd == stop_fd) {
                close(ep);
                return;
            }
            if (fd == listener) {
                const int c = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
                if (c < 0)
                    continue;
                ucred cred{};
                socklen_t len = sizeof cred;
                getsockopt(c, SOL_SOCKET, SO_PEERCRED, &cred, &len);
                const int size = seam::kMaxPacket + 4096;
                setsockopt(c, SOL_SOCKET, SO_SNDBUF, &size, sizeof size);
                peers[c] = cred;
                watch(c);
                continue;
            }
            auto peer = peers.find(fd);
            if (peer == peers.end())
                continue; // closed by the driver earlier in this round
            iovec iov{buf.data(), buf.size()};
            msghdr msg{};
            msg.msg_iov = &iov;
            msg.msg_iovlen = 1;
            alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))];
            msg.msg_control = control;
            msg.msg_controllen = sizeof control;
            const ssize_t got = recvmsg(fd, &msg, MSG_TRUNC | MSG_CMSG_CLOEXEC);
            const cmsghdr *c = got > 0 ? CMSG_FIRSTHDR(&msg) : nullptr;
            int passed = -1;
            if (c && c->cmsg_level == SOL_SOCKET && c->cmsg_type == SCM_RIGHTS)
                std::memcpy(&passed, CMSG_DATA(c), sizeof passed);
            if (got <= 0 && (got == 0 || (errno != EINTR && errno != EAGAIN))) {
                epoll_ctl(ep, EPOLL_CTL_DEL, fd, nullptr);
                driver.hangup(fd);
                continue;
            }
            if (got <= 0)
                continue;
            if (static_cast<size_t>(got) > buf.size()) {
                if (passed >= 0)
                    close(passed);
                seam::Answer a{EMSGSIZE, -1, 0};
                send_packet(fd, &a, sizeof a);
                continue;
            }
            seam::Request head{};
            std::memcpy(&head, buf.data(), std::min(sizeof head, static_cast<size_t>(got)));
            if (head.op != seam::kLarge) {
                if (passed >= 0)
                    close(passed); // nothing else comes with a descriptor
                driver.packet(fd, peer->second, buf.data(), static_cast<size_t>(got));
                continue;
            }
            // A request too large for a packet: read whole from its memory
            // file, and held no longer than it is served.
            std::vector<unsigned char> large;
            bool whole = passed >= 0 && head.value <= seam::kMaxRequest;
            if (whole) {
                large.resize(head.value);
                for (size_t done = 0; whole && done < large.size();) {
                    const ssize_t n = pread(passed, large.data() + done, large.size() - done,
                                            static_cast<off_t>(done));
                    whole = n > 0 || (n < 0 && errno == EINTR);
                    done += n > 0 ? static_cast<size_t>(n) : 0;
                }
            }
            if (passed >= 0)
                close(passed);
            if (!whole) {
                seam::Answer a{passed >= 0 ? EMSGSIZE : EINVAL, -1, 0};
                send_packet(fd, &a, sizeof a);
                continue;
            }
            driver.packet(fd, peer->second, large.data(), large.size());
        }
    }
    close(ep);
}

} // namespace binderd
