// Every service proxy against the device simulator (hmisvc-devsim) over the
// real driver: replies decode, the request bytes each method sends, the
// service-absent path, Context's name table and UDiskMounted. The
// simulator's own model (ranges, locks, answers) is its unit tests' business.
#include "process.h"

#include "../../common/request_bytes.h"

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

using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

std::string g_record_file;


std::vector<std::string> record_lines()
{
    std::ifstream in(g_record_file);
    std::vector<std::string> lines;
    for (std::string line; std::getline(in, line);)
        lines.push_back(line);
    return lines;
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
        peer::stop_service_manager();
        std::remove(g_record_file.c_str());
    }
};

// ---- the simulator running ----

class Live : public ::testing::Test {
protected:
    static void SetUpTestSuite() { ASSERT_TRUE(peer::start_devsim({HMISVC_DEVSIM, "--record", g_record_file})); }
};

TEST_F(Live, SettingsRoundTrip)
{
    SettingsManager s;
    EXPECT_EQ(s.SetValue("net", "host", "panel-7"), 0);
    EXPECT_EQ(s.GetValue("net", "host", "dflt"), "panel-7");
    EXPECT_EQ(s.SetLongValue("net", "port", -5901), 0);
    EXPECT_EQ(s.GetLongValue("net", "port", 7), -5901);
    EXPECT_EQ(s.Delete("net", "host"), 0);
}

TEST_F(Live, BacklightAnswers)
{
    BacklightManager b;
    EXPECT_EQ(b.GetMaxBrightness(), 100);
    EXPECT_TRUE(b.SetBrightness(42));
    EXPECT_EQ(b.GetBrightness(), 42);
    EXPECT_FALSE(b.SetBrightness(101));
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

TEST_F(Live, WifiListAppendsAndInfoFollowsTheConnection)
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
    EXPECT_EQ(w.SetWifiConnection(list[0].text1, "short", 0), 2);
    EXPECT_EQ(w.SetWifiConnection(list[0].text1, "long-enough", 0), 0);
    WifiInfo info;
    EXPECT_TRUE(w.GetWifiinfo(info));
    EXPECT_EQ(info.text1, list[0].text1);
    EXPECT_EQ(info.text6, "connected");
    EXPECT_TRUE(w.DisconnectCurrentWifi());
}

TEST_F(Live, NetworkChoice)
{
    NetChanageManager n;
    EXPECT_TRUE(n.SetFirstNet(2));
    EXPECT_EQ(n.GetCurrentNet(), 2);
    EXPECT_TRUE(n.SetFirstNet(0));
    EXPECT_EQ(n.GetNetLevel(), 5);
}

TEST_F(Live, RemoteAccessFlags)
{
    VncFrpVpnManager r;
    EXPECT_TRUE(r.Vnc_Restart(1));
    EXPECT_TRUE(r.Frp_Restart());
    EXPECT_TRUE(r.Vpn_Restart(2));
    EXPECT_EQ(r.Get_Vnc_Flag(), 7);
    EXPECT_FALSE(r.Frp_Close());  // false even when delivered
    EXPECT_TRUE(r.Set_Vnc_Passwd(""));
    EXPECT_TRUE(r.Set_Vpn_Range("10.0.0.1", "10.0.0.9", "a", "b"));
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
    EXPECT_TRUE(s.UmountUDisk());
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
    EXPECT_NE(Context::getSystemService(Context::DATE_SERVICE), Context::getSystemService(Context::DATE_SERVICE));
}


// ---- the request bytes of every method ----

Date sample_date()
{
    Date d;
    d.year = 2031, d.month = 4, d.day = 5, d.hour = 6, d.minute = 7, d.second = 8, d.subsecond = 9;
    return d;
}

NetInfo sample_net()
{
    NetInfo n;
    n.text1 = "10.1.2.3", n.text2 = "255.0.0.0", n.text3 = "10.0.0.1", n.text6 = "eth0";
    n.kind = NetInfo::Kind(1);
    return n;
}

// Every method once: the request it sends, checked against the simulator's
// record of it, and with the service absent the label of its one "Fail binder
// call" line. `call` builds the proxy, calls, and says whether the result is
// the method's failure value (what it returns with the service absent).
struct Method {
    const char *label;
    const char *service;
    unsigned code;
    RequestBytes request;
    std::function<bool()> call;
};

