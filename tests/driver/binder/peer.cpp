#include "peer.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <ctime>

namespace peer {

namespace {

// Boots under emulation are slow; a child that has not said it is ready
// within this time has gone wrong.
constexpr int READY_TIMEOUT_MS = 60000;

int echo(binder_connection *, binder_transaction_data *txn, binder_io *msg, binder_io *reply,
         void *)
{
    switch (txn->code) {
    case ECHO_ADD1:
        bio_put_uint32(reply, bio_get_uint32(msg) + 1);
        return 0;
    case ECHO_MIRROR: {
        bio_put_uint32(reply, bio_get_uint32(msg) + 1);
        uint32_t len16 = 0, len8 = 0, lenmem = 0;
        const uint16_t *s16 = bio_get_string16(msg, &len16);
        const char *s8 = bio_get_string(msg, &len8);
        const void *mem = bio_get_mem(msg, &lenmem);
        if (msg->flags & BIO_FLAG_OVERFLOW)
            return -2;
        bio_put_string16(reply, s16);
        bio_put_string(reply, s8);
        bio_put_mem(reply, mem, lenmem);
        return 0;
    }
    case ECHO_PID:
        bio_put_uint32(reply, static_cast<uint32_t>(getpid()));
        return 0;
    case ECHO_STATUS:
        return static_cast<int>(bio_get_uint32(msg));
    default:
        return -3;
    }
}

std::unique_ptr<Child> service_manager;

}  // namespace

Child::Child(std::function<int(int ready_fd)> body)
{
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0)
        return;
    pid_ = fork();
    if (pid_ == 0) {
        close(fds[0]);
        _exit(body(fds[1]));
    }
    close(fds[1]);
    if (pid_ > 0) {
        pollfd p{fds[0], POLLIN, 0};
        char byte;
        ready_ = poll(&p, 1, READY_TIMEOUT_MS) == 1 && read(fds[0], &byte, 1) == 1;
    }
    close(fds[0]);
}

void Child::kill()
{
    if (pid_ <= 0)
        return;
    ::kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
    pid_ = -1;
}

std::unique_ptr<Child> start_echo(std::vector<std::string> names, uint32_t map_size)
{
    return std::make_unique<Child>([names = std::move(names), map_size](int ready_fd) {
        static int object;  // its address is what gets published
        binder_connection *bs = binder_open(map_size);
        if (!bs)
            return 2;
        for (const auto &name : names)
            if (svcmgr_publish(bs, SVCMGR_HANDLE, name.c_str(), &object) != 0)
                return 3;
        char byte = 1;
        if (write(ready_fd, &byte, 1) != 1)
            return 4;
        close(ready_fd);
        binder_loop2(bs, echo, nullptr);
        return 5;
    });
}

bool start_service_manager(const char *path)
{
    service_manager = std::make_unique<Child>([path](int) {
        execl(path, path, "--verbose", static_cast<char *>(nullptr));
        return 127;
    });
    // It answers once it is the context manager; before that a call to
    // handle 0 fails at once. Any well-formed reply will do, even a refusal.
    Connection bs(binder_open(4096));
    if (!bs)
        return false;
    return eventually([&] {
        char area[64];
        binder_io msg, reply;
        bio_init(&msg, area, sizeof area, 4);
        bio_put_uint32(&msg, 0);
        if (binder_call(bs.get(), &msg, &reply, SVCMGR_HANDLE, SVCMGR_CODE_LOOKUP) != 0)
            return false;
        binder_done(bs.get(), &msg, &reply);
        return true;
    });
}

void stop_service_manager() { service_manager.reset(); }

bool eventually(const std::function<bool()> &pred, int tries)
{
    for (int i = 0; i < tries; ++i) {
        if (pred())
            return true;
        timespec pause{0, 10 * 1000 * 1000};
        nanosleep(&pause, nullptr);
    }
    return false;
}

}  // namespace peer
