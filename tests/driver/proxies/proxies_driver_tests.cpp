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
    g_devsim = peer::start_program(args);
    return g_devsim->ready();
}

// Stops it and waits until the service manager has forgotten its names.
bool stop_devsim()
{
    g_devsim.reset();
    return peer::eventually([] { return !peer::service_found("system") && !peer::service_found("beep"); });
}

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


// ---- the request bytes of every method ----

// A request as the binder buffer lays it out: 32-bit words, 8-bit strings
// with their NUL, blocks, each item padded to 4 bytes after a length word.
class Bytes {
public:
    Bytes() { word(0); }  // every request starts with the word 0
    Bytes &word(uint32_t v)
    {
        for (int i = 0; i < 4; ++i)
            b_ += static_cast<char>(v >> (8 * i));
        return *this;
    }
    Bytes &str(const std::string &s) { return counted(s.size(), s + '\0'); }
    Bytes &mem(const std::string &m) { return counted(m.size(), m); }
    std::string hex() const
    {
        std::string out;
        char two[3];
        for (unsigned char c : b_)
            std::snprintf(two, sizeof two, "%02x", c), out += two;
        return out;
    }

private:
    Bytes &counted(size_t length, const std::string &payload)
    {
        word(static_cast<uint32_t>(length));
        b_ += payload;
        b_.append((4 - payload.size() % 4) % 4, '\0');
        return *this;
    }
    std::string b_;
};

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

struct Wire {
    const char *name;
    std::function<void()> call;
    const char *service;
    unsigned code;
    Bytes request;
};

template <class P> std::function<void()> on(std::function<void(P &)> f)
{
    return [f] {
        P p;
        f(p);
    };
}