template <class P> std::function<bool()> on(std::function<bool(P &)> f)
{
    return [f] {
        P p;
        return f(p);
    };
}

template <class P, class R> std::function<bool()> throws(R (P::*method)())
{
    return on<P>([method](P &p) {
        try { (p.*method)(); } catch (const std::logic_error &) { return true; }
        return false;
    });
}

const Method kMethods[] = {
    {"GetValue", "settings", 0, request().str("sec").str("key").str("dflt"),
     on<SettingsManager>([](auto &p) { return p.GetValue("sec", "key", "dflt") == "dflt"; })},
    {"GetLongValue", "settings", 1, request().str("sec").str("key").word(0xfffffffe),
     on<SettingsManager>([](auto &p) { return p.GetLongValue("sec", "key", -2) == -2; })},
    {"SetValue", "settings", 2, request().str("s").str("four").str(""),
     on<SettingsManager>([](auto &p) { return p.SetValue("s", "four", "") == -1; })},
    {"SetLongValue", "settings", 3, request().str("s").str("k").word(77),
     on<SettingsManager>([](auto &p) { return p.SetLongValue("s", "k", 77) == -1; })},
    {"Delete", "settings", 4, request().str("s").str("k"),
     on<SettingsManager>([](auto &p) { return p.Delete("s", "k") == -1; })},
    {"SaveFile", "settings", 5, request(), on<SettingsManager>([](auto &p) { return p.SaveFile() == -1; })},
    {"GetBrightness", "backlight", 0, request(), on<BacklightManager>([](auto &p) { return p.GetBrightness() == -1; })},
    // GetMaxBrightness fails under GetBrightness's label.
    {"GetBrightness", "backlight", 1, request(),
     on<BacklightManager>([](auto &p) { return p.GetMaxBrightness() == -1; })},
    {"SetBrightness", "backlight", 2, request().word(55),
     on<BacklightManager>([](auto &p) { return !p.SetBrightness(55); })},
    {"SetBrightnessToMax", "backlight", 3, request(),
     on<BacklightManager>([](auto &p) { return !p.SetBrightnessToMax(); })},
    {"Lock", "backlight", 4, request().word(9), on<BacklightManager>([](auto &p) { return p.Lock(9), true; })},
    {"Unlock", "backlight", 5, request(), on<BacklightManager>([](auto &p) { return p.Unlock(), true; })},
    {"Beep", "beep", 0, request().word(3).word(4), on<BeepManager>([](auto &p) { return p.Beep(3, 4), true; })},
    {"GetTime", "date", 0, request(), on<DateManager>([](auto &p) {
         Date d = sample_date();
         p.GetTime(d);
         return d.toString() == sample_date().toString();
     })},
    {"SetTime", "date", 1, request().mem(sample_date().toString()),
     on<DateManager>([](auto &p) { Date d = sample_date(); return p.SetTime(d), true; })},
    {"SetModifiable", "date", 2, request().word(1), on<DateManager>([](auto &p) { return p.SetModifiable(true), true; })},
    {"SetModifiable", "date", 2, request().word(0), on<DateManager>([](auto &p) { return p.SetModifiable(false), true; })},
    {"Modifiable", "date", 3, request(), on<DateManager>([](auto &p) { return !p.Modifiable(); })},
    {"GetEthinfo", "ethinfo", 0, request(), on<EthInfoManager>([](auto &p) {
         NetInfo n = sample_net();
         return !p.GetEthinfo(n) && n.toString() == sample_net().toString();
     })},
    {"SetEthinfo", "ethinfo", 1, request().mem(sample_net().toString()),
     on<EthInfoManager>([](auto &p) { NetInfo n = sample_net(); return !p.SetEthinfo(n); })},
    {"GetEthmac", "ethinfo", 2, request(), throws(&EthInfoManager::GetEthMac)},
    {"Get4ginfo", "4ginfo", 0, request(), on<P4gManager>([](auto &p) { P4gInfo i; return !p.Get4ginfo(i); })},
    {"get 4G module yes or not", "4ginfo", 1, request(), on<P4gManager>([](auto &p) { return p.GetIs4G(); })},
    {"get 4G ccid", "4ginfo", 2, request(), throws(&P4gManager::Get4GCcid)},
    {"GetWifiinfo", "wifiinfo", 0, request(), on<WifiManager>([](auto &p) { WifiInfo i; return !p.GetWifiinfo(i); })},
    {"wifi connect", "wifiinfo", 1, request().str("ap").str("pw123").word(3),
     on<WifiManager>([](auto &p) { return p.SetWifiConnection("ap", "pw123", 3) == -1; })},
    {"GetWifilist", "wifiinfo", 2, request(), on<WifiManager>([](auto &p) {
         std::vector<WifiList> l(1);
         return !p.GetWifilist(l) && l.size() == 1;
     })},
    {"wifi module yes or not", "wifiinfo", 3, request(), on<WifiManager>([](auto &p) { return p.GetIsWifi(); })},
    {"disconnect current wifi", "wifiinfo", 4, request(),
     on<WifiManager>([](auto &p) { return p.DisconnectCurrentWifi(); })},
    {"GetWifimac", "wifiinfo", 5, request(), throws(&WifiManager::GetWifiMac)},
    {"get current net", "netchanage", 0, request(), on<NetChanageManager>([](auto &p) { return p.GetCurrentNet() == 0; })},
    {"set first net", "netchanage", 1, request().word(1), on<NetChanageManager>([](auto &p) { return !p.SetFirstNet(1); })},
    {"get net level", "netchanage", 2, request(), on<NetChanageManager>([](auto &p) { return p.GetNetLevel() == 0; })},
    {"vnc restart", "vncfrpvpn", 0, request().word(1), on<VncFrpVpnManager>([](auto &p) { return !p.Vnc_Restart(1); })},
    {"set vnc passwd", "vncfrpvpn", 1, request().str("secret"),
     on<VncFrpVpnManager>([](auto &p) { return !p.Set_Vnc_Passwd("secret"); })},
    {"frp restart", "vncfrpvpn", 2, request(), on<VncFrpVpnManager>([](auto &p) { return !p.Frp_Restart(); })},
    {"frp close", "vncfrpvpn", 3, request(), on<VncFrpVpnManager>([](auto &p) { return !p.Frp_Close(); })},
    {"vnc close", "vncfrpvpn", 4, request(), on<VncFrpVpnManager>([](auto &p) { return !p.Vnc_Close(); })},
    {"vpn restart", "vncfrpvpn", 5, request().word(2), on<VncFrpVpnManager>([](auto &p) { return !p.Vpn_Restart(2); })},
    {"set vpn ranage", "vncfrpvpn", 6, request().str("a").str("bb").str("ccc").str("dddd"),
     on<VncFrpVpnManager>([](auto &p) { return !p.Set_Vpn_Range("a", "bb", "ccc", "dddd"); })},
    {"get vnc flag", "vncfrpvpn", 7, request(), on<VncFrpVpnManager>([](auto &p) { return p.Get_Vnc_Flag() == 0; })},
    {"Start", "vpn", 0, request().word(1), on<VpnManager>([](auto &p) { return p.Start(1), true; })},
    {"Stop", "vpn", 1, request().word(2), on<VpnManager>([](auto &p) { return p.Stop(2), true; })},
    {"GetUDiskRoot", "system", 0, request(), on<SystemManager>([](auto &p) { return p.GetUDiskRoot().empty(); })},
    {"UmountUDisk", "system", 2, request(), on<SystemManager>([](auto &p) { return !p.UmountUDisk(); })},
    {"GetStorageFreeSpace", "system", 3, request(),
     on<SystemManager>([](auto &p) { return p.GetStorageFreeSpace() == 0; })},
    {"GetRamFreeSpace", "system", 4, request(), on<SystemManager>([](auto &p) { return p.GetRamFreeSpace() == 0; })},
    {"GetDeviceID", "system", 5, request(), on<SystemManager>([](auto &p) { return p.GetDeviceID().empty(); })},
    {"GetDeviceType", "system", 6, request(), on<SystemManager>([](auto &p) { return p.GetDeviceType() == 0; })},
    {"GetDeviceSeries", "system", 7, request(), on<SystemManager>([](auto &p) { return p.GetDeviceSeries() == 0; })},
    {"GetDeviceModel", "system", 8, request(), on<SystemManager>([](auto &p) { return p.GetDeviceModel() == 0; })},
    {"GetHmiName", "system", 9, request(), on<SystemManager>([](auto &p) { return p.GetHmiName().empty(); })},
    {"GetVersion", "system", 10, request().str("fw"), on<SystemManager>([](auto &p) { return p.GetVersion("fw").empty(); })},
    {"GetVersion", "system", 10, request().str(""), on<SystemManager>([](auto &p) { return p.GetVersion("").empty(); })},
    {"ShowSettings", "system", 11, request().word(1), on<SystemManager>([](auto &p) { return p.ShowSettings(true), true; })},
    {"Reboot", "system", 12, request(), on<SystemManager>([](auto &p) { return p.Reboot(), true; })},
    {"IsSettingsShown", "system", 13, request(), on<SystemManager>([](auto &p) { return !p.IsSettingsShown(); })},
};

