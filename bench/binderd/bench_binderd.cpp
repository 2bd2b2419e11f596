// A proxy call (SystemManager::GetDeviceType, through the simulator) on the
// userspace driver, natively: the median round trip, the heap allocations
// per call, and the driver's resident memory after many calls and after
// many processes have come and gone.
//
// Run it under the driver it measures: hmisvc-binderd -- bench_binderd
// (target bench-binderd-native); the driver is its parent.
#include "process.h"
#include "timing.h"

#include <hmisvc/proxies.h>

#include <CLI/CLI.hpp>

#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>

namespace {

// Resident memory of `pid` in KiB, from /proc.
long rss_kib(pid_t pid)
{
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    for (std::string line; std::getline(status, line);)
        if (line.rfind("VmRSS:", 0) == 0)
            return std::strtol(line.c_str() + 6, nullptr, 10);
    return -1;
}

}  // namespace

int main(int argc, char **argv)
{
    CLI::App app{"SystemManager::GetDeviceType on the userspace binder driver"};
    unsigned rounds = 21, calls = 2000, total = 100000, processes = 1000;
    app.add_option("--rounds", rounds, "Timed rounds")->check(CLI::Range(1u, 10000u));
    app.add_option("--calls", calls, "Calls per round")->check(CLI::Range(1u, 1000000u));
    app.add_option("--total", total, "Calls before the driver's memory is read")->check(CLI::Range(1u, 100000000u));
    app.add_option("--processes", processes, "Processes that open, call and end")->check(CLI::Range(0u, 100000u));
    CLI11_PARSE(app, argc, argv);
    if (!std::getenv("HMISVC_BINDER_SOCKET")) {
        std::fprintf(stderr, "bench: run it under hmisvc-binderd (HMISVC_BINDER_SOCKET is not set)\n");
        return 2;
    }
    const pid_t driver = getppid();
    const long rss_start = rss_kib(driver);

    if (!peer::start_service_manager(HMISVC_SERVICEMANAGER)) {
        std::fprintf(stderr, "bench: cannot start the service manager\n");
        return 2;
    }
    auto devsim = peer::start_program({HMISVC_DEVSIM, "--services", "system"});
    SystemManager proxy;
    const int type = devsim->ready() ? proxy.GetDeviceType() : 0;
    if (type == 0) {
        std::fprintf(stderr, "bench: the simulator's \"system\" service is not reachable\n");
        return 2;
    }
    auto call = [&](unsigned) { return proxy.GetDeviceType() == type; };
    Totals warm, timed;
    bool ok = round(calls, warm, call);
    for (unsigned r = 0; ok && r < rounds; ++r)
        ok = round(calls, timed, call);
    unsigned done = calls * (rounds + 1);
    for (; ok && done < total; done += calls)
        ok = round(calls, warm, call);
    const long rss_calls = rss_kib(driver);

    for (unsigned i = 0; ok && i < processes; ++i) {
        const pid_t pid = fork();
        if (pid == 0)
            _exit(SystemManager().GetDeviceType() == type ? 0 : 1);
        int status = 0;
        ok = pid > 0 && waitpid(pid, &status, 0) == pid && WIFEXITED(status) &&
             WEXITSTATUS(status) == 0;
    }
    const long rss_processes = rss_kib(driver);
    peer::stop_service_manager();
    if (!ok) {
        std::fprintf(stderr, "bench: a call failed or answered wrongly\n");
        return 2;
    }
    std::printf("GetDeviceType on hmisvc-binderd: %u rounds x %u calls\n", rounds, calls);
    std::printf("  round trip: %.2f us median wall, %.3f us user CPU, %.3f allocations per call\n",
                median(timed.wall_ns) / calls / 1e3, timed.user_ns / timed.calls / 1e3,
                double(timed.allocations) / timed.calls);
    std::printf("  driver RSS: %ld KiB at start, %ld KiB after %u calls, %ld KiB after %u processes\n",
                rss_start, rss_calls, done, rss_processes, processes);
    return 0;
}
