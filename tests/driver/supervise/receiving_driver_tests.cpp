// The supervised receiver on the real driver against the simulator: a
// crash of the broadcast service's process and its restart, as on the
// device; threads and descriptors across restarts
// and many receivers; deliveries that carry no intent or want no reply; a
// stopped broadcast service at destruction; and a burst to a slow handler
// (beside the same burst to a designed-only receiver, run in a child process).
#include "process.h"
#include "self_child.h"
#include "sim_cli.h"

#include <hmisvc/broadcast.h>
#include <hmisvc/context.h>
#include <hmisvc/outcome.h>
#include <hmisvc/proxies.h>
#include <hmisvc/receiving.h>
#include <hmisvc/wait.h>

#include <gtest/gtest.h>

#include <dirent.h>
#include <signal.h>
#include <sys/wait.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <fstream>
#include <mutex>
#include <set>
#include <string>
#include <stdexcept>
#include <thread>
#include <vector>

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using hmisvc::ReceivingState;

// Set in the environment of the child that runs the designed-only burst.
const char *const kDesignedOnlyChild = "HMISVC_DESIGNED_ONLY_BURST";
constexpr int kBurst = 2000;

// The simulator, kept here so that it can be stopped (SIGSTOP) by pid.
std::unique_ptr<peer::Child> g_devsim;

bool start_devsim()
{
    g_devsim = peer::start_program({HMISVC_DEVSIM});
    return g_devsim->ready();
}

class Environment : public ::testing::Environment {
public:
    void SetUp() override
    {
        ASSERT_TRUE(peer::start_service_manager(HMISVC_SERVICEMANAGER));
        ASSERT_TRUE(start_devsim());
    }
    void TearDown() override
    {
        g_devsim.reset();
        peer::stop_service_manager();
    }
};

// What the process holds.
struct Counts {
    int threads;
    int fds;
    // Nothing left behind: a thread still ending when the baseline was
    // taken may be gone by now, so fewer counts as well.
    bool within(const Counts &o) const { return threads <= o.threads && fds <= o.fds; }
};

::testing::AssertionResult nothing_left(const Counts &after, const Counts &before)
{
    if (after.within(before))
        return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "threads " << before.threads << " -> " << after.threads
                                         << ", descriptors " << before.fds << " -> " << after.fds;
}

int fds_of_self()
{
    int n = 0;
    if (DIR *dir = opendir("/proc/self/fd")) {
        while (const dirent *entry = readdir(dir))
            n += entry->d_name[0] != '.';
        closedir(dir);
    }
    return n - 1; // the directory's own
}

Counts counts() { return {peer::threads_of(), fds_of_self()}; }

// The counts once they settle to `expected`, or as they stand when they do
// not (a joined thread leaves the process's count a moment after the join).
Counts settled(const Counts &expected)
{
    Counts now{};
    peer::eventually([&] { return (now = counts()).within(expected); });
    return now;
}

// The kernel thread id of the (one) thread named `comm`, or -1.
long thread_named(const std::string &comm)
{
    long found = -1;
    if (DIR *dir = opendir("/proc/self/task")) {
        while (const dirent *entry = readdir(dir)) {
            std::ifstream file(std::string("/proc/self/task/") + entry->d_name + "/comm");
            std::string name;
            if (std::getline(file, name) && name == comm)
                found = std::atol(entry->d_name);
        }
        closedir(dir);
    }
    return found;
}

// The highest thread count of the process while it lives (sampled every ms).
class ThreadSampler {
public:
    ThreadSampler()
        : thread_([this] {
              while (!stop_) {
                  highest_ = std::max(highest_.load(), peer::threads_of());
                  std::this_thread::sleep_for(1ms);
              }
          })
    {
    }
    ~ThreadSampler() { highest(); }
    int highest()
    {
        highest_ = std::max(highest_.load(), peer::threads_of()); // in case it never ran
        stop_ = true;
        if (thread_.joinable())
            thread_.join();
        return highest_;
    }

private:
    std::atomic<bool> stop_{false};
    std::atomic<int> highest_{0};
    std::thread thread_;
};