std::string where(const Method &m) { return std::string(m.service) + ' ' + std::to_string(m.code) + ' ' + m.label; }

class RequestBytes : public Live {};

TEST_F(RequestBytes, EveryMethodSendsItsLayout)
{
    for (const Method &m : kMethods) {
        SCOPED_TRACE(where(m));
        const size_t before = record_lines().size();
        m.call();
        const auto lines = record_lines();
        ASSERT_EQ(lines.size(), before + 1);
        EXPECT_EQ(lines.back(), std::string(m.service) + ' ' + std::to_string(m.code) + ' ' + m.request.hex());
    }
}

// ---- the service absent ----

class Absent : public ::testing::Test {
protected:
    static void SetUpTestSuite() { ASSERT_TRUE(peer::stop_devsim({"system", "beep"})); }
};

TEST_F(Absent, EveryMethodPrintsItsLineAndFails)
{
    for (const Method &m : kMethods) {
        SCOPED_TRACE(where(m));
        CaptureStdout();
        bool failure_value = m.call();
        EXPECT_EQ(GetCapturedStdout(), std::string("Failed to find service: ") + m.service +
                                           "\nFail binder call " + m.label + "\n");
        EXPECT_TRUE(failure_value);
    }
}

TEST_F(Absent, ContextStillHandsOutTheProxy)
{
    CaptureStdout();
    auto p = Context::getSystemService(Context::BEEP_SERVICE);
    EXPECT_EQ(GetCapturedStdout(), "Failed to find service: beep\n");
    EXPECT_NE(std::dynamic_pointer_cast<BeepManager>(p), nullptr);
}

