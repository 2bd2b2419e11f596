// A scalar proxy call (SystemManager::GetDeviceType) against a minimal ioctl
// client making the same transaction (code 6, the word 0) to the same
// simulated service, in alternating rounds; the same call through a
// supervised handle without and with a time limit against the plain proxy;
// the heap allocations of each; and what building a proxy (open, map,
// lookup) costs.
//
// Needs /dev/binder and no other context manager. Run it through
// hmisvc-run (target bench-proxies-vm).
#include "alloc_counter.h"
#include "process.h"
#include "raw_client.h"
#include "timing.h"

#include <hmisvc/proxies.h>
#include <hmisvc/service.h>

#include <CLI/CLI.hpp>

#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <vector>

namespace {

constexpr uint32_t CODE_GET_DEVICE_TYPE = 6;

void print_row(const char *name, const Totals &t, unsigned calls)
{
    std::printf("  %-26s %10.2f us %12.3f us %12.3f\n", name, median(t.wall_ns) / calls / 1e3,
                t.user_ns / t.calls / 1e3, double(t.allocations) / t.calls);
}

}  // namespace

int main(int argc, char **argv)
{
    using namespace std::chrono_literals;
    CLI::App app{"SystemManager::GetDeviceType against a minimal ioctl client"};
    unsigned rounds = 21, calls = 2000, builds = 500;
    app.add_option("--rounds", rounds, "Rounds of each client, alternating")->check(CLI::Range(1u, 10000u));
    app.add_option("--calls", calls, "Calls per round")->check(CLI::Range(1u, 10000000u));
    app.add_option("--builds", builds, "Proxies built for the construction figure")->check(CLI::Range(1u, 100000u));
    CLI11_PARSE(app, argc, argv);

    if (!peer::start_service_manager(HMISVC_SERVICEMANAGER)) {
        std::fprintf(stderr, "bench: cannot start the service manager\n");
        return 2;
    }
    auto devsim = peer::start_program({HMISVC_DEVSIM, "--services", "system"});
    SystemManager proxy;
    hmisvc::Service<SystemManager> supervised;
    RawClient raw;
    const uint32_t handle = devsim->ready() && raw.open(SystemManager::MAP_SIZE) ? raw.lookup("system") : 0;
    if (handle == 0 || !supervised.connect(1s)) {
        std::fprintf(stderr, "bench: the simulator's \"system\" service is not reachable\n");
        peer::stop_service_manager();
        return 2;
    }
    const int type = proxy.GetDeviceType();
    auto lib = [&](unsigned) { return proxy.GetDeviceType() == type; };
    auto direct = [&](unsigned) { return raw.call(handle, CODE_GET_DEVICE_TYPE) == type; };
    auto here = [&](unsigned) { return supervised.call(&SystemManager::GetDeviceType).valueOr(0) == type; };
    auto limited = [&](unsigned) {
        return supervised.callWithin(5s, &SystemManager::GetDeviceType).valueOr(0) == type;
    };

    Totals lib_t, raw_t, build_t, here_t, lib2_t, limited_t, lib3_t;
    std::vector<double> ratios, here_ratios, limited_ratios;
    bool ok = type != 0 && alternate(rounds, calls, lib_t, lib, raw_t, direct, ratios) &&
              alternate(rounds, calls, here_t, here, lib2_t, lib, here_ratios) &&
              alternate(rounds, calls, limited_t, limited, lib3_t, lib, limited_ratios);
    for (int r = 0; ok && r < 5; ++r)
        ok = round(builds, build_t, [](unsigned) { return SystemManager().GetDeviceType() != 0; });
    Totals call_only;  // to take the call out of the construction figure
    for (int r = 0; ok && r < 5; ++r)
        ok = round(builds, call_only, lib);
    peer::stop_service_manager();
    if (!ok) {
        std::fprintf(stderr, "bench: a call failed or answered wrongly\n");
        return 2;
    }

    std::printf("GetDeviceType round trips: %u rounds x %u calls per client, alternating\n", rounds, calls);
    std::printf("  %-26s %13s %15s %12s\n", "client", "wall/call", "user CPU/call", "allocs/call");
    print_row("SystemManager", lib_t, calls);
    print_row("raw ioctl", raw_t, calls);
    print_row("Service, no limit", here_t, calls);
    print_row("Service, 5 s limit", limited_t, calls);
    std::printf("wall ratio proxy / raw ioctl (median of rounds): %.3f\n", median(ratios));
    std::printf("user CPU ratio proxy / raw ioctl: %.3f\n", lib_t.user_ns / raw_t.user_ns);
    std::printf("wall ratio Service without limit / proxy (median of rounds): %.3f\n", median(here_ratios));
    std::printf("wall ratio Service with limit / proxy (median of rounds): %.3f\n", median(limited_ratios));
    std::printf("user CPU ratio without limit / proxy: %.3f, with limit / proxy (caller's thread): %.3f\n",
                here_t.user_ns / lib2_t.user_ns, limited_t.user_ns / lib3_t.user_ns);
    std::printf("proxy construction (open, map, lookup, close), %u per round, 5 rounds:\n", builds);
    std::printf("  %.2f us wall (median round, one call taken out), %.3f us user CPU, %.1f allocations\n",
                (median(build_t.wall_ns) - median(call_only.wall_ns)) / builds / 1e3,
                (build_t.user_ns - call_only.user_ns) / build_t.calls / 1e3,
                double(build_t.allocations - call_only.allocations) / build_t.calls);
    return lib_t.allocations == 0 && here_t.allocations == 0 ? 0 : 1;
}
