// A service's death and return, natively (run under `hmisvc-run --native`):
// from `sim crash` asked to the death notification at a holder, and how long
// past the restart delay the name is published again.
//
//   bench_crash [ROUNDS] [DELAY_MS]
#include <hmisvc/binder.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>
#include <vector>

#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr const char *kService = "backlight";

double now_ms()
{
    timespec t{};
    clock_gettime(CLOCK_MONOTONIC, &t);  // one clock for every process
    return static_cast<double>(t.tv_sec) * 1e3 + static_cast<double>(t.tv_nsec) / 1e6;
}

int death_pipe = -1;

// A holder in a process of its own: writes its link's readiness, then the
// time its death notification came.
[[noreturn]] void hold(int fd)
{
    death_pipe = fd;
    binder_connection *bs = binder_open(128 * 1024);
    uint32_t handle = 0;
    while (bs && !(handle = svcmgr_lookup(bs, SVCMGR_HANDLE, kService)))
        usleep(200);
    static binder_death_record death;
    death.on_death = [](binder_connection *, void *) {
        double t = now_ms();
        (void)!write(death_pipe, &t, sizeof t);
        std::_Exit(0);
    };
    binder_acquire(bs, handle);
    binder_link_to_death(bs, handle, &death);
    double ready = 0;
    (void)!write(fd, &ready, sizeof ready);
    binder_loop(bs, nullptr);
    std::_Exit(1);
}

double median(std::vector<double> v)
{
    std::sort(v.begin(), v.end());
    return v.empty() ? 0 : v[v.size() / 2];
}

}  // namespace

int main(int argc, char **argv)
{
    int rounds = argc > 1 ? std::atoi(argv[1]) : 30;
    int delay = argc > 2 ? std::atoi(argv[2]) : 50;
    binder_connection *bs = binder_open(128 * 1024);
    if (!bs)
        return 1;
    std::vector<double> to_death, late;
    for (int i = 0; i < rounds; ++i) {
        int fds[2];
        if (pipe(fds) != 0)
            return 1;
        pid_t pid = fork();
        if (pid == 0)
            hold(fds[1]);
        double t = 0;
        if (read(fds[0], &t, sizeof t) != sizeof t)
            return 1;
        uint32_t control = svcmgr_lookup(bs, SVCMGR_HANDLE, "devsim.control");
        char area[256];
        binder_io msg, reply;
        bio_init(&msg, area, sizeof area, 4);
        bio_put_uint32(&msg, 0);
        bio_put_string(&msg, kService);
        bio_put_uint32(&msg, static_cast<uint32_t>(delay));
        const double asked = now_ms();
        if (binder_call(bs, &msg, &reply, control, 15) != 0)  // crash
            return 1;
        const double answered = now_ms();
        binder_done(bs, &msg, &reply);
        binder_release(bs, control);
        double died = 0;
        if (read(fds[0], &died, sizeof died) != sizeof died)
            return 1;
        to_death.push_back(died - asked);
        uint32_t handle = 0;
        while (!(handle = svcmgr_lookup(bs, SVCMGR_HANDLE, kService)))
            usleep(200);
        late.push_back(now_ms() - answered - delay);
        binder_release(bs, handle);
        waitpid(pid, nullptr, 0);
        close(fds[0]);
        close(fds[1]);
    }
    std::printf("%d rounds: sim crash to the death notification: median %.2f ms, max %.2f ms\n", rounds,
                median(to_death), *std::max_element(to_death.begin(), to_death.end()));
    std::printf("published again past the %d ms delay: median %.2f ms, max %.2f ms\n", delay, median(late),
                *std::max_element(late.begin(), late.end()));
    return 0;
}
