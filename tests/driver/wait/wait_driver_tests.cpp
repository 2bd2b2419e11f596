// The waiting helpers, and the Qt example, on the real driver against the
// simulator.
#include "process.h"

#include <hmisvc/binder.h>
#include <hmisvc/broadcast.h>
#include <hmisvc/context.h>
#include <hmisvc/proxies.h>
#include <hmisvc/records.h>
#include <hmisvc/wait.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <mutex>
#include <thread>
#include <vector>

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

std::unique_ptr<peer::Child> g_devsim;

class Environment : public ::testing::Environment {
public:
    void SetUp() override
    {
        ASSERT_TRUE(peer::start_service_manager(HMISVC_SERVICEMANAGER));
        g_devsim = peer::start_program({HMISVC_DEVSIM});
        ASSERT_TRUE(g_devsim->ready());
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

TEST(WaitForService, SeesALatePublicationAndTimesOutOnNone)
{
    std::thread publisher([] {
        std::this_thread::sleep_for(300ms);
        static binder_connection *bs = binder_open(1024); // kept: closing would drop the entry
        static int object;
        svcmgr_publish(bs, SVCMGR_HANDLE, "wait.late", &object);
    });
    const auto start = Clock::now();
    EXPECT_TRUE(hmisvc::waitForService("wait.late", 20s));
    EXPECT_GE(ms_since(start), 300);
    publisher.join();

    const auto again = Clock::now();
    EXPECT_FALSE(hmisvc::waitForService("wait.never", 250ms));
    EXPECT_GE(ms_since(again), 250);
}

// Counts deliveries of one action.
class Counter : public BroadcastReceiver {
public:
    void onReceive(BroadcastService *, std::shared_ptr<Intent>) override
    {
        std::lock_guard<std::mutex> lock(mutex_);
        ++count_;
        changed_.notify_all();
    }
    bool arrived(int n)
    {
        std::unique_lock<std::mutex> lock(mutex_);
        return changed_.wait_for(lock, 10s, [&] { return count_ >= n; });
    }

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    int count_ = 0;
};

// Each round a new endpoint, and one broadcast right after the wait.
TEST(WaitForReceiving, ABroadcastSentRightAfterArrives20Of20)
{
    std::vector<double> waits;
    int arrived = 0;
    for (int round = 0; round < 20; ++round) {
        auto *receiver = new Counter; // live as long as the service: for the process
        auto *filter = new IntentFilter;
        const std::string action = "wait.round." + std::to_string(round);
        filter->addAction(action);
        const auto start = Clock::now();
        BroadcastService *service = Context::CreateBroadcastService();
        service->registerReceiver(receiver, filter);
        ASSERT_TRUE(hmisvc::waitForReceiving(service, 20s)) << "round " << round;
        waits.push_back(ms_since(start));
        Intent intent(action);
        Context::SendBroadcast(intent);
        arrived += receiver->arrived(1);
    }
    EXPECT_EQ(arrived, 20);
    std::sort(waits.begin(), waits.end());
    std::printf("waitForReceiving after CreateBroadcastService: min %.1f ms, median %.1f ms, max %.1f ms\n",
                waits.front(), waits[waits.size() / 2], waits.back());
    EXPECT_FALSE(hmisvc::waitForReceiving(nullptr, 10ms));
}

#ifdef HMISVC_QT_PANEL
// The Qt example headless: it moves its slider, lists the Wi-Fi networks and
// shows a broadcast sent once it says it receives.
TEST(QtPanel, ShowsWhatTheServicesSay)
{
    FILE *panel = popen("QT_QPA_PLATFORM=offscreen " HMISVC_QT_PANEL " --set-brightness 40 --print-state", "r");
    ASSERT_NE(panel, nullptr);
    std::string shown;
    char line[512];
    while (std::fgets(line, sizeof line, panel)) {
        shown += line;
        if (shown == "receiving\n") {
            Intent show(Intent::ACTION_SHOW_SETTINGS);
            show.putExtra("page", 3);
            Context::SendBroadcast(show);
        }
    }
    EXPECT_EQ(pclose(panel), 0);
    auto backlight = std::dynamic_pointer_cast<BacklightManager>(Context::getSystemService(Context::BACKLIGHT_SERVICE));
    EXPECT_EQ(backlight->GetBrightness(), 40);
    std::string wifi;
    std::vector<WifiList> networks;
    auto manager = std::dynamic_pointer_cast<WifiManager>(Context::getSystemService(Context::WIFIINFO_SERVICE));
    ASSERT_TRUE(manager->GetWifilist(networks));
    ASSERT_FALSE(networks.empty());
    for (WifiList &n : networks)
        wifi += "wifi: " + n.text1 + " (" + std::to_string(n.value) + " dBm)\n";
    EXPECT_EQ(shown, "receiving\nbrightness: 40 of " + std::to_string(backlight->GetMaxBrightness()) + "\n" + wifi +
                         "broadcast: hmi.action.show.settings page=3\n");
}
#endif

} // namespace

int main(int argc, char **argv)
{
    ::testing::InitGoogleTest(&argc, argv);
    ::testing::AddGlobalTestEnvironment(new Environment);
    return RUN_ALL_TESTS();
}