const Wire kWire[] = {
    {"GetValue", on<SettingsManager>([](auto &p) { p.GetValue("sec", "key", "dflt"); }), "settings", 0,
     Bytes().str("sec").str("key").str("dflt")},
    {"GetLongValue", on<SettingsManager>([](auto &p) { p.GetLongValue("sec", "key", -2); }), "settings", 1,
     Bytes().str("sec").str("key").word(0xfffffffe)},
    {"SetValue", on<SettingsManager>([](auto &p) { p.SetValue("s", "four", ""); }), "settings", 2,
     Bytes().str("s").str("four").str("")},
    {"SetLongValue", on<SettingsManager>([](auto &p) { p.SetLongValue("s", "k", 77); }), "settings", 3,
     Bytes().str("s").str("k").word(77)},
    {"Delete", on<SettingsManager>([](auto &p) { p.Delete("s", "k"); }), "settings", 4, Bytes().str("s").str("k")},
    {"SaveFile", on<SettingsManager>([](auto &p) { p.SaveFile(); }), "settings", 5, Bytes()},
    {"GetBrightness", on<BacklightManager>([](auto &p) { p.GetBrightness(); }), "backlight", 0, Bytes()},
    {"GetMaxBrightness", on<BacklightManager>([](auto &p) { p.GetMaxBrightness(); }), "backlight", 1, Bytes()},
    {"SetBrightness", on<BacklightManager>([](auto &p) { p.SetBrightness(55); }), "backlight", 2, Bytes().word(55)},
    {"SetBrightnessToMax", on<BacklightManager>([](auto &p) { p.SetBrightnessToMax(); }), "backlight", 3, Bytes()},
    {"Lock", on<BacklightManager>([](auto &p) { p.Lock(9); }), "backlight", 4, Bytes().word(9)},
    {"Unlock", on<BacklightManager>([](auto &p) { p.Unlock(); }), "backlight", 5, Bytes()},
    {"Beep", on<BeepManager>([](auto &p) { p.Beep(3, 4); }), "beep", 0, Bytes().word(3).word(4)},
    {"GetTime", on<DateManager>([](auto &p) { Date d; p.GetTime(d); }), "date", 0, Bytes()},
    {"SetTime", on<DateManager>([](auto &p) { Date d = sample_date(); p.SetTime(d); }), "date", 1,
     Bytes().mem(sample_date().toString())},
    {"SetModifiableTrue", on<DateManager>([](auto &p) { p.SetModifiable(true); }), "date", 2, Bytes().word(1)},
    {"SetModifiableFalse", on<DateManager>([](auto &p) { p.SetModifiable(false); }), "date", 2, Bytes().word(0)},
    {"Modifiable", on<DateManager>([](auto &p) { p.Modifiable(); }), "date", 3, Bytes()},
    {"GetEthinfo", on<EthInfoManager>([](auto &p) { NetInfo n; p.GetEthinfo(n); }), "ethinfo", 0, Bytes()},
    {"SetEthinfo", on<EthInfoManager>([](auto &p) { NetInfo n = sample_net(); p.SetEthinfo(n); }), "ethinfo", 1,
     Bytes().mem(sample_net().toString())},
    {"GetEthMac", on<EthInfoManager>([](auto &p) { p.GetEthMac(); }), "ethinfo", 2, Bytes()},
    {"Get4ginfo", on<P4gManager>([](auto &p) { P4gInfo i; p.Get4ginfo(i); }), "4ginfo", 0, Bytes()},
    {"GetIs4G", on<P4gManager>([](auto &p) { p.GetIs4G(); }), "4ginfo", 1, Bytes()},
    {"Get4GCcid", on<P4gManager>([](auto &p) { p.Get4GCcid(); }), "4ginfo", 2, Bytes()},
    {"GetWifiinfo", on<WifiManager>([](auto &p) { WifiInfo i; p.GetWifiinfo(i); }), "wifiinfo", 0, Bytes()},
    {"SetWifiConnection", on<WifiManager>([](auto &p) { p.SetWifiConnection("ap", "pw123", 3); }), "wifiinfo", 1,
     Bytes().str("ap").str("pw123").word(3)},
    {"GetWifilist", on<WifiManager>([](auto &p) { std::vector<WifiList> l; p.GetWifilist(l); }), "wifiinfo", 2,
     Bytes()},
    {"GetIsWifi", on<WifiManager>([](auto &p) { p.GetIsWifi(); }), "wifiinfo", 3, Bytes()},
    {"DisconnectCurrentWifi", on<WifiManager>([](auto &p) { p.DisconnectCurrentWifi(); }), "wifiinfo", 4, Bytes()},
    {"GetWifiMac", on<WifiManager>([](auto &p) { p.GetWifiMac(); }), "wifiinfo", 5, Bytes()},
    {"GetCurrentNet", on<NetChanageManager>([](auto &p) { p.GetCurrentNet(); }), "netchanage", 0, Bytes()},
    {"SetFirstNet", on<NetChanageManager>([](auto &p) { p.SetFirstNet(1); }), "netchanage", 1, Bytes().word(1)},
    {"GetNetLevel", on<NetChanageManager>([](auto &p) { p.GetNetLevel(); }), "netchanage", 2, Bytes()},
    {"Vnc_Restart", on<VncFrpVpnManager>([](auto &p) { p.Vnc_Restart(1); }), "vncfrpvpn", 0, Bytes().word(1)},
    {"Set_Vnc_Passwd", on<VncFrpVpnManager>([](auto &p) { p.Set_Vnc_Passwd("secret"); }), "vncfrpvpn", 1,
     Bytes().str("secret")},
    {"Frp_Restart", on<VncFrpVpnManager>([](auto &p) { p.Frp_Restart(); }), "vncfrpvpn", 2, Bytes()},
    {"Frp_Close", on<VncFrpVpnManager>([](auto &p) { p.Frp_Close(); }), "vncfrpvpn", 3, Bytes()},
    {"Vnc_Close", on<VncFrpVpnManager>([](auto &p) { p.Vnc_Close(); }), "vncfrpvpn", 4, Bytes()},
    {"Vpn_Restart", on<VncFrpVpnManager>([](auto &p) { p.Vpn_Restart(2); }), "vncfrpvpn", 5, Bytes().word(2)},
    {"Set_Vpn_Range", on<VncFrpVpnManager>([](auto &p) { p.Set_Vpn_Range("a", "bb", "ccc", "dddd"); }),
     "vncfrpvpn", 6, Bytes().str("a").str("bb").str("ccc").str("dddd")},
    {"Get_Vnc_Flag", on<VncFrpVpnManager>([](auto &p) { p.Get_Vnc_Flag(); }), "vncfrpvpn", 7, Bytes()},
    {"Start", on<VpnManager>([](auto &p) { p.Start(1); }), "vpn", 0, Bytes().word(1)},
    {"Stop", on<VpnManager>([](auto &p) { p.Stop(2); }), "vpn", 1, Bytes().word(2)},
    {"GetUDiskRoot", on<SystemManager>([](auto &p) { p.GetUDiskRoot(); }), "system", 0, Bytes()},
    {"UmountUDisk", on<SystemManager>([](auto &p) { p.UmountUDisk(); }), "system", 2, Bytes()},
    {"GetStorageFreeSpace", on<SystemManager>([](auto &p) { p.GetStorageFreeSpace(); }), "system", 3, Bytes()},
    {"GetRamFreeSpace", on<SystemManager>([](auto &p) { p.GetRamFreeSpace(); }), "system", 4, Bytes()},
    {"GetDeviceID", on<SystemManager>([](auto &p) { p.GetDeviceID(); }), "system", 5, Bytes()},
    {"GetDeviceType", on<SystemManager>([](auto &p) { p.GetDeviceType(); }), "system", 6, Bytes()},
    {"GetDeviceSeries", on<SystemManager>([](auto &p) { p.GetDeviceSeries(); }), "system", 7, Bytes()},
    {"GetDeviceModel", on<SystemManager>([](auto &p) { p.GetDeviceModel(); }), "system", 8, Bytes()},
    {"GetHmiName", on<SystemManager>([](auto &p) { p.GetHmiName(); }), "system", 9, Bytes()},
    {"GetVersion", on<SystemManager>([](auto &p) { p.GetVersion("fw"); }), "system", 10, Bytes().str("fw")},
    {"GetVersionEmpty", on<SystemManager>([](auto &p) { p.GetVersion(""); }), "system", 10, Bytes().str("")},
    {"ShowSettings", on<SystemManager>([](auto &p) { p.ShowSettings(true); }), "system", 11, Bytes().word(1)},
    {"Reboot", on<SystemManager>([](auto &p) { p.Reboot(); }), "system", 12, Bytes()},
    {"IsSettingsShown", on<SystemManager>([](auto &p) { p.IsSettingsShown(); }), "system", 13, Bytes()},
};

