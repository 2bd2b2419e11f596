// A proxy call (SystemManager::GetDeviceType) on the userspace driver,
// natively: the median round trip through the simulator and, in alternating
// rounds, to a service of the bench's own that answers at once (what the
// driver and the proxy cost without the simulator's hand-offs); the heap
// allocations per call, and the driver's resident memory after many calls
// and after many processes have come and gone.
//
// Run it under the driver it measures: hmisvc-binderd -- bench_binderd
// (target bench-binderd-native); the driver is its parent. With --kernel it
// measures the round trips on the kernel's driver instead, e.g. in the guest:
// hmisvc-run --guest --no-sim -- bench_binderd --kernel.
#include "process.h"
#include "svcmgr_client.h"
#include "timing.h"

#include <hmisvc/proxies.h>

#include <CLI/CLI.hpp>

#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

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

// What the bench's own "system" service answers every call with.
constexpr int kPromptType = 7;

int answer(binder_connection *, binder_transaction_data *, binder_io *, binder_io *reply, void *)
{
    bio_put_uint32(reply, kPromptType);
    return 0;
}

// The bench's own "system" service: publishes the name, lets it go again
// once a byte arrives on `release_fd` (the bench's proxy holds its object
// by then, and the simulator needs the name), then answers every call at
// once on the library's serving loop.
std::unique_ptr<peer::Child> start_prompt_service(int release_fd)
{
    return std::make_unique<peer::Child>([release_fd](int ready_fd) {
        static int object;
        binder_connection *bs = binder_open(128 * 1024);
        const char *name = SystemManager::SERVICE_NAME.c_str();
        char byte = 1;
        if (!bs || svcmgr_publish(bs, SVCMGR_HANDLE, name, &object) != 0 || write(ready_fd, &byte, 1) != 1 ||
            read(release_fd, &byte, 1) != 1 || hmisvc::tools::svcmgr_unpublish(bs, name, &object) != 0)
            return 1;
        binder_loop2(bs, answer, nullptr);
        return 1;
    });
}

void print_round_trip(const char *what, const Totals &t, unsigned calls)
{
    const auto [min, max] = std::minmax_element(t.wall_ns.begin(), t.wall_ns.end());
    std::printf("  %s: %.2f us median wall (rounds %.2f-%.2f), %.3f us user CPU, %.3f allocations per call\n",
                what, median(t.wall_ns) / calls / 1e3, *min / calls / 1e3, *max / calls / 1e3,
                t.user_ns / t.calls / 1e3, double(t.allocations) / t.calls);
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
    bool kernel = false;
    app.add_flag("--kernel", kernel, "On the kernel's binder driver (/dev/binder): round trips only");
    CLI11_PARSE(app, argc, argv);
    if (!kernel && !std::getenv("HMISVC_BINDER_SOCKET")) {
        std::fprintf(stderr, "bench: run it under hmisvc-binderd (HMISVC_BINDER_SOCKET is not set)\n");
        return 2;
    }
    const pid_t driver = kernel ? 0 : getppid();
    const long rss_start = rss_kib(driver);

    if (!peer::start_service_manager(HMISVC_SERVICEMANAGER)) {
        std::fprintf(stderr, "bench: cannot start the service manager\n");
        return 2;
    }
    // The prompt service's proxy looks the name up first; the simulator
    // publishes it once the prompt service has let it go.
    int release[2];
    if (pipe(release) != 0) {
        std::fprintf(stderr, "bench: cannot make a pipe\n");
        return 2;
    }
    auto prompt_service = start_prompt_service(release[0]);
    std::unique_ptr<SystemManager> prompt;
    if (prompt_service->ready())
        prompt = std::make_unique<SystemManager>();
    const char byte = 1;
    if (!prompt || write(release[1], &byte, 1) != 1 ||
        !peer::eventually([] { return !peer::service_found(SystemManager::SERVICE_NAME.c_str()); })) {
        std::fprintf(stderr, "bench: the bench's own \"system\" service did not start\n");
        return 2;
    }
    close(release[0]);
    close(release[1]);

    auto devsim = peer::start_program({HMISVC_DEVSIM, "--services", "system"});
    SystemManager proxy;
    const int type = devsim->ready() ? proxy.GetDeviceType() : 0;
    if (type == 0) {
        std::fprintf(stderr, "bench: the simulator's \"system\" service is not reachable\n");
        return 2;
    }
    auto call = [&](unsigned) { return proxy.GetDeviceType() == type; };
    auto prompt_call = [&](unsigned) { return prompt->GetDeviceType() == kPromptType; };
    Totals warm, timed, prompt_timed;
    std::vector<double> ratios;
    bool ok = alternate(rounds, calls, timed, call, prompt_timed, prompt_call, ratios);
    unsigned done = 2 * calls * (rounds + 1);
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
    prompt_service->kill();
    peer::stop_service_manager();
    if (!ok) {
        std::fprintf(stderr, "bench: a call failed or answered wrongly\n");
        return 2;
    }
    std::printf("GetDeviceType on %s: %u rounds x %u calls of each, alternating\n",
                kernel ? "the kernel's driver" : "hmisvc-binderd", rounds, calls);
    print_round_trip("through the simulator", timed, calls);
    print_round_trip("to a service that answers at once", prompt_timed, calls);
    if (!kernel)
        std::printf("  driver RSS: %ld KiB at start, %ld KiB after %u calls, %ld KiB after %u processes\n",
                    rss_start, rss_calls, done, rss_processes, processes);
    return 0;
}
