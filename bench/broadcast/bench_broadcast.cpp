// Broadcast latency from Context::SendBroadcast to onReceive, with 1 and 8
// receivers, and sends per second. The path is the real one: this process
// sends to the simulator's broadcast service, which delivers back to an
// endpoint of this process.
#include "process.h"

#include <hmisvc/binder.h>
#include <hmisvc/broadcast.h>
#include <hmisvc/context.h>

#include <benchmark/benchmark.h>

#include <dirent.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

// Counts deliveries; the waiter learns when the last of n has arrived.
class Counter : public BroadcastReceiver {
public:
    void onReceive(BroadcastService *, std::shared_ptr<Intent>) override
    {
        std::lock_guard<std::mutex> lock(mutex);
        ++received;
        last = Clock::now();
        arrived.notify_all();
    }
    static std::mutex mutex;
    static std::condition_variable arrived;
    static long received;
    static Clock::time_point last;
};
std::mutex Counter::mutex;
std::condition_variable Counter::arrived;
long Counter::received = 0;
Clock::time_point Counter::last;

constexpr int kMaxReceivers = 8;
IntentFilter g_filters[kMaxReceivers];
Counter g_receivers[kMaxReceivers];

// One endpoint per receiver count, each receiver with its own action set.
BroadcastService *g_service = nullptr;

bool endpoint_published()
{
    peer::Connection bs(binder_open(1024));
    DIR *dir = opendir("/proc/self/task");
    bool found = false;
    while (dirent *e = dir ? readdir(dir) : nullptr)
        if (e->d_name[0] != '.' &&
            svcmgr_lookup(bs.get(), SVCMGR_HANDLE, (std::string("BroadCast#") + e->d_name).c_str()))
            found = true;
    if (dir)
        closedir(dir);
    return found;
}

// Waits until `n` more deliveries than `before` have arrived; false after 10 s.
bool wait_for(long before, int n, Clock::time_point &last)
{
    std::unique_lock<std::mutex> lock(Counter::mutex);
    bool ok = Counter::arrived.wait_for(lock, std::chrono::seconds(10),
                                        [&] { return Counter::received >= before + n; });
    last = Counter::last;
    return ok;
}

// Latency to the last of `receivers` onReceive calls; p50 and p99 as counters.
void BM_SendToReceive(benchmark::State &state)
{
    const int receivers = static_cast<int>(state.range(0));
    const std::string action = "bench.latency." + std::to_string(receivers);
    for (int i = 0; i < receivers; ++i)
        g_filters[i].addAction(action);
    Intent intent(action);
    intent.putExtra("seq", 1);
    intent.putExtra("text", "a short string extra");
    std::vector<double> us;
    for (auto _ : state) {
        long before;
        {
            std::lock_guard<std::mutex> lock(Counter::mutex);
            before = Counter::received;
        }
        auto start = Clock::now();
        Context::SendBroadcast(intent);
        Clock::time_point last;
        if (!wait_for(before, receivers, last)) {
            state.SkipWithError("delivery timed out");
            break;
        }
        double seconds = std::chrono::duration<double>(last - start).count();
        state.SetIterationTime(seconds);
        us.push_back(seconds * 1e6);
    }
    if (!us.empty()) {
        std::sort(us.begin(), us.end());
        state.counters["p50_us"] = us[us.size() / 2];
        state.counters["p99_us"] = us[std::min(us.size() - 1, us.size() * 99 / 100)];
    }
}
BENCHMARK(BM_SendToReceive)->Arg(1)->Arg(8)->UseManualTime()->Iterations(2000)->Unit(benchmark::kMicrosecond);

// Sends per second through Context::SendBroadcast (open, map, lookup and
// send each time), to one receiver; deliveries are awaited at the end.
void BM_SendsPerSecond(benchmark::State &state)
{
    const std::string action = "bench.throughput";
    g_filters[0].addAction(action);
    Intent intent(action);
    long before;
    {
        std::lock_guard<std::mutex> lock(Counter::mutex);
        before = Counter::received;
    }
    long sent = 0;
    for (auto _ : state) {
        Context::SendBroadcast(intent);
        ++sent;
    }
    Clock::time_point last;
    if (!wait_for(before, static_cast<int>(sent), last))
        state.SkipWithError("not every send was delivered");
    state.SetItemsProcessed(sent);
}
BENCHMARK(BM_SendsPerSecond)->UseRealTime()->Unit(benchmark::kMicrosecond);

}  // namespace

int main(int argc, char **argv)
{
    benchmark::Initialize(&argc, argv);
    std::unique_ptr<peer::Child> devsim;
    if (!peer::start_service_manager(HMISVC_SERVICEMANAGER)) {
        std::fprintf(stderr, "bench_broadcast: no service manager\n");
        return 1;
    }
    devsim = std::make_unique<peer::Child>([](int ready_fd) {
        dup2(ready_fd, STDOUT_FILENO);
        execl(HMISVC_DEVSIM, HMISVC_DEVSIM, "--services", "broadcast", static_cast<char *>(nullptr));
        return 127;
    });
    if (!devsim->ready()) {
        std::fprintf(stderr, "bench_broadcast: the simulator did not start\n");
        return 1;
    }
    g_service = Context::CreateBroadcastService();
    for (int i = 0; i < kMaxReceivers; ++i)
        g_service->registerReceiver(&g_receivers[i], &g_filters[i]);
    if (!peer::eventually(endpoint_published)) {
        std::fprintf(stderr, "bench_broadcast: the endpoint was not published\n");
        return 1;
    }
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    devsim.reset();
    peer::stop_service_manager();
    // The endpoint thread runs until the process ends.
    std::fflush(stdout);
    _exit(0);
}