// Notes the "seq" extra of each delivery, after sleeping `pause` in it.
class Recorder : public BroadcastReceiver {
public:
    explicit Recorder(std::chrono::milliseconds pause = 0ms) : pause_(pause) {}
    void onReceive(BroadcastService *, std::shared_ptr<Intent> intent) override
    {
        std::this_thread::sleep_for(pause_);
        std::lock_guard<std::mutex> lock(mutex_);
        seqs_.insert(intent->getIntExtra("seq", -1));
        ++calls_;
        changed_.notify_all();
    }
    bool reached(std::size_t n, std::chrono::seconds limit = 20s)
    {
        std::unique_lock<std::mutex> lock(mutex_);
        return changed_.wait_for(lock, limit, [&] { return calls_ >= n; });
    }
    std::size_t calls()
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return calls_;
    }
    bool got(int seq)
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return seqs_.count(seq) != 0;
    }

private:
    const std::chrono::milliseconds pause_;
    std::mutex mutex_;
    std::condition_variable changed_;
    std::set<int> seqs_;
    std::size_t calls_ = 0;
};

// Broadcasts of `action` numbered 0..n-1, through one proxy.
void send(const std::string &action, int n)
{
    auto manager = std::dynamic_pointer_cast<BroadcastManager>(Context::getSystemService(Context::BROADCAST_SERVICE));
    for (int seq = 0; seq < n; ++seq) {
        Intent intent(action);
        intent.putExtra("seq", seq);
        manager->SendBroadcast(intent);
    }
}

class Thrower : public BroadcastReceiver {
public:
    void onReceive(BroadcastService *, std::shared_ptr<Intent>) override { throw std::runtime_error("on purpose"); }
};

// The states reported to onStateChange, in order.
class StateLog {
public:
    void add(ReceivingState state)
    {
        std::lock_guard<std::mutex> lock(mutex_);
        states_.push_back(state);
        changed_.notify_all();
    }
    std::vector<ReceivingState> wait(std::size_t n)
    {
        std::unique_lock<std::mutex> lock(mutex_);
        changed_.wait_for(lock, 60s, [&] { return states_.size() >= n; });
        return states_;
    }

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<ReceivingState> states_;
};

