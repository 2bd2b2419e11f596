// crash_holder hold NAME: holds service NAME, prints "holding", and prints
// "died" and exits 0 when the driver tells its death.
// crash_holder call NAME CODE: one call; prints "answered" or "failed".
#include <hmisvc/binder.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

int main(int argc, char **argv)
{
    if (argc < 3)
        return 2;
    binder_connection *bs = binder_open(128 * 1024);
    if (!bs)
        return 1;
    uint32_t handle = svcmgr_lookup(bs, SVCMGR_HANDLE, argv[2]);
    if (!handle) {
        std::printf("not registered\n");
        return 1;
    }
    if (std::strcmp(argv[1], "hold") == 0) {
        static binder_death_record death;
        death.on_death = [](binder_connection *, void *) {
            std::printf("died\n");
            std::fflush(stdout);
            std::_Exit(0);
        };
        binder_acquire(bs, handle);
        binder_link_to_death(bs, handle, &death);
        std::printf("holding\n");
        std::fflush(stdout);
        binder_loop(bs, nullptr);
        return 1;
    }
    if (std::strcmp(argv[1], "call") == 0 && argc == 4) {
        char area[512];
        binder_io msg, reply;
        bio_init(&msg, area, sizeof area, 4);
        bio_put_uint32(&msg, 0);
        int status = binder_call(bs, &msg, &reply, handle, static_cast<uint32_t>(std::atoi(argv[3])));
        std::printf(status == 0 ? "answered\n" : "failed\n");
        if (status == 0)
            binder_done(bs, &msg, &reply);
        return 0;
    }
    return 2;
}
