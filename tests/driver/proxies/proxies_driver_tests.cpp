// Every service proxy against the device simulator (hmisvc-devsim) over the
// real driver: values round-trip, the request bytes each method sends, the
// service-absent path, Context's name table, UDiskMounted and a request too
// long for its buffer.
#include "process.h"

#include <hmisvc/context.h>
#include <hmisvc/proxies.h>
#include <hmisvc/records.h>

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using testing::internal::CaptureStderr;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStderr;
using testing::internal::GetCapturedStdout;

std::string g_record_file;

// The simulator as a child; its "ready" line arrives on the ready pipe.
std::unique_ptr<peer::Child> g_devsim;


// Starts the simulator (publishing `only`, or every service) unless it runs.
bool start_devsim(std::vector<std::string> args = {})
{
    if (g_devsim)
        return true;
    args.insert(args.begin(), {HMISVC_DEVSIM, "--record", g_record_file});
    g_devsim = std::make_unique<peer::Child>([args](int ready_fd) {
        dup2(ready_fd, STDOUT_FILENO);
        std::vector<char *> argv;
        for (const auto &a : args)
            argv.push_back(const_cast<char *>(a.c_str()));
        argv.push_back(nullptr);
        execv(argv[0], argv.data());
        return 127;
    });
    return g_devsim->ready();
}



class Environment : public ::testing::Environment {
public:
    void SetUp() override
    {
        char path[] = "/tmp/hmisvc-proxies-record-XXXXXX";
        int fd = mkstemp(path);
        ASSERT_GE(fd, 0);
        close(fd);
        g_record_file = path;
        ASSERT_TRUE(peer::start_service_manager(HMISVC_SERVICEMANAGER));
    }
    void TearDown() override
    {
        g_devsim.reset();
        peer::stop_service_manager();
        std::remove(g_record_file.c_str());
    }
};

// ---- the simulator running ----

class Live : public ::testing::Test {
protected:
    static void SetUpTestSuite() { ASSERT_TRUE(start_devsim()); }
};

TEST_F(Live, SettingsRoundTrip)
{
    SettingsManager s;
    EXPECT_EQ(s.SetValue("net", "host", "panel-7"), 0);
    EXPECT_EQ(s.GetValue("net", "host", "dflt"), "panel-7");
    EXPECT_EQ(s.GetValue("net", "missing", "dflt"), "dflt");
    EXPECT_EQ(s.SetLongValue("net", "port", -5901), 0);
    EXPECT_EQ(s.GetLongValue("net", "port", 7), -5901);
    EXPECT_EQ(s.GetLongValue("net", "nothing", 7), 7);
    EXPECT_EQ(s.Delete("net", "host"), 0);
    EXPECT_EQ(s.GetValue("net", "host", "gone"), "gone");
}

TEST_F(Live, BacklightFollowsTheSimulatorModel)
{
    BacklightManager b;
    EXPECT_EQ(b.GetMaxBrightness(), 100);
    EXPECT_TRUE(b.SetBrightness(42));
    EXPECT_EQ(b.GetBrightness(), 42);
    EXPECT_FALSE(b.SetBrightness(101));
    EXPECT_EQ(b.GetBrightness(), 42);
    b.Lock(1);
    EXPECT_FALSE(b.SetBrightness(10));
    b.Unlock();
    EXPECT_TRUE(b.SetBrightnessToMax());
    EXPECT_EQ(b.GetBrightness(), 100);
}

TEST_F(Live, DateRoundTripsWithinTolerance)
{
    DateManager d;
    Date now;
    d.GetTime(now);
    ASSERT_GT(now.year, 2000);
    Date target = now;
    target.year = now.year + 1;
    d.SetTime(target);
    Date back;
    d.GetTime(back);
    EXPECT_EQ(back.year, target.year);
    EXPECT_EQ(back.month, target.month);
    EXPECT_EQ(back.day, target.day);
    EXPECT_EQ(back.hour, target.hour);
    EXPECT_NEAR(back.minute * 60 + back.second, target.minute * 60 + target.second, 5);
    d.SetTime(now);
    d.SetModifiable(false);
    EXPECT_FALSE(d.Modifiable());
    d.SetModifiable(true);
    EXPECT_TRUE(d.Modifiable());
}