double ms_since(Clock::time_point start)
{
    return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

// The endpoints the broadcast service holds, as the simulator's dump shows
// them (its "broadcast.endpoints").
std::string registered()
{
    std::string dump;
    const std::size_t at = sim("dump", &dump) ? dump.find("\"endpoints\"") : std::string::npos;
    return at == std::string::npos ? "(no endpoints in the dump)" : dump.substr(at, dump.find(']', at) - at);
}

// The broadcast service's process crashes: its registrations are gone with
// it, nothing can be sent until it is back, and the Receiving registers
// again once it is.
TEST(Receiving, ReceivesEverythingSentAfterTheBroadcastServiceCrashed)
{
#ifndef HMISVC_CLI
    GTEST_SKIP() << "needs the hmisvc tool to crash the broadcast service";
#endif
    static Recorder receiver;
    static Thrower thrower; // shares the one handler thread with the recorder
    static IntentFilter filter; // the designed endpoints read it for the process
    filter.addAction("recv.restart");
    StateLog log;
    std::atomic<int> errors{0};
    hmisvc::ReceivingOptions options;
    options.onStateChange = [&log](ReceivingState state) { log.add(state); };
    options.onHandlerError = [&errors](std::exception_ptr) { ++errors; };
    hmisvc::Receiving receiving(options);
    receiving.registerReceiver(&receiver, &filter);
    receiving.registerReceiver(&thrower, &filter);
    ASSERT_TRUE(receiving.start(20s));
    const long tid = thread_named("hmisvc-endpoint");
    ASSERT_GT(tid, 0);
    const std::string endpoint = "BroadCast#" + std::to_string(tid);
    EXPECT_NE(registered().find(endpoint), std::string::npos) << registered();

    ASSERT_TRUE(sim("crash broadcast"));
    ASSERT_EQ(log.wait(3).size(), 3u);
    EXPECT_EQ(receiving.state(), ReceivingState::Down);
    EXPECT_EQ(registered().find(endpoint), std::string::npos) << registered();
    // Sent while it is down: by an application, which finds no broadcast
    // service, and by the simulator, which refuses.
    BroadcastManager down;
    Intent lost("recv.restart");
    lost.putExtra("seq", 100);
    down.SendBroadcast(lost);
    EXPECT_EQ(hmisvc::lastOutcome(), hmisvc::Outcome::NotRegistered);
    std::string refusal;
    EXPECT_FALSE(sim("broadcast recv.restart --int seq=101 2>&1", &refusal));
    EXPECT_NE(refusal.find("broadcast is down (crashed;"), std::string::npos) << refusal;

    const auto restart = Clock::now();
    ASSERT_TRUE(sim("restart broadcast"));
    ASSERT_TRUE(receiving.waitUntilReceiving(60s));
    std::printf("restart to receiving: %.1f ms\n", ms_since(restart));
    EXPECT_NE(registered().find(endpoint), std::string::npos) << registered();

    send("recv.restart", 20);
    EXPECT_TRUE(receiver.reached(20));
    for (int seq = 0; seq < 20; ++seq)
        EXPECT_TRUE(receiver.got(seq)) << seq;
    EXPECT_EQ(receiver.calls(), 20u);
    EXPECT_FALSE(receiver.got(100));
    EXPECT_FALSE(receiver.got(101));
    EXPECT_TRUE(peer::eventually([&] { return receiving.stats().handlerErrors == 20; }));
    EXPECT_EQ(errors, 20);
    EXPECT_EQ(log.wait(4), (std::vector<ReceivingState>{ReceivingState::Starting, ReceivingState::Receiving,
                                                         ReceivingState::Down, ReceivingState::Receiving}));
    EXPECT_EQ(receiving.stats().endpoints, 2u);
}

// A burst to a handler that sleeps 20 ms, through a queue of 32: the thread
// count stays bounded and every delivery is handled or counted as dropped.
class Burst : public ::testing::TestWithParam<hmisvc::Overflow> {};

TEST_P(Burst, ThreadsStayBoundedAndEveryDeliveryIsAccountedFor)
{
    const bool oldest = GetParam() == hmisvc::Overflow::DropOldest;
    const std::string action = oldest ? "recv.burst.oldest" : "recv.burst.newest";
    auto *receiver = new Recorder(20ms); // outlives the Receiving: kept
    auto *filter = new IntentFilter;     // read by the endpoint for the process
    filter->addAction(action);
    hmisvc::ReceivingOptions options;
    options.queueCapacity = 32;
    options.overflow = GetParam();
    hmisvc::Receiving receiving(options);
    receiving.registerReceiver(receiver, filter);
    ASSERT_TRUE(receiving.start(20s));

    ThreadSampler sampler;
    const int running = peer::threads_of(); // the sampler's included
    send(action, kBurst);
    EXPECT_TRUE(peer::eventually(
        [&] {
            const auto s = receiving.stats();
            return s.received == kBurst && s.handled + s.dropped == kBurst;
        },
        12000));
    const int highest = sampler.highest();
    const auto stats = receiving.stats();
    std::printf("burst of %d, %s: at most %d threads (%d running before); %llu handled, %llu dropped\n", kBurst,
                oldest ? "drop oldest" : "drop newest", highest, running, static_cast<unsigned long long>(stats.handled),
                static_cast<unsigned long long>(stats.dropped));
    // Nothing is started for a delivery: not one thread more, however loaded
    // the machine.
    EXPECT_LE(highest, running);
    EXPECT_EQ(stats.received, static_cast<std::uint64_t>(kBurst));
    EXPECT_EQ(stats.handled + stats.dropped, stats.received);
    EXPECT_EQ(stats.handlerErrors, 0u);
    EXPECT_EQ(receiver->calls(), stats.handled);
    // The delivery each policy never drops.
    EXPECT_TRUE(receiver->got(oldest ? kBurst - 1 : 0));
}

INSTANTIATE_TEST_SUITE_P(Overflow, Burst,
                         ::testing::Values(hmisvc::Overflow::DropOldest, hmisvc::Overflow::DropNewest),
                         [](const auto &info) {
                             return info.param == hmisvc::Overflow::DropOldest ? "DropOldest" : "DropNewest";
                         });

// Waits until `receiving` reported the broadcast service down.
bool seen_down(const hmisvc::Receiving &receiving)
{
    return peer::eventually([&] { return receiving.state() == ReceivingState::Down; }, 2000);
}

// What is left after the broadcast service restarted 20 times, and after 100
// receivers were made and destroyed: the same threads and descriptors as
// before; broadcasts to the endpoints gone start nothing.
TEST(ReceivingLifecycle, RestartsAndDestroyedReceiversLeaveNothingBehind)
{
#ifndef HMISVC_CLI
    GTEST_SKIP() << "needs the hmisvc tool to crash the broadcast service";
#endif
    Recorder receiver;
    IntentFilter filter; // only the Receiving reads it
    filter.addAction("recv.lifecycle");
    {
        hmisvc::Receiving receiving;
        receiving.registerReceiver(&receiver, &filter);
        ASSERT_TRUE(receiving.start(20s));
        const Counts before = counts();
        for (int i = 0; i < 20; ++i) {
            ASSERT_TRUE(sim("crash broadcast")) << i;
            ASSERT_TRUE(seen_down(receiving)) << i;
            ASSERT_TRUE(sim("restart broadcast")) << i;
            ASSERT_TRUE(receiving.waitUntilReceiving(60s)) << i;
        }
        const Counts after = settled(before);
        std::printf("20 restarts of the broadcast service: threads %d -> %d, descriptors %d -> %d, "
                    "%u registrations\n",
                    before.threads, after.threads, before.fds, after.fds, receiving.stats().endpoints);
        EXPECT_TRUE(nothing_left(after, before));
        EXPECT_GE(receiving.stats().endpoints, 21u);
        send("recv.lifecycle", 5);
        EXPECT_TRUE(receiver.reached(5));
    }

    const Counts before = counts();
    for (int i = 0; i < 100; ++i) {
        hmisvc::Receiving receiving;
        receiving.registerReceiver(&receiver, &filter);
        ASSERT_TRUE(receiving.start(20s)) << i;
    }
    const Counts after = settled(before);
    std::printf("100 receivers made and destroyed: threads %d -> %d, descriptors %d -> %d\n", before.threads,
                after.threads, before.fds, after.fds);
    EXPECT_TRUE(nothing_left(after, before));

    // A live witness tells when the broadcasts have gone through.
    Recorder witness;
    hmisvc::Receiving live;
    live.registerReceiver(&witness, &filter);
    ASSERT_TRUE(live.start(20s));
    ThreadSampler sampler;
    const int running = peer::threads_of();
    send("recv.lifecycle", 5);
    EXPECT_TRUE(witness.reached(5));
    const int highest = sampler.highest();
    std::printf("5 broadcasts after 100 receivers were destroyed: at most %d threads (%d running before)\n",
                highest, running);
    EXPECT_LE(highest, running);
}

// A request to the endpoint after the header word: `body` as it stands.
struct Direct {
    const char *what;
    std::uint32_t code;
    std::string body;
    bool one_way;
    bool delivers;
};

std::string word(std::uint32_t w) { return std::string(reinterpret_cast<const char *>(&w), sizeof w); }
std::string u64(std::uint64_t n) { return std::string(reinterpret_cast<const char *>(&n), sizeof n); }

// A length-prefixed block, padded, as the broadcast service sends an intent.
std::string block(const std::string &bytes)
{
    std::string out = word(static_cast<std::uint32_t>(bytes.size())) + bytes;
    out.resize((out.size() + 3) / 4 * 4, '\0');
    return out;
}

// Sends one request straight to the endpoint named `name`; whether a
// two-way one was answered with an empty success reply (one-way: sent).
bool send_direct(binder_connection *bs, std::uint32_t handle, const Direct &d)
{
    alignas(8) unsigned char area[1024];
    binder_io msg, reply;
    bio_init(&msg, area, sizeof area, 4);
    bio_put_uint32(&msg, 0);
    for (std::size_t i = 0; i < d.body.size(); i += 4) {
        std::uint32_t w = 0;
        std::memcpy(&w, d.body.data() + i, std::min<std::size_t>(4, d.body.size() - i));
        bio_put_uint32(&msg, w);
    }
    if (!d.one_way) {
        if (binder_call(bs, &msg, &reply, handle, d.code) != 0)
            return false;
        const bool empty = reply.data_left == 0 && !(reply.flags & BIO_FLAG_OVERFLOW);
        binder_done(bs, &msg, &reply);
        return empty;
    }
    binder_transaction_data txn{};
    txn.target.handle = handle;
    txn.code = d.code;
    txn.flags = TF_ONE_WAY;
    txn.data_size = static_cast<binder_size_t>(msg.cursor - msg.data_start);
    txn.data.ptr.buffer = static_cast<binder_uintptr_t>(reinterpret_cast<uintptr_t>(msg.data_start));
    txn.data.ptr.offsets = static_cast<binder_uintptr_t>(reinterpret_cast<uintptr_t>(msg.offsets_start));
    unsigned char cmd[sizeof(std::uint32_t) + sizeof txn];
    const std::uint32_t transaction = BC_TRANSACTION;
    std::memcpy(cmd, &transaction, sizeof transaction);
    std::memcpy(cmd + sizeof transaction, &txn, sizeof txn);
    return binder_write(bs, cmd, sizeof cmd) == 0;
}

TEST(ReceivingEndpoint, MalformedAndOneWayDeliveriesAreCountedAndTheProcessLives)
{
    Recorder receiver;
    IntentFilter filter;
    filter.addAction("recv.direct");
    hmisvc::Receiving receiving;
    receiving.registerReceiver(&receiver, &filter);
    ASSERT_TRUE(receiving.start(20s));
    const long tid = thread_named("hmisvc-endpoint");
    ASSERT_GT(tid, 0);
    const std::string name = "BroadCast#" + std::to_string(tid);
    peer::Connection bs(binder_open(4096));
    ASSERT_TRUE(bs);
    const std::uint32_t handle = svcmgr_lookup(bs.get(), SVCMGR_HANDLE, name.c_str());
    ASSERT_NE(handle, 0u) << name;

    Intent intent("recv.direct");
    intent.putExtra("seq", 7);
    const std::string valid = intent.toString();
    const std::string huge = u64(0x7fffffffffffffffu) + "x";  // a forged action length
    const std::string many = u64(1) + "a" + u64(1ull << 40); // as many integer extras
    const std::vector<Direct> cases = {
        {"another code", 0, block(valid), false, false},
        {"code 2", 2, block(valid), false, false},
        {"header only", 1, "", false, false},
        {"a length past the data", 1, word(1000) + "abcd", false, false},
        {"a short intent", 1, block(valid.substr(0, 7)), false, false},
        {"a forged string length", 1, block(huge), false, false},
        {"a forged extras count", 1, block(many), false, false},
        {"a null block", 1, word(0xffffffffu), false, false},
        {"one-way garbage", 1, block("xyz"), true, false},
        {"a one-way intent", 1, block(valid), true, true},
        {"an intent", 1, block(valid), false, true},
    };
    std::uint64_t malformed = 0, one_way = 0;
    std::size_t delivered = 0;
    for (const Direct &d : cases) {
        SCOPED_TRACE(d.what);
        EXPECT_TRUE(send_direct(bs.get(), handle, d));
        malformed += !d.delivers;
        one_way += d.one_way;
        delivered += d.delivers;
        EXPECT_TRUE(peer::eventually([&] {
            const auto s = receiving.stats();
            return s.malformed == malformed && s.oneWay == one_way && receiver.calls() == delivered;
        }));
    }
    EXPECT_TRUE(receiver.got(7));
    EXPECT_EQ(receiving.state(), ReceivingState::Receiving);
    send("recv.direct", 1); // still served through the broadcast service
    EXPECT_TRUE(receiver.reached(delivered + 1));
    binder_release(bs.get(), handle);
}

// Destroyed while the simulator is stopped: with the endpoint serving, and
// with its registration call waiting for the stopped broadcast service.
TEST(ReceivingEndpoint, DestructionWithAStoppedBroadcastServiceIsBounded)
{
    Recorder receiver;
    IntentFilter filter;
    filter.addAction("recv.stopped");
    for (const bool receiving_first : {true, false}) {
        SCOPED_TRACE(receiving_first ? "receiving" : "registering");
        const Counts before = counts();
        auto receiving = std::make_unique<hmisvc::Receiving>();
        receiving->registerReceiver(&receiver, &filter);
        if (receiving_first) {
            ASSERT_TRUE(receiving->start(20s));
        }
        ASSERT_TRUE(peer::stop_process(g_devsim->pid()));
        if (!receiving_first) {
            EXPECT_FALSE(receiving->start(300ms));
        }
        const auto start = Clock::now();
        receiving.reset();
        const double ms = ms_since(start);
        ASSERT_EQ(kill(g_devsim->pid(), SIGCONT), 0);
        std::printf("destroyed with the broadcast service stopped (%s): %.1f ms\n",
                    receiving_first ? "receiving" : "registering", ms);
        EXPECT_LT(ms, 3000.0);
        EXPECT_TRUE(nothing_left(settled(before), before));
    }
}

// The same burst to a designed-only receiver that takes 10 s, in a child of
// its own (so that the dispatch threads pile up also where deliveries come
// slowly, as in an emulated guest): its fate depends on the architecture
// (32-bit ARM runs out of address space for the threads' stacks), so it is
// printed, not asserted. A measurement of minutes under load, so only where
// HMISVC_MEASURE_DESIGNED_BURST is set.
TEST(DesignedOnly, BurstToASlowReceiverFateIsPrinted)
{
    if (!std::getenv("HMISVC_MEASURE_DESIGNED_BURST"))
        GTEST_SKIP() << "a measurement: set HMISVC_MEASURE_DESIGNED_BURST to run it";
    const pid_t pid = spawn_self(kDesignedOnlyChild);
    ASSERT_GT(pid, 0);
    int status = 0;
    int highest = 0;
    const auto start = Clock::now();
    while (waitpid(pid, &status, WNOHANG) == 0) {
        if (Clock::now() - start > 300s) {
            kill(pid, SIGKILL);
            waitpid(pid, &status, 0);
            std::printf("designed-only burst: still running after 300 s, killed\n");
            return;
        }
        highest = std::max(highest, peer::threads_of(std::to_string(pid)));
        std::this_thread::sleep_for(1ms);
    }
    if (WIFSIGNALED(status))
        std::printf("designed-only burst: the child ended by signal %d (%s), at most %d threads seen\n",
                    WTERMSIG(status), strsignal(WTERMSIG(status)), highest);
    else
        std::printf("designed-only burst: the child exited with status %d, at most %d threads seen\n",
                    WEXITSTATUS(status), highest);
}

// The child: a designed endpoint, a receiver that sleeps 10 s, the burst.
int designed_only_burst()
{
    static Recorder receiver(10s);
    static IntentFilter filter;
    filter.addAction("recv.designed");
    BroadcastService *service = Context::CreateBroadcastService();
    service->registerReceiver(&receiver, &filter);
    if (!hmisvc::waitForReceiving(service, 20s)) {
        std::printf("designed-only burst: the endpoint did not receive\n");
        return 1;
    }
    send("recv.designed", kBurst);
    receiver.reached(kBurst, 200s);
    std::printf("designed-only burst: survived, %zu of %d handled\n", receiver.calls(), kBurst);
    std::fflush(stdout);
    return 0;
}

} // namespace

int main(int argc, char **argv)
{
    if (std::getenv(kDesignedOnlyChild) != nullptr)
        return designed_only_burst();
    ::testing::InitGoogleTest(&argc, argv);
    ::testing::AddGlobalTestEnvironment(new Environment);
    return RUN_ALL_TESTS();
}