// ---- UDiskMounted, in a mount namespace of its own ----

// Runs in a forked child so the namespace ends with it: 0 when all cases
// hold, 77 when the namespace cannot be had, otherwise the failing case.
int udisk_cases()
{
    if (geteuid() != 0 || unshare(CLONE_NEWNS) != 0)
        return 77;
    // The guest's root is the host's, shared: nothing here may reach it.
    if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        mount("hmisvc-mnt", "/mnt", "tmpfs", 0, nullptr) != 0)
        return 77;
    SystemManager probe_free;  // UDiskMounted needs no service
    if (mkdir("/mnt/disk-mounted", 0755) != 0 || mkdir("/mnt/disk-unmounted", 0755) != 0 ||
        mount("hmisvc-disk", "/mnt/disk-mounted", "tmpfs", 0, nullptr) != 0)
        return 10;
    if (symlink("/mnt/disk-mounted", "/mnt/udisk") != 0 || !probe_free.UDiskMounted())
        return 1;
    if (unlink("/mnt/udisk") != 0 || symlink("/mnt/disk-unmounted", "/mnt/udisk") != 0 || probe_free.UDiskMounted())
        return 2;
    // A plain directory is not the link, even with a disk mounted on it.
    if (unlink("/mnt/udisk") != 0 || mkdir("/mnt/udisk", 0755) != 0 ||
        mount("hmisvc-udisk", "/mnt/udisk", "tmpfs", 0, nullptr) != 0 || probe_free.UDiskMounted())
        return 3;
    return 0;
}

TEST(UDisk, MountedOnlyThroughALinkToAMountedTarget)
{
    CaptureStdout();  // the probe's lookup of "system" may fail
    pid_t pid = fork();
    if (pid == 0)
        _exit(udisk_cases());
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    GetCapturedStdout();
    ASSERT_TRUE(WIFEXITED(status));
    if (WEXITSTATUS(status) == 77)
        GTEST_SKIP() << "needs root and a mount namespace";
    EXPECT_EQ(WEXITSTATUS(status), 0) << "case " << WEXITSTATUS(status) << " failed";
}

}  // namespace

int main(int argc, char **argv)
{
    ::testing::InitGoogleTest(&argc, argv);
    ::testing::AddGlobalTestEnvironment(new Environment);
    return RUN_ALL_TESTS();
}