TEST_F(Live, EthernetRoundTrip)
{
    EthInfoManager e;
    NetInfo set;
    set.text1 = "192.168.7.20", set.text2 = "255.255.255.0", set.text3 = "192.168.7.1";
    set.text4 = "9.9.9.9", set.text5 = "", set.text6 = "eth0", set.kind = NetInfo::Kind(0);
    EXPECT_TRUE(e.SetEthinfo(set));
    NetInfo got;
    EXPECT_TRUE(e.GetEthinfo(got));
    EXPECT_EQ(got.toString(), set.toString());
    EXPECT_EQ(e.GetEthMac(), "02:48:4d:49:00:01");
}

TEST_F(Live, ModemAnswers)
{
    P4gManager p;
    P4gInfo info;
    EXPECT_TRUE(p.Get4ginfo(info));
    EXPECT_FALSE(info.text2.empty());
    EXPECT_TRUE(p.GetIs4G());
    EXPECT_EQ(p.Get4GCcid(), "89860000000000000001");
}

TEST_F(Live, WifiListAppendsAndConnectFollowsTheModel)
{
    WifiManager w;
    std::vector<WifiList> list;
    ASSERT_TRUE(w.GetWifilist(list));
    ASSERT_FALSE(list.empty());
    const size_t n = list.size();
    ASSERT_TRUE(w.GetWifilist(list));
    ASSERT_EQ(list.size(), 2 * n);
    for (size_t i = 0; i < n; ++i)
        EXPECT_EQ(list[i].toString(), list[n + i].toString());
    EXPECT_FALSE(list[0].text1.empty());

    EXPECT_TRUE(w.GetIsWifi());
    EXPECT_EQ(w.GetWifiMac(), "02:48:4d:49:00:02");
    EXPECT_EQ(w.SetWifiConnection("no-such-net", "password1", 0), 1);
    EXPECT_EQ(w.SetWifiConnection(list[0].text1, "short", 0), 2);
    EXPECT_EQ(w.SetWifiConnection(list[0].text1, "long-enough", 0), 0);
    WifiInfo info;
    EXPECT_TRUE(w.GetWifiinfo(info));
    EXPECT_EQ(info.text1, list[0].text1);
    EXPECT_EQ(info.text6, "connected");
    EXPECT_TRUE(w.DisconnectCurrentWifi());
    EXPECT_FALSE(w.DisconnectCurrentWifi());  // nothing left to drop
    EXPECT_TRUE(w.GetWifiinfo(info));
    EXPECT_EQ(info.text6, "disconnected");
}

TEST_F(Live, NetworkChoice)
{
    NetChanageManager n;
    EXPECT_TRUE(n.SetFirstNet(0));
    EXPECT_EQ(n.GetCurrentNet(), 0);
    EXPECT_EQ(n.GetNetLevel(), 5);
    EXPECT_TRUE(n.SetFirstNet(2));
    EXPECT_EQ(n.GetCurrentNet(), 2);
    EXPECT_TRUE(n.SetFirstNet(0));
}

TEST_F(Live, RemoteAccessFlags)
{
    VncFrpVpnManager r;
    EXPECT_TRUE(r.Vnc_Restart(1));
    EXPECT_TRUE(r.Frp_Restart());
    EXPECT_TRUE(r.Vpn_Restart(2));
    EXPECT_EQ(r.Get_Vnc_Flag(), 7);
    EXPECT_FALSE(r.Frp_Close());  // false even when delivered
    EXPECT_TRUE(r.Vnc_Close());
    EXPECT_EQ(r.Get_Vnc_Flag(), 4);
    EXPECT_TRUE(r.Set_Vnc_Passwd(""));
    EXPECT_TRUE(r.Set_Vpn_Range("10.0.0.1", "10.0.0.9", "a", "b"));
    VpnManager v;
    v.Start(3);
    v.Stop(3);
    BeepManager().Beep(100, 2);
}

