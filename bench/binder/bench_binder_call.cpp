// Round trips of binder_call to a trivial service, against a minimal client
// written straight on ioctl making the same transaction to the same service
// in the same run; rounds of the two alternate so that drift hits both.
// Also counts the heap allocations of binder_call and binder_done.
//
// Needs /dev/binder and no other context manager: the service is handle 0.
// Run it through hmisvc-run (target bench-binder-vm).
#include "alloc_counter.h"
#include "raw_client.h"
#include "timing.h"

#include <hmisvc/binder.h>

#include <CLI/CLI.hpp>

#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <vector>

namespace {

constexpr uint32_t MAP_SIZE = 128 * 1024;
constexpr uint32_t CODE_ADD1 = 1;

// The service: skips the header word, answers the argument plus one.
int add1(binder_connection *, binder_transaction_data *, binder_io *msg, binder_io *reply, void *)
{
    bio_get_uint32(msg);
    bio_put_uint32(reply, bio_get_uint32(msg) + 1);
    return 0;
}

pid_t start_service()
{
    int ready[2];
    if (pipe(ready) != 0)
        return -1;
    pid_t pid = fork();
    if (pid == 0) {
        close(ready[0]);
        binder_connection *bs = binder_open(MAP_SIZE);
        if (!bs || binder_become_context_manager(bs) != 0)
            _exit(1);
        char byte = 1;
        if (write(ready[1], &byte, 1) != 1)
            _exit(1);
        binder_loop2(bs, add1, nullptr);
        _exit(2);
    }
    close(ready[1]);
    char byte;
    bool up = pid > 0 && read(ready[0], &byte, 1) == 1;
    close(ready[0]);
    if (!up && pid > 0) {
        waitpid(pid, nullptr, 0);
        return -1;
    }
    return pid;
}

// What a proxy method does: request on the stack, call, decode, give back.
int64_t library_call(binder_connection *bs, uint32_t arg)
{
    char area[256];
    binder_io msg, reply;
    bio_init(&msg, area, sizeof area, 4);
    bio_put_uint32(&msg, 0);
    bio_put_uint32(&msg, arg);
    if (binder_call(bs, &msg, &reply, SVCMGR_HANDLE, CODE_ADD1) != 0)
        return -1;
    int64_t word = bio_get_uint32(&reply);
    binder_done(bs, &msg, &reply);
    return word;
}

void print_row(const char *name, const Totals &t, unsigned calls)
{
    std::printf("  %-12s %12.2f us %14.3f us %16.2f us\n", name, median(t.wall_ns) / calls / 1e3,
                t.user_ns / t.calls / 1e3, t.thread_ns / t.calls / 1e3);
}

}  // namespace

int main(int argc, char **argv)
{
    CLI::App app{"binder_call round trips against a minimal ioctl client"};
    unsigned rounds = 21, calls = 2000;
    app.add_option("--rounds", rounds, "Rounds of each client, alternating")
        ->check(CLI::Range(1u, 10000u));
    app.add_option("--calls", calls, "Calls per round")->check(CLI::Range(1u, 10000000u));
    CLI11_PARSE(app, argc, argv);

    pid_t service = start_service();
    if (service < 0) {
        std::fprintf(stderr, "bench: cannot start the service (is another context manager up?)\n");
        return 2;
    }
    unsigned long before_open = heap_allocations();
    binder_connection *bs = binder_open(MAP_SIZE);
    unsigned long in_open = heap_allocations() - before_open;
    RawClient raw;
    if (!bs || !raw.open(MAP_SIZE)) {
        std::fprintf(stderr, "bench: cannot open the driver\n");
        kill(service, SIGKILL);
        return 2;
    }

    auto lib = [&](uint32_t i) { return library_call(bs, i) == int64_t{i} + 1; };
    auto direct = [&](uint32_t i) { return raw.call(SVCMGR_HANDLE, CODE_ADD1, i) == int64_t{i} + 1; };
    Totals lib_t, raw_t;
    std::vector<double> ratios;
    const bool ok = alternate(rounds, calls, lib_t, lib, raw_t, direct, ratios);
    kill(service, SIGKILL);
    waitpid(service, nullptr, 0);
    binder_close(bs);
    if (!ok) {
        std::fprintf(stderr, "bench: a call failed or answered wrongly\n");
        return 2;
    }

    std::printf("binder round trips: %u rounds x %u calls per client, alternating\n", rounds,
                calls);
    std::printf("  %-12s %15s %17s %19s\n", "client", "wall/call", "user CPU/call",
                "thread CPU/call");
    std::printf("  %-12s %15s %17s %19s\n", "", "(median round)", "(all rounds)", "(all rounds)");
    print_row("binder_call", lib_t, calls);
    print_row("raw ioctl", raw_t, calls);
    std::printf("wall ratio binder_call / raw ioctl (median of rounds): %.3f\n", median(ratios));
    std::printf("user CPU ratio binder_call / raw ioctl: %.3f\n", lib_t.user_ns / raw_t.user_ns);
    std::printf("heap allocations per call after binder_open: %.3f (%lu in %lu calls; "
                "binder_open itself: %lu)\n",
                double(lib_t.allocations) / lib_t.calls, lib_t.allocations, lib_t.calls, in_open);
    return lib_t.allocations == 0 ? 0 : 1;
}
