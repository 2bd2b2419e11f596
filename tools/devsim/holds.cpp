#include "holds.h"

#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace hmisvc::devsim {

namespace {

// A descriptor that becomes readable when the process ends.
int pid_watch(int pid)
{
#ifdef SYS_pidfd_open
    return static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
#else
    (void)pid;
    errno = ENOSYS;
    return -1;
#endif
}

}  // namespace

HoldClient &Holds::client()
{
    thread_local HoldClient current;
    return current;
}

Holds::~Holds()
{
    if (watcher_.joinable()) {
        uint64_t one = 1;
        if (write(wake_, &one, sizeof one) == sizeof one)
            watcher_.join();
        else
            watcher_.detach();
    }
    std::lock_guard<std::mutex> lock(mutex_);
    for (auto &[id, hold] : held_)
        if (hold->watch >= 0)
            close(hold->watch), hold->watch = -1;
    if (epoll_ >= 0)
        close(epoll_);
    if (wake_ >= 0)
        close(wake_);
}

Holds::Ticket Holds::take()
{
    const HoldClient who = client();
    auto hold = std::make_shared<Hold>();
    hold->owner = std::this_thread::get_id();
    std::lock_guard<std::mutex> lock(mutex_);
    if (held_.size() >= kMax)
        return nullptr;
    hold->id = ++next_id_;
    held_[hold->id] = hold;
    if (who.pid <= 0 && who.fd < 0)
        return hold;
    if (epoll_ < 0) {
        epoll_ = epoll_create1(EPOLL_CLOEXEC);
        wake_ = eventfd(0, EFD_CLOEXEC);
        epoll_event e{};
        e.events = EPOLLIN;
        e.data.u64 = 0;
        if (epoll_ < 0 || wake_ < 0 || epoll_ctl(epoll_, EPOLL_CTL_ADD, wake_, &e) != 0) {
            std::fprintf(stderr, "hmisvc-devsim: cannot watch the clients of waits: %s\n", std::strerror(errno));
            return hold;
        }
        watcher_ = std::thread([this] { run_watcher(); });
    }
    if (who.pid > 0) {
        hold->watch = pid_watch(who.pid);
        if (hold->watch < 0 && errno == ESRCH) {
            end(*hold, "its client had gone");
            return hold;
        }
    } else {
        hold->watch = fcntl(who.fd, F_DUPFD_CLOEXEC, 0);
    }
    epoll_event e{};
    // A process's descriptor turns readable when it ends; a socket hangs
    // up when its peer closes it.
    e.events = who.pid > 0 ? EPOLLIN : EPOLLRDHUP;
    e.data.u64 = hold->id;
    if (hold->watch >= 0 && epoll_ctl(epoll_, EPOLL_CTL_ADD, hold->watch, &e) != 0)
        close(hold->watch), hold->watch = -1;
    return hold;
}

void Holds::release(const Ticket &hold)
{
    if (!hold)
        return;
    std::lock_guard<std::mutex> lock(mutex_);
    held_.erase(hold->id);
    // Closing the last descriptor of a file takes it out of the epoll set.
    if (hold->watch >= 0)
        close(hold->watch), hold->watch = -1;
}

void Holds::end(Hold &hold, const std::string &why)
{
    if (hold.ended)
        return;
    hold.why = why;
    hold.ended = true;
}

void Holds::end_all(const std::string &why)
{
    {
        std::lock_guard<std::mutex> lock(mutex_);
        for (auto &[id, hold] : held_)
            if (hold->owner != std::this_thread::get_id())
                end(*hold, why);
    }
    log_.poke();
}

int Holds::held() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return static_cast<int>(held_.size());
}

void Holds::run_watcher()
{
    for (;;) {
        epoll_event events[16];
        int n = epoll_wait(epoll_, events, 16, -1);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            return;
        bool ended = false;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            for (int i = 0; i < n; ++i) {
                if (events[i].data.u64 == 0)
                    return;
                auto found = held_.find(events[i].data.u64);
                if (found == held_.end())
                    continue;
                Hold &hold = *found->second;
                // Reported once: the wait ends, and with it the hold.
                epoll_ctl(epoll_, EPOLL_CTL_DEL, hold.watch, nullptr);
                end(hold, "its client went away");
                ended = true;
            }
        }
        if (ended)
            log_.poke();
    }
}

}  // namespace hmisvc::devsim
