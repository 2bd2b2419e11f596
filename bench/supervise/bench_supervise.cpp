// SystemManager::GetDeviceType three ways against the same simulated
// service, in alternating rounds: a plain proxy, a supervised handle
// without a time limit (on the caller's thread) and one with a limit (on
// the handle's worker); wall time, user CPU and heap allocations per call.
//
// Needs /dev/binder and no other context manager. Run it through
// hmisvc-run (target bench-supervise-vm).
#include "alloc_counter.h"
#include "process.h"
#include "timing.h"

#include <hmisvc/proxies.h>
#include <hmisvc/service.h>

#include <CLI/CLI.hpp>

#include <unistd.h>

#include <cstdio>
#include <vector>

namespace {

void print_row(const char *name, const Totals &t, unsigned calls)
{
    std::printf("  %-26s %10.2f us %12.3f us %12.3f\n", name, median(t.wall_ns) / calls / 1e3,
                t.user_ns / t.calls / 1e3, double(t.allocations) / t.calls);
}

}  // namespace

int main(int argc, char **argv)
{
    using namespace std::chrono_literals;
    CLI::App app{"hmisvc::Service calls against plain proxy calls"};
    unsigned rounds = 21, calls = 2000;
    app.add_option("--rounds", rounds, "Rounds of each client, alternating")->check(CLI::Range(1u, 10000u));
    app.add_option("--calls", calls, "Calls per round")->check(CLI::Range(1u, 10000000u));
    CLI11_PARSE(app, argc, argv);

    if (!peer::start_service_manager(HMISVC_SERVICEMANAGER)) {
        std::fprintf(stderr, "bench: cannot start the service manager\n");
        return 2;
    }
    peer::Child devsim([](int ready_fd) {
        dup2(ready_fd, STDOUT_FILENO);  // its "ready" line is the signal
        execl(HMISVC_DEVSIM, HMISVC_DEVSIM, "--services", "system", static_cast<char *>(nullptr));
        return 127;
    });
    SystemManager plain;
    hmisvc::Service<SystemManager> supervised;
    const int type = devsim.ready() ? plain.GetDeviceType() : 0;
    if (type == 0 || !supervised.connect(1s)) {
        std::fprintf(stderr, "bench: the simulator's \"system\" service is not reachable\n");
        peer::stop_service_manager();
        return 2;
    }
    auto direct = [&](unsigned) { return plain.GetDeviceType() == type; };
    auto here = [&](unsigned) { return supervised.call(&SystemManager::GetDeviceType).valueOr(0) == type; };
    auto limited = [&](unsigned) {
        return supervised.callWithin(5s, &SystemManager::GetDeviceType).valueOr(0) == type;
    };

    Totals plain_t, here_t, plain2_t, limited_t;
    std::vector<double> here_ratios, limited_ratios;
    bool ok = alternate(rounds, calls, here_t, here, plain_t, direct, here_ratios) &&
              alternate(rounds, calls, limited_t, limited, plain2_t, direct, limited_ratios);
    peer::stop_service_manager();
    if (!ok) {
        std::fprintf(stderr, "bench: a call failed or answered wrongly\n");
        return 2;
    }

    std::printf("GetDeviceType: %u rounds x %u calls per client, alternating\n", rounds, calls);
    std::printf("  %-26s %13s %15s %12s\n", "client", "wall/call", "user CPU/call", "allocs/call");
    print_row("SystemManager", plain_t, calls);
    print_row("Service, no limit", here_t, calls);
    print_row("Service, 5 s limit", limited_t, calls);
    std::printf("wall ratio Service without limit / plain (median of rounds): %.3f\n", median(here_ratios));
    std::printf("wall ratio Service with limit / plain (median of rounds): %.3f\n", median(limited_ratios));
    std::printf("user CPU ratio without limit / plain: %.3f, with limit / plain: %.3f\n",
                here_t.user_ns / plain_t.user_ns, limited_t.user_ns / plain2_t.user_ns);
    return here_t.allocations == 0 ? 0 : 1;
}
