// Supervised service handles on the real driver: a service's process
// crashed and started again, a service stopped in the middle of calls, and the outcome
// of each kind of failed call (no driver at all in a child of its own).
#include "process.h"
#include "self_child.h"
#include "sim_cli.h"

#include <hmisvc/outcome.h>
#include <hmisvc/proxies.h>
#include <hmisvc/records.h>
#include <hmisvc/service.h>

#include <gtest/gtest.h>

#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/wait.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using hmisvc::Outcome;
using hmisvc::ServiceState;

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

double ms_since(Clock::time_point start)
{
    return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

// Counts the state changes a handle reports.
struct Changes {
    std::atomic<int> up{0}, down{0}, first_up{0}, recovered{0};
    hmisvc::ServiceOptions options(std::chrono::milliseconds call_limit)
    {
        hmisvc::ServiceOptions o;
        o.lookupLimit = 50ms;
        o.callLimit = call_limit;
        o.onStateChange = [this](hmisvc::ServiceChange c) {
            ++(c == ServiceState::Up ? up : down);
            first_up += c.firstUp();
            recovered += c.recovered();
        };
        return o;
    }
};

TEST(SupervisedService, CallsInALoopSurviveACrashOfTheService)
{
#ifndef HMISVC_CLI
    GTEST_SKIP() << "needs the hmisvc tool to crash a service";
#endif
    constexpr auto kLimit = 2000ms;
    Changes changes;
    hmisvc::Service<BacklightManager> backlight(changes.options(kLimit));
    ASSERT_TRUE(backlight.call(&BacklightManager::GetBrightness).ok());

    struct Call {
        Clock::time_point at;
        double ms;
        Outcome outcome;
    };
    std::vector<Call> calls;
    std::atomic<bool> stop{false};
    std::thread caller([&] {
        while (!stop) {
            const auto start = Clock::now();
            const auto r = backlight.call(&BacklightManager::GetBrightness);
            calls.push_back({start, ms_since(start), r.outcome()});
            std::this_thread::sleep_for(2ms);
        }
    });
    std::this_thread::sleep_for(300ms);
    ASSERT_TRUE(sim("crash backlight")); // its process killed (SIGKILL)
    ASSERT_TRUE(peer::eventually([&] { return changes.down == 1; }));
    std::this_thread::sleep_for(300ms);
    ASSERT_TRUE(sim("restart backlight"));
    const auto restarted = Clock::now();
    ASSERT_TRUE(peer::eventually([&] { return backlight.state() == ServiceState::Up; }));
    std::this_thread::sleep_for(300ms);
    stop = true;
    caller.join();

    // After the first success past the restart, every call succeeds.
    auto first = std::find_if(calls.begin(), calls.end(),
                              [&](const Call &c) { return c.at >= restarted && c.outcome == Outcome::Ok; });
    ASSERT_NE(first, calls.end());
    EXPECT_TRUE(std::all_of(first, calls.end(), [](const Call &c) { return c.outcome == Outcome::Ok; }));
    const double slowest = std::max_element(calls.begin(), calls.end(), [](auto &a, auto &b) {
                               return a.ms < b.ms;
                           })->ms;
    EXPECT_LT(slowest, (std::chrono::duration<double, std::milli>(kLimit).count() + 5000)); // a loaded host's margin
    // Down at the death, up again after the restart. The slow ARM guest once
    // reported one more down/up pair while every call answered (a late
    // notice of the old registration's death): the reports must still pair
    // up and end up, with one first answer.
    EXPECT_GE(changes.down, 1);
    EXPECT_EQ(changes.up, changes.down + 1); // the first call, and after each down
    EXPECT_EQ(changes.first_up, 1);
    EXPECT_EQ(changes.recovered, changes.down.load());
    EXPECT_EQ(backlight.state(), ServiceState::Up);
    std::printf("restart to working: %.1f ms (service published again to the first answered call); "
                "%zu calls, slowest %.1f ms\n",
                std::chrono::duration<double, std::milli>(first->at - restarted).count() + first->ms, calls.size(),
                slowest);
}

TEST(SupervisedService, AStoppedServiceTimesOutWithBoundedThreads)
{
    constexpr auto kLimit = 200ms;
    Changes changes;
    hmisvc::Service<BacklightManager> backlight(changes.options(kLimit));
    ASSERT_TRUE(backlight.call(&BacklightManager::GetBrightness).ok());
    const int before = peer::threads_of();

    ASSERT_TRUE(peer::stop_process(g_devsim->pid()));
    double slowest = 0;
    int timed_out = 0, most_threads = before;
    for (int i = 0; i < 100; ++i) {
        const auto start = Clock::now();
        const auto r = backlight.call(&BacklightManager::GetBrightness);
        slowest = std::max(slowest, ms_since(start));
        timed_out += r.outcome() == Outcome::TimedOut;
        most_threads = std::max(most_threads, peer::threads_of());
    }
    ASSERT_EQ(kill(g_devsim->pid(), SIGCONT), 0);

    EXPECT_EQ(timed_out, 100);
    EXPECT_EQ(hmisvc::lastOutcome(), Outcome::TimedOut);
    // Each call comes back after its limit, not when the service goes on;
    // the margin is for a guest whose CPU a loaded host withholds.
    EXPECT_LT(slowest, 200.0 + 5000.0);
    EXPECT_LE(most_threads - before, 1); // the one worker; nothing per call
    EXPECT_TRUE(peer::eventually([&] { return backlight.call(&BacklightManager::GetBrightness).ok(); }));
    EXPECT_EQ(changes.down, 0); // stopped is not dead
    std::printf("100 calls to a stopped service, 200 ms limit: slowest %.1f ms, threads %d -> at most %d\n",
                slowest, before, most_threads);
}

// Asynchronous calls to a stopped service: each returns at once, each
// callback gets TimedOut once the limit passed, the future too; nothing adds
// a thread per call; after SIGCONT the answers come back.
TEST(SupervisedService, AsynchronousCallsToAStoppedServiceNeverBlockTheCaller)
{
    constexpr auto kLimit = 200ms;
    Changes changes;
    hmisvc::Service<BacklightManager> backlight(changes.options(kLimit));
    ASSERT_TRUE(backlight.callAsync(&BacklightManager::GetBrightness).get().ok());
    backlight.call(&BacklightManager::GetBrightness); // the worker and timer threads started
    const int before = peer::threads_of();

    ASSERT_TRUE(peer::stop_process(g_devsim->pid()));
    constexpr int kCalls = 50;
    std::atomic<int> ended{0}, timed_out{0};
    double slowest_return = 0;
    for (int i = 0; i < kCalls; ++i) {
        const auto start = Clock::now();
        backlight.callAsync(
            [&](hmisvc::Result<bool> r) {
                timed_out += r.outcome() == Outcome::TimedOut;
                ++ended;
            },
            &BacklightManager::SetBrightness, i);
        slowest_return = std::max(slowest_return, ms_since(start));
    }
    auto future = backlight.callAsync(&BacklightManager::GetBrightness);
    EXPECT_TRUE(peer::eventually([&] { return ended == kCalls; }, 3000));
    EXPECT_EQ(timed_out, kCalls);
    EXPECT_EQ(future.get().outcome(), Outcome::TimedOut);
    const int threads = peer::threads_of();
    ASSERT_EQ(kill(g_devsim->pid(), SIGCONT), 0);
    EXPECT_LE(threads, before + 1); // the lane's second thread; nothing per call

    // The answer comes back through the callback, out-parameters with it.
    hmisvc::Service<WifiManager> wifi(changes.options(kLimit));
    WifiInfo info;
    std::promise<std::string> got;
    wifi.callAsync([&](hmisvc::Result<bool> r, WifiInfo &filled) { got.set_value(r.ok() ? filled.text1 : "failed"); },
                   &WifiManager::GetWifiinfo, info);
    EXPECT_NE(got.get_future().get(), "failed");
    EXPECT_TRUE(peer::eventually([&] { return backlight.callAsync(&BacklightManager::GetBrightness).get().ok(); }));
    std::printf("%d asynchronous calls to a stopped service, 200 ms limit: slowest return %.3f ms, threads %d\n",
                kCalls, slowest_return, threads);
}

// A handle destroyed with calls in flight: no callback afterwards; a
// future still ends.
TEST(SupervisedService, NoCallbackAfterTheHandleIsDestroyed)
{
    std::atomic<int> after{0};
    std::atomic<bool> destroyed{false};
    auto held = std::make_shared<int>(0); // by every callback until its job is gone
    std::future<hmisvc::Result<int>> future;
    ASSERT_TRUE(peer::stop_process(g_devsim->pid()));
    {
        hmisvc::ServiceOptions options;
        options.callLimit = 5000ms;
        hmisvc::Service<BacklightManager> backlight(options);
        for (int i = 0; i < 20; ++i)
            backlight.callAsync([&, held](hmisvc::Result<int>) { after += destroyed.load(); },
                                &BacklightManager::GetBrightness);
        future = backlight.callAsync(&BacklightManager::GetBrightness);
    }
    destroyed = true;
    ASSERT_EQ(kill(g_devsim->pid(), SIGCONT), 0);
    EXPECT_EQ(future.get().outcome(), Outcome::TimedOut);
    EXPECT_TRUE(peer::eventually([&] { return held.use_count() == 1; })); // the stuck call ended too
    EXPECT_EQ(after, 0);
}

// Handles made, called and destroyed while their service hangs: what is
// left is the name's lane (at most 2 threads stuck in calls, each holding
// its handle's connection) and the timer thread, however many there were;
// the rest goes with each handle, before the service goes on.
TEST(SupervisedService, HandlesDestroyedOnAStoppedServiceLeaveOnlyTheLane)
{
    constexpr int kLane = 2, kHandles = 300;
    hmisvc::ServiceOptions options;
    options.callLimit = 300ms;
    hmisvc::Service<DateManager> warm(options); // a name no other test's calls hold threads on
    ASSERT_TRUE(warm.call(&DateManager::Modifiable).ok());
    const int threads = peer::threads_of(), fds = peer::descriptors_of();

    ASSERT_TRUE(peer::stop_process(g_devsim->pid()));
    int most_threads = threads, most_fds = fds;
    for (int round = 0; round < 3; ++round) {
        std::atomic<int> ended{0};
        {
            std::vector<std::unique_ptr<hmisvc::Service<DateManager>>> handles;
            for (int i = 0; i < kHandles / 3; ++i) {
                handles.push_back(std::make_unique<hmisvc::Service<DateManager>>(options));
                handles.back()->callAsync([&](hmisvc::Result<bool>) { ++ended; }, &DateManager::Modifiable);
                if (i % 10 == 9) // some called synchronously as well
                    handles.back()->call(&DateManager::Modifiable);
            }
            EXPECT_TRUE(peer::eventually([&] { return ended == kHandles / 3; }, 6000));
            most_threads = std::max(most_threads, peer::threads_of());
            most_fds = std::max(most_fds, peer::descriptors_of());
        }
        most_threads = std::max(most_threads, peer::threads_of());
        most_fds = std::max(most_fds, peer::descriptors_of());
    }
    const int threads_after = peer::threads_of(), fds_after = peer::descriptors_of();
    // Another name's calls are not held up by the stuck lane: this one is
    // looked up (and found missing) on a lane of its own.
    hmisvc::ServiceOptions once;
    once.lookupLimit = 0ms;
    hmisvc::Service<SystemManager> other("supervise.unknown", once);
    EXPECT_EQ(other.callWithin(60s, &SystemManager::GetHmiName).outcome(), Outcome::NotRegistered);
    ASSERT_EQ(kill(g_devsim->pid(), SIGCONT), 0);
    EXPECT_LE(most_threads - threads, kLane + 1); // the lane's threads and the timer
    // The connections of the calls stuck on them; on the userspace driver
    // each of the lane's threads may hold a socket on each.
    EXPECT_LE(most_fds - fds, std::getenv("HMISVC_BINDER_SOCKET") ? 2 * kLane : kLane);
    EXPECT_TRUE(peer::eventually([&] { return warm.call(&DateManager::Modifiable).ok(); }));
    std::printf("%d handles called and destroyed on a stopped service: threads %d -> at most %d, %d after; "
                "descriptors %d -> at most %d, %d after\n",
                kHandles, threads, most_threads, threads_after, fds, most_fds, fds_after);
}

// Each kind of failure on a real call, through a plain proxy (the thread's
// last outcome) and through a handle (the result).
TEST(Outcomes, EachKindOfFailureOnARealCall)
{
#ifndef HMISVC_CLI
    GTEST_SKIP() << "needs the hmisvc tool to inject failures";
#endif
    SystemManager plain;
    hmisvc::Service<SystemManager> system;
    hmisvc::ServiceOptions none;
    none.lookupLimit = 0ms;
    hmisvc::Service<SystemManager> unknown("supervise.unknown", none);

    EXPECT_FALSE(plain.GetHmiName().empty());
    EXPECT_EQ(hmisvc::lastOutcome(), Outcome::Ok);
    EXPECT_TRUE(system.call(&SystemManager::GetHmiName).ok());

    const auto r = unknown.call(&SystemManager::GetHmiName);
    EXPECT_EQ(r.outcome(), Outcome::NotRegistered);
    EXPECT_THROW(r.value(), hmisvc::CallError);

    // A limit shorter than the lookup's (1 s by default): the name was not
    // registered within the call's time.
    hmisvc::ServiceOptions limited;
    limited.callLimit = 500ms;
    hmisvc::Service<SystemManager> unknown_limited("supervise.unknown", limited);
    const auto start = Clock::now();
    EXPECT_EQ(unknown_limited.call(&SystemManager::GetHmiName).outcome(), Outcome::NotRegistered);
    EXPECT_EQ(hmisvc::lastOutcome(), Outcome::NotRegistered);
    std::printf("unregistered name, 500 ms call limit, 1 s lookup limit: not registered after %.1f ms\n",
                ms_since(start));

    struct Case {
        const char *fault;
        Outcome expected;
    };
    for (const Case &c : {Case{"--calls 2", Outcome::TransactionFailed},
                          // A status reply holds no string.
                          Case{"--calls 2 --status 7", Outcome::ReplyUndecodable}}) {
        SCOPED_TRACE(c.fault);
        ASSERT_TRUE(sim(std::string("fail system ") + c.fault));
        try {
            plain.GetHmiName();
        } catch (const std::exception &) { // a reply without its string
        }
        EXPECT_EQ(hmisvc::lastOutcome(), c.expected);
        EXPECT_EQ(system.call(&SystemManager::GetHmiName).outcome(), c.expected);
        ASSERT_TRUE(sim("heal system"));
    }

    // A designed proxy whose service crashed, and one built after (the
    // name is dropped by the time `sim crash` returns).
    ASSERT_TRUE(sim("crash system"));
    plain.GetDeviceType();
    EXPECT_EQ(hmisvc::lastOutcome(), Outcome::TransactionFailed);
    SystemManager missing;
    missing.GetDeviceType();
    EXPECT_EQ(hmisvc::lastOutcome(), Outcome::NotRegistered);
    ASSERT_TRUE(sim("restart system"));
}

// Set in the environment of the child that runs without a driver.
const char *const kNoDriverChild = "HMISVC_NO_DRIVER_CHILD";
constexpr int kCannotHideTheDriver = 77;

// The child: /dev hidden under an empty tmpfs in a mount namespace of its
// own, so that this process alone finds no driver.
int no_driver_child()
{
    if (unshare(CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        mount("none", "/dev", "tmpfs", 0, "size=16k") != 0) {
        std::perror("hiding /dev");
        return kCannotHideTheDriver;
    }
    // A userspace driver's socket, where one is named, is hidden likewise.
    if (std::getenv("HMISVC_BINDER_SOCKET"))
        setenv("HMISVC_BINDER_SOCKET", "/dev/binder-socket", 1);
    int wrong = 0;
    for (const auto limit : {0ms, 500ms}) {
        hmisvc::ServiceOptions options;
        options.callLimit = limit;
        hmisvc::Service<SystemManager> system(options);
        const auto start = Clock::now();
        const Outcome outcome = system.call(&SystemManager::GetHmiName).outcome();
        std::printf("no driver, call limit %lld ms: \"%s\" after %.1f ms\n", static_cast<long long>(limit.count()),
                    hmisvc::outcomeName(outcome), ms_since(start));
        wrong += outcome != Outcome::NoDriver || hmisvc::lastOutcome() != Outcome::NoDriver ||
                 system.state() != ServiceState::Down;
    }
    std::fflush(stdout);
    return wrong;
}

TEST(Outcomes, NoDriverInAProcessThatCannotOpenIt)
{
    const pid_t pid = spawn_self(kNoDriverChild);
    ASSERT_GT(pid, 0);
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    ASSERT_TRUE(WIFEXITED(status));
    if (WEXITSTATUS(status) == kCannotHideTheDriver)
        GTEST_SKIP() << "no mount namespace here to hide the driver in";
    EXPECT_EQ(WEXITSTATUS(status), 0) << "calls that did not say NoDriver";
}

// One service's process crashes, as on the device: its handle goes down and
// comes back, another service's handle never goes down.
TEST(SupervisedService, OneServiceCrashesTheOthersStayUp)
{
#ifndef HMISVC_CLI
    GTEST_SKIP() << "needs the hmisvc tool to crash a service";
#endif
    Changes backlight_changes, system_changes;
    hmisvc::Service<BacklightManager> backlight(backlight_changes.options(2000ms));
    hmisvc::Service<SystemManager> system(system_changes.options(2000ms));
    ASSERT_TRUE(backlight.call(&BacklightManager::GetBrightness).ok());
    ASSERT_TRUE(system.call(&SystemManager::GetHmiName).ok());

    ASSERT_TRUE(sim("crash backlight"));
    // Down through the driver's death notification, with no call made.
    ASSERT_TRUE(peer::eventually([&] { return backlight_changes.down == 1; }));
    EXPECT_FALSE(backlight.call(&BacklightManager::GetBrightness).ok());
    EXPECT_TRUE(system.call(&SystemManager::GetHmiName).ok());

    ASSERT_TRUE(sim("restart backlight"));
    EXPECT_TRUE(backlight.call(&BacklightManager::GetBrightness).ok());
    EXPECT_EQ(backlight_changes.recovered, 1);
    EXPECT_EQ(system_changes.down, 0);
}

} // namespace

int main(int argc, char **argv)
{
    if (std::getenv(kNoDriverChild) != nullptr)
        return no_driver_child();
    ::testing::InitGoogleTest(&argc, argv);
    ::testing::AddGlobalTestEnvironment(new Environment);
    return RUN_ALL_TESTS();
}