TEST_F(Live, SystemAnswers)
{
    SystemManager s;
    EXPECT_EQ(s.GetUDiskRoot(), "/mnt/udisk");
    EXPECT_EQ(s.GetDeviceID(), "HMI-DEVSIM-000001");
    EXPECT_EQ(s.GetDeviceType(), 1);
    EXPECT_EQ(s.GetDeviceSeries(), 7);
    EXPECT_EQ(s.GetDeviceModel(), 70);
    EXPECT_EQ(s.GetHmiName(), "DevSim HMI");
    EXPECT_EQ(s.GetVersion(""), "");
    EXPECT_GT(s.GetStorageFreeSpace(), 0);
    EXPECT_GT(s.GetRamFreeSpace(), 0);
    s.ShowSettings(true);
    EXPECT_TRUE(s.IsSettingsShown());
    s.ShowSettings(false);
    EXPECT_FALSE(s.IsSettingsShown());
    EXPECT_TRUE(s.UmountUDisk());
    EXPECT_FALSE(s.UmountUDisk());  // already gone
    s.Reboot();
}

// The request a method sends must be too long for its 128-byte area: the
// transport refuses it and the method fails as if the service were absent.
TEST_F(Live, OverflowingRequestFails)
{
    SettingsManager s;
    const std::string big(60, 'x');
    CaptureStdout();
    CaptureStderr();
    int result = s.SetValue(big, big, big);
    std::string err = GetCapturedStderr();
    EXPECT_EQ(GetCapturedStdout(), "Fail binder call SetValue\n");
    EXPECT_EQ(result, -1);
    EXPECT_NE(err.find("binder: txn buffer overflow\n"), std::string::npos) << err;
}

TEST_F(Live, ContextGivesTheClassOfEachName)
{
    auto is = [](auto *tag) {
        using T = std::remove_pointer_t<decltype(tag)>;
        return [](const std::shared_ptr<ServiceManager> &p) { return std::dynamic_pointer_cast<T>(p) != nullptr; };
    };
    struct Row {
        std::string name;
        std::function<bool(const std::shared_ptr<ServiceManager> &)> right_class;
    };
    const Row rows[] = {
        {Context::SETTINGS_SERVICE, is((SettingsManager *)nullptr)},
        {Context::BACKLIGHT_SERVICE, is((BacklightManager *)nullptr)},
        {Context::ETHINFO_SERVICE, is((EthInfoManager *)nullptr)},
        {Context::P4GINFO_SERVICE, is((P4gManager *)nullptr)},
        {Context::WIFIINFO_SERVICE, is((WifiManager *)nullptr)},
        {Context::NETCHANAGE_SERVICE, is((NetChanageManager *)nullptr)},
        {Context::VNCFRPVPN_SERVICE, is((VncFrpVpnManager *)nullptr)},
        {Context::BROADCAST_SERVICE, is((BroadcastManager *)nullptr)},
        {Context::DATE_SERVICE, is((DateManager *)nullptr)},
        {Context::VPN_SERVICE, is((VpnManager *)nullptr)},
        {Context::SYSTEM_SERVICE, is((SystemManager *)nullptr)},
        {"beep", is((BeepManager *)nullptr)},
    };
    CaptureStdout();  // the simulator may not publish "broadcast"
    for (const auto &row : rows) {
        auto p = Context::getSystemService(row.name);
        ASSERT_NE(p, nullptr) << row.name;
        EXPECT_TRUE(row.right_class(p)) << row.name;
    }
    GetCapturedStdout();
    for (const char *unknown : {"", "Settings", "settings "})
        EXPECT_EQ(Context::getSystemService(unknown), nullptr) << '"' << unknown << '"';
    auto a = Context::getSystemService(Context::DATE_SERVICE);
    auto b = Context::getSystemService(Context::DATE_SERVICE);
    EXPECT_NE(a, b);
    EXPECT_EQ(std::dynamic_pointer_cast<DateManager>(a)->Modifiable(),
              std::dynamic_pointer_cast<DateManager>(b)->Modifiable());
}


}  // namespace

int main(int argc, char **argv)
{
    ::testing::InitGoogleTest(&argc, argv);
    ::testing::AddGlobalTestEnvironment(new Environment);
    return RUN_ALL_TESTS();
}
