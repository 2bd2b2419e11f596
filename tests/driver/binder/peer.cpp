#include "peer.h"

#include <signal.h>
#include <unistd.h>

namespace peer {

namespace {

int echo(binder_connection *bs, binder_transaction_data *txn, binder_io *msg, binder_io *reply,
         void *)
{
    switch (txn->code) {
    case ECHO_ADD1:
        bio_put_uint32(reply, bio_get_uint32(msg) + 1);
        return 0;
    case ECHO_PID:
        bio_put_uint32(reply, static_cast<uint32_t>(getpid()));
        return 0;
    case ECHO_SENDER:
        bio_put_uint32(reply, static_cast<uint32_t>(txn->sender_pid));
        bio_put_uint32(reply, txn->sender_euid);
        return 0;
    case ECHO_NEST: {
        const uint32_t handle = bio_get_ref(msg);
        char area[64];
        binder_io ask, answer;
        bio_init(&ask, area, sizeof area, 4);
        bio_put_uint32(&ask, 0);
        if (!handle || binder_call(bs, &ask, &answer, handle, ECHO_ADD1) != 0)
            return -4;
        bio_put_uint32(reply, bio_get_uint32(&answer));
        binder_done(bs, &ask, &answer);
        return 0;
    }
    case ECHO_BOUNCE: {
        // Held past the request's buffer, which the reply gives back first.
        const uint32_t handle = bio_get_ref(msg);
        binder_acquire(bs, handle);
        bio_put_ref(reply, handle);
        return 0;
    }
    case ECHO_DIE:
        kill(getpid(), SIGKILL);
        pause();
        return 0;
    default:
        return -3;
    }
}

}  // namespace

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

}  // namespace peer
