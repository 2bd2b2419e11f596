// What a stopped service (SIGSTOP'd simulator) costs an application on the
// supervised layer: handles made, called and destroyed while it hangs (the
// threads and descriptors they leave), and many asynchronous calls in
// flight on one handle (how late the latest callback comes after its
// limit).
//
// Needs /dev/binder and no other context manager. Run it through
// hmisvc-run (target bench-supervise-vm).
#include "process.h"

#include <hmisvc/proxies.h>
#include <hmisvc/service.h>

#include <CLI/CLI.hpp>

#include <signal.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <memory>
#include <thread>
#include <vector>

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

struct Count {
    int threads = peer::threads_of();
    int fds = peer::descriptors_of();
    void most(const Count &c) { threads = std::max(threads, c.threads), fds = std::max(fds, c.fds); }
};

double ms(Clock::duration d) { return std::chrono::duration<double, std::milli>(d).count(); }

hmisvc::ServiceOptions limited(std::chrono::milliseconds limit)
{
    hmisvc::ServiceOptions options;
    options.callLimit = limit;
    return options;
}

} // namespace

int main(int argc, char **argv)
{
    CLI::App app{"Supervised handles on a stopped service: threads, descriptors, late callbacks"};
    unsigned handles = 1000, calls = 32000, limit_ms = 1000;
    app.add_option("--handles", handles, "Handles made, called and destroyed")->check(CLI::Range(1u, 100000u));
    app.add_option("--calls", calls, "Asynchronous calls in flight on one handle")->check(CLI::Range(1u, 10000000u));
    app.add_option("--limit-ms", limit_ms, "Time limit of every call")->check(CLI::Range(1u, 600000u));
    CLI11_PARSE(app, argc, argv);
    const std::chrono::milliseconds limit(limit_ms);

    if (!peer::start_service_manager(HMISVC_SERVICEMANAGER)) {
        std::fprintf(stderr, "bench: cannot start the service manager\n");
        return 2;
    }
    auto devsim = peer::start_program({HMISVC_DEVSIM, "--services", "backlight"});
    hmisvc::Service<BacklightManager> warm(limited(limit));
    if (!devsim->ready() || !warm.call(&BacklightManager::GetBrightness).ok()) {
        std::fprintf(stderr, "bench: the simulator's \"backlight\" service is not reachable\n");
        peer::stop_service_manager();
        return 2;
    }
    const Count before;
    if (!peer::stop_process(devsim->pid())) {
        std::fprintf(stderr, "bench: cannot stop the simulator\n");
        return 2;
    }

    // Handles made, each with a call in flight, then destroyed once every
    // call ended (timed out): what they cost while the service still hangs.
    Count peak;
    std::atomic<unsigned> ended{0};
    {
        std::vector<std::unique_ptr<hmisvc::Service<BacklightManager>>> made;
        for (unsigned i = 0; i < handles; ++i) {
            made.push_back(std::make_unique<hmisvc::Service<BacklightManager>>(limited(limit)));
            made.back()->callAsync([&](hmisvc::Result<int>) { ++ended; }, &BacklightManager::GetBrightness);
            if (i % 50 == 0)
                peak.most(Count());
        }
        while (ended < handles) {
            peak.most(Count());
            std::this_thread::sleep_for(10ms);
        }
        peak.most(Count());
    }
    const Count destroyed;

    // Calls in flight on one handle: each callback's lateness past its limit.
    Count async_peak;
    std::vector<Clock::time_point> posted(calls), got(calls);
    std::atomic<unsigned> done{0};
    const auto start = Clock::now();
    for (unsigned i = 0; i < calls; ++i) {
        posted[i] = Clock::now();
        warm.callAsync(
            [&, i](hmisvc::Result<int>) {
                got[i] = Clock::now();
                ++done;
            },
            &BacklightManager::GetBrightness);
    }
    const auto all_posted = Clock::now();
    while (done < calls) {
        async_peak.most(Count());
        std::this_thread::sleep_for(10ms);
    }
    double latest = 0;
    for (unsigned i = 0; i < calls; ++i)
        latest = std::max(latest, ms(got[i] - posted[i] - limit));
    const double last_end = ms(*std::max_element(got.begin(), got.end()) - start);

    kill(devsim->pid(), SIGCONT);
    const bool answers = warm.call(&BacklightManager::GetBrightness).ok();
    devsim.reset();
    peer::stop_service_manager();

    std::printf("stopped service, %u ms limit\n", limit_ms);
    std::printf("  before:                             %5d threads %5d descriptors\n", before.threads, before.fds);
    std::printf("  %5u handles, a call each, at most: %5d threads %5d descriptors\n", handles, peak.threads,
                peak.fds);
    std::printf("  after destroying them:              %5d threads %5d descriptors\n", destroyed.threads,
                destroyed.fds);
    std::printf("  %5u asynchronous calls, at most:   %5d threads %5d descriptors\n", calls, async_peak.threads,
                async_peak.fds);
    std::printf("  posting them took %.1f ms; the last callback came %.1f ms after the first call,\n"
                "  the latest %.1f ms past its limit\n",
                ms(all_posted - start), last_end, latest);
    std::printf("  answers after SIGCONT: %s\n", answers ? "yes" : "no");
    return answers ? 0 : 1;
}