class RequestBytes : public Live {};

TEST_F(RequestBytes, EveryMethodSendsItsLayout)
{
    for (const Wire &w : kWire) {
        SCOPED_TRACE(w.name);
        const size_t before = record_lines().size();
        w.call();
        const auto lines = record_lines();
        ASSERT_EQ(lines.size(), before + 1);
        EXPECT_EQ(lines.back(), std::string(w.service) + ' ' + std::to_string(w.code) + ' ' + w.request.hex());
    }
}

// ---- the service absent ----

class Absent : public ::testing::Test {
protected:
    static void SetUpTestSuite() { ASSERT_TRUE(stop_devsim()); }
};

struct Down {
    const char *service;
    const char *label;                   // of the one "Fail binder call" line
    std::function<bool()> failure_value; // builds the proxy, calls, checks the result
};

template <class P> std::function<bool()> down(std::function<bool(P &)> f)
{
    return [f] {
        P p;
        return f(p);
    };
}

const Down kDown[] = {
    {"settings", "GetValue", down<SettingsManager>([](auto &p) { return p.GetValue("a", "b", "x") == "x"; })},
    {"settings", "GetLongValue", down<SettingsManager>([](auto &p) { return p.GetLongValue("a", "b", 7) == 7; })},
    {"settings", "SetValue", down<SettingsManager>([](auto &p) { return p.SetValue("a", "b", "c") == -1; })},
    {"settings", "SetLongValue", down<SettingsManager>([](auto &p) { return p.SetLongValue("a", "b", 1) == -1; })},
    {"settings", "Delete", down<SettingsManager>([](auto &p) { return p.Delete("a", "b") == -1; })},
    {"settings", "SaveFile", down<SettingsManager>([](auto &p) { return p.SaveFile() == -1; })},
    {"backlight", "GetBrightness", down<BacklightManager>([](auto &p) { return p.GetBrightness() == -1; })},
    {"backlight", "GetBrightness", down<BacklightManager>([](auto &p) { return p.GetMaxBrightness() == -1; })},
    {"backlight", "SetBrightness", down<BacklightManager>([](auto &p) { return !p.SetBrightness(5); })},
    {"backlight", "SetBrightnessToMax", down<BacklightManager>([](auto &p) { return !p.SetBrightnessToMax(); })},
    {"backlight", "Lock", down<BacklightManager>([](auto &p) { return p.Lock(1), true; })},
    {"backlight", "Unlock", down<BacklightManager>([](auto &p) { return p.Unlock(), true; })},
    {"beep", "Beep", down<BeepManager>([](auto &p) { return p.Beep(1, 2), true; })},
    {"date", "GetTime", down<DateManager>([](auto &p) {
         Date d = sample_date();
         p.GetTime(d);
         return d.toString() == sample_date().toString();
     })},
    {"date", "SetTime", down<DateManager>([](auto &p) { Date d; return p.SetTime(d), true; })},
    {"date", "SetModifiable", down<DateManager>([](auto &p) { return p.SetModifiable(true), true; })},
    {"date", "Modifiable", down<DateManager>([](auto &p) { return !p.Modifiable(); })},
    {"ethinfo", "GetEthinfo", down<EthInfoManager>([](auto &p) {
         NetInfo n = sample_net();
         return !p.GetEthinfo(n) && n.toString() == sample_net().toString();
     })},
    {"ethinfo", "SetEthinfo", down<EthInfoManager>([](auto &p) { NetInfo n; return !p.SetEthinfo(n); })},
    {"ethinfo", "GetEthmac", down<EthInfoManager>([](auto &p) {
         try { p.GetEthMac(); } catch (const std::logic_error &) { return true; }
         return false;
     })},
    {"4ginfo", "Get4ginfo", down<P4gManager>([](auto &p) { P4gInfo i; return !p.Get4ginfo(i); })},
    {"4ginfo", "get 4G module yes or not", down<P4gManager>([](auto &p) { return p.GetIs4G(); })},
    {"4ginfo", "get 4G ccid", down<P4gManager>([](auto &p) {
         try { p.Get4GCcid(); } catch (const std::logic_error &) { return true; }
         return false;
     })},
    {"wifiinfo", "GetWifiinfo", down<WifiManager>([](auto &p) { WifiInfo i; return !p.GetWifiinfo(i); })},
    {"wifiinfo", "wifi connect", down<WifiManager>([](auto &p) { return p.SetWifiConnection("a", "b", 0) == -1; })},
    {"wifiinfo", "GetWifilist", down<WifiManager>([](auto &p) {
         std::vector<WifiList> l(1);
         return !p.GetWifilist(l) && l.size() == 1;
     })},
    {"wifiinfo", "wifi module yes or not", down<WifiManager>([](auto &p) { return p.GetIsWifi(); })},
    {"wifiinfo", "disconnect current wifi", down<WifiManager>([](auto &p) { return p.DisconnectCurrentWifi(); })},
    {"wifiinfo", "GetWifimac", down<WifiManager>([](auto &p) {
         try { p.GetWifiMac(); } catch (const std::logic_error &) { return true; }
         return false;
     })},
    {"netchanage", "get current net", down<NetChanageManager>([](auto &p) { return p.GetCurrentNet() == 0; })},
    {"netchanage", "set first net", down<NetChanageManager>([](auto &p) { return !p.SetFirstNet(1); })},
    {"netchanage", "get net level", down<NetChanageManager>([](auto &p) { return p.GetNetLevel() == 0; })},
    {"vncfrpvpn", "vnc restart", down<VncFrpVpnManager>([](auto &p) { return !p.Vnc_Restart(1); })},
    {"vncfrpvpn", "set vnc passwd", down<VncFrpVpnManager>([](auto &p) { return !p.Set_Vnc_Passwd("x"); })},
    {"vncfrpvpn", "frp restart", down<VncFrpVpnManager>([](auto &p) { return !p.Frp_Restart(); })},
    {"vncfrpvpn", "frp close", down<VncFrpVpnManager>([](auto &p) { return !p.Frp_Close(); })},
    {"vncfrpvpn", "vnc close", down<VncFrpVpnManager>([](auto &p) { return !p.Vnc_Close(); })},
    {"vncfrpvpn", "vpn restart", down<VncFrpVpnManager>([](auto &p) { return !p.Vpn_Restart(1); })},
    {"vncfrpvpn", "set vpn ranage",
     down<VncFrpVpnManager>([](auto &p) { return !p.Set_Vpn_Range("a", "b", "c", "d"); })},
    {"vncfrpvpn", "get vnc flag", down<VncFrpVpnManager>([](auto &p) { return p.Get_Vnc_Flag() == 0; })},
    {"vpn", "Start", down<VpnManager>([](auto &p) { return p.Start(1), true; })},
    {"vpn", "Stop", down<VpnManager>([](auto &p) { return p.Stop(1), true; })},
    {"system", "GetUDiskRoot", down<SystemManager>([](auto &p) { return p.GetUDiskRoot().empty(); })},
    {"system", "UmountUDisk", down<SystemManager>([](auto &p) { return !p.UmountUDisk(); })},
    {"system", "GetStorageFreeSpace", down<SystemManager>([](auto &p) { return p.GetStorageFreeSpace() == 0; })},
    {"system", "GetRamFreeSpace", down<SystemManager>([](auto &p) { return p.GetRamFreeSpace() == 0; })},
    {"system", "GetDeviceID", down<SystemManager>([](auto &p) { return p.GetDeviceID().empty(); })},
    {"system", "GetDeviceType", down<SystemManager>([](auto &p) { return p.GetDeviceType() == 0; })},
    {"system", "GetDeviceSeries", down<SystemManager>([](auto &p) { return p.GetDeviceSeries() == 0; })},
    {"system", "GetDeviceModel", down<SystemManager>([](auto &p) { return p.GetDeviceModel() == 0; })},
    {"system", "GetHmiName", down<SystemManager>([](auto &p) { return p.GetHmiName().empty(); })},
    {"system", "GetVersion", down<SystemManager>([](auto &p) { return p.GetVersion("fw").empty(); })},
    {"system", "ShowSettings", down<SystemManager>([](auto &p) { return p.ShowSettings(true), true; })},
    {"system", "Reboot", down<SystemManager>([](auto &p) { return p.Reboot(), true; })},
    {"system", "IsSettingsShown", down<SystemManager>([](auto &p) { return !p.IsSettingsShown(); })},
};

TEST_F(Absent, EveryMethodPrintsItsLineAndFails)
{
    for (const Down &d : kDown) {
        SCOPED_TRACE(d.label);
        CaptureStdout();
        bool failure_value = d.failure_value();
        EXPECT_EQ(GetCapturedStdout(), std::string("Failed to find service: ") + d.service +
                                           "\nFail binder call " + d.label + "\n");
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
