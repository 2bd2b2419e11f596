// IntentFilter matching and printing, and BroadcastService dispatch: one
// thread per matching receiver, all sharing the one intent.
#include "../../common/meeting.h"
#include <hmisvc/broadcast.h>

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace {

using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

struct Case {
    std::vector<std::string> actions;
    std::string probe;
    bool matches;
};

TEST(IntentFilter, MatchesExactActionsOnly)
{
    const Case cases[] = {
        {{}, "", false},
        {{}, "a", false},
        {{"sys.input.keyboard"}, "sys.input.keyboard", true},
        {{"sys.input.keyboard"}, "SYS.INPUT.KEYBOARD", false},
        {{"sys.input.keyboard"}, "sys.input", false},
        {{"sys.input.keyboard"}, "sys.input.keyboard.x", false},
        {{"a", "b", "c"}, "c", true},
        {{""}, "", true},
    };
    for (const Case &c : cases) {
        IntentFilter f;
        for (const auto &a : c.actions)
            f.addAction(a);
        EXPECT_EQ(f.matchAction(c.probe), c.matches) << "probe \"" << c.probe << "\"";
    }
}

TEST(IntentFilter, PrintsEachActionOnceInAscendingOrder)
{
    IntentFilter f;
    for (const char *a : {"b.two", "a.one", "b.two", "C.upper"})
        f.addAction(a);
    CaptureStdout();
    f.printActions();
    EXPECT_EQ(GetCapturedStdout(), "C.upper\na.one\nb.two\n");

    IntentFilter empty;
    CaptureStdout();
    empty.printActions();
    EXPECT_EQ(GetCapturedStdout(), "");
}


// Records each call: the thread it ran on and the intent it got.
class Recorder : public BroadcastReceiver {
public:
    void onReceive(BroadcastService *service, std::shared_ptr<Intent> intent) override
    {
        bool met = meeting ? meeting->attend() : false;
        std::lock_guard<std::mutex> lock(mutex_);
        calls.push_back({service, intent, std::this_thread::get_id(), met});
        changed_.notify_all();
    }
    // Waits (generously) until `n` calls have arrived.
    bool wait_for(std::size_t n)
    {
        std::unique_lock<std::mutex> lock(mutex_);
        return changed_.wait_for(lock, std::chrono::seconds(10), [&] { return calls.size() >= n; });
    }
    std::size_t count()
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return calls.size();
    }

    struct Call {
        BroadcastService *service;
        std::shared_ptr<Intent> intent;
        std::thread::id thread;
        bool met;
    };
    std::vector<Call> calls;
    Meeting *meeting = nullptr;

private:
    std::mutex mutex_;
    std::condition_variable changed_;
};

TEST(BroadcastService, NoReceiversDoesNothing)
{
    BroadcastService service;
    auto intent = std::make_shared<Intent>("x");
    service.runBroadcast(intent);
    EXPECT_EQ(intent.use_count(), 1);  // no thread holds it
}

TEST(BroadcastService, EveryMatchingReceiverGetsTheSameIntentOnItsOwnThread)
{
    BroadcastService service;
    Recorder a, b, other;
    Meeting meeting(2);
    a.meeting = b.meeting = &meeting;
    IntentFilter keyboard, udisk;
    keyboard.addAction(Intent::ACTION_KEYBOARD);
    udisk.addAction(Intent::ACTION_UDISK);
    service.registerReceiver(&a, &keyboard);
    service.registerReceiver(&b, &keyboard);
    service.registerReceiver(&other, &udisk);

    auto intent = std::make_shared<Intent>(Intent::ACTION_KEYBOARD);
    service.runBroadcast(intent);
    ASSERT_TRUE(a.wait_for(1));
    ASSERT_TRUE(b.wait_for(1));
    // A later broadcast that `other` does match, to know the first one has
    // been fully dispatched before counting it.
    service.runBroadcast(std::make_shared<Intent>(Intent::ACTION_UDISK));
    ASSERT_TRUE(other.wait_for(1));
    EXPECT_EQ(other.calls[0].intent->getAction(), Intent::ACTION_UDISK);

    EXPECT_EQ(a.count(), 1u);
    EXPECT_EQ(b.count(), 1u);
    EXPECT_EQ(a.calls[0].intent.get(), intent.get());
    EXPECT_EQ(b.calls[0].intent.get(), intent.get());
    EXPECT_EQ(a.calls[0].service, &service);
    // Both were inside onReceive at once, neither on the dispatching thread.
    EXPECT_TRUE(a.calls[0].met);
    EXPECT_TRUE(b.calls[0].met);
    EXPECT_NE(a.calls[0].thread, std::this_thread::get_id());
}

TEST(BroadcastService, SecondRegistrationKeepsTheFirstFilter)
{
    BroadcastService service;
    Recorder r, probe;
    IntentFilter first, second, both;
    first.addAction("first");
    second.addAction("second");
    both.addAction("first");
    both.addAction("second");
    service.registerReceiver(&r, &first);
    service.registerReceiver(&r, &second);
    service.registerReceiver(&probe, &both);
    EXPECT_EQ(service.receivers.size(), 2u);

    service.runBroadcast(std::make_shared<Intent>("second"));
    service.runBroadcast(std::make_shared<Intent>("first"));
    ASSERT_TRUE(probe.wait_for(2));
    ASSERT_TRUE(r.wait_for(1));
    // `probe` saw both, so both dispatches are done: r got only "first".
    EXPECT_EQ(r.count(), 1u);
    EXPECT_EQ(r.calls[0].intent->getAction(), "first");
}

TEST(BroadcastService, ActionAddedAfterRegistrationCounts)
{
    BroadcastService service;
    Recorder r;
    IntentFilter f;
    service.registerReceiver(&r, &f);
    f.addAction("late");
    service.runBroadcast(std::make_shared<Intent>("late"));
    ASSERT_TRUE(r.wait_for(1));
    EXPECT_EQ(r.calls[0].intent->getAction(), "late");
}

}  // namespace
