// The proxy methods as rows of data. Each row names its arguments and says
// how to call the method and read its result; main.cpp builds the CLI11
// subcommands from the rows.
//
// Exit status: a call that returns a failure value exits 1. Void methods
// and queries whose failure value is also a valid answer (a flag that reads
// false, a setting that reads its default) cannot tell; the library's
// "Fail binder call ..." line on stdout is then the only sign.
#include "commands.h"

#include <cstdio>
#include <iostream>
#include <memory>
#include <stdexcept>

#include <hmisvc/broadcast.h>
#include <hmisvc/context.h>
#include <hmisvc/proxies.h>
#include <hmisvc/records.h>

namespace cli {
namespace {

constexpr Type I = Type::Int, S = Type::Text, B = Type::Bool;

// A fresh proxy of the concrete class for each command.
template <class Proxy>
std::shared_ptr<Proxy> proxy()
{
    auto p = std::dynamic_pointer_cast<Proxy>(Context::getSystemService(Proxy::SERVICE_NAME));
    if (!p)
        throw std::runtime_error("no proxy for service " + Proxy::SERVICE_NAME);
    return p;
}

// Binds a method call on a Proxy to the table's Invoke shape.
template <class Proxy, class Call>
Invoke on(Call call)
{
    return [call](const Values &v) { return call(*proxy<Proxy>(), v); };
}

// Result readers: print the value, map it to the exit status.
int ok(bool success)
{
    std::cout << (success ? "ok" : "failed") << '\n';
    return success ? 0 : 1;
}
int flag(bool value)
{
    std::cout << (value ? "true" : "false") << '\n';
    return 0;
}
int number(long value, bool minusOneFails = true)
{
    std::cout << value << '\n';
    return minusOneFails && value == -1 ? 1 : 0;
}
int text(const std::string &value, bool emptyFails = true)
{
    std::cout << value << '\n';
    return emptyFails && value.empty() ? 1 : 0;
}
int done() { return 0; }

int fields(bool success, std::initializer_list<std::pair<const char *, std::string>> list)
{
    if (!success)
        return ok(false);
    for (auto &[name, value] : list)
        std::cout << name << '=' << value << '\n';
    return 0;
}
#define HMISVC_TEXTS(i)                                                              \
    {"text1", i.text1}, {"text2", i.text2}, {"text3", i.text3}, {"text4", i.text4}, \
        {"text5", i.text5}, {"text6", i.text6}

void printDate(const Date &d)
{
    std::printf("%04d-%02d-%02d %02d:%02d:%02d.%d extra=%d\n", d.year, d.month, d.day, d.hour,
                d.minute, d.second, d.subsecond, d.extra);
}

const std::vector<Group> groupTable = {
    {"system", "Storage, identity, firmware versions, settings screen, reboot (service \"system\")"},
    {"settings", "Persistent values by section and key (service \"settings\")"},
    {"backlight", "Screen brightness and its lock (service \"backlight\")"},
    {"beep", "The beeper (service \"beep\")"},
    {"date", "System date and time (service \"date\")"},
    {"eth", "Wired Ethernet settings and MAC address (service \"ethinfo\")"},
    {"4g", "The 4G modem (service \"4ginfo\")"},
    {"wifi", "Wi-Fi state, scan list, connect, disconnect (service \"wifiinfo\")"},
    {"net", "Network preference and level (service \"netchanage\")"},
    {"vnc", "VNC server, frp tunnel and VPN (service \"vncfrpvpn\")"},
    {"vpn", "The VPN (service \"vpn\")"},
    {"broadcast", "Send and receive broadcasts (service \"broadcast\")"},
};

const std::vector<Command> table = {
    // system
    {"system", "udisk-root", "Mount point of the USB disk", {},
     on<SystemManager>([](SystemManager &p, auto &) { return text(p.GetUDiskRoot()); })},
    {"system", "udisk-mounted", "Whether the USB disk is mounted (answered locally)", {},
     on<SystemManager>([](SystemManager &p, auto &) { return flag(p.UDiskMounted()); })},
    {"system", "umount-udisk", "Unmount the USB disk", {},
     on<SystemManager>([](SystemManager &p, auto &) { return ok(p.UmountUDisk()); })},
    {"system", "storage-free", "Free storage space", {},
     on<SystemManager>([](SystemManager &p, auto &) { return number(p.GetStorageFreeSpace()); })},
    {"system", "ram-free", "Free RAM", {},
     on<SystemManager>([](SystemManager &p, auto &) { return number(p.GetRamFreeSpace()); })},
    {"system", "device-id", "Device identifier", {},
     on<SystemManager>([](SystemManager &p, auto &) { return text(p.GetDeviceID()); })},
    {"system", "device-type", "Device type", {},
     on<SystemManager>([](SystemManager &p, auto &) { return number(p.GetDeviceType()); })},
    {"system", "device-series", "Device series", {},
     on<SystemManager>([](SystemManager &p, auto &) { return number(p.GetDeviceSeries()); })},
    {"system", "device-model", "Device model", {},
     on<SystemManager>([](SystemManager &p, auto &) { return number(p.GetDeviceModel()); })},
    {"system", "hmi-name", "Name of the HMI", {},
     on<SystemManager>([](SystemManager &p, auto &) { return text(p.GetHmiName()); })},
    {"system", "version", "Version of a firmware part", {{"NAME", S}},
     on<SystemManager>([](SystemManager &p, auto &v) { return text(p.GetVersion(v.text(0))); })},
    {"system", "show-settings", "Show or hide the settings screen", {{"SHOW", B}},
     on<SystemManager>([](SystemManager &p, auto &v) { p.ShowSettings(v.flag(0)); return done(); })},
    {"system", "reboot", "Reboot the device", {},
     on<SystemManager>([](SystemManager &p, auto &) { p.Reboot(); return done(); })},
    {"system", "settings-shown", "Whether the settings screen is shown", {},
     on<SystemManager>([](SystemManager &p, auto &) { return flag(p.IsSettingsShown()); })},

    // settings
    {"settings", "get", "A stored string, or DEFAULT", {{"SECTION", S}, {"KEY", S}, {"DEFAULT", S}},
     on<SettingsManager>([](SettingsManager &p, auto &v) {
         return text(p.GetValue(v.text(0), v.text(1), v.text(2)), false);
     })},
    {"settings", "get-long", "A stored number, or DEFAULT", {{"SECTION", S}, {"KEY", S}, {"DEFAULT", I}},
     on<SettingsManager>([](SettingsManager &p, auto &v) {
         return number(p.GetLongValue(v.text(0), v.text(1), v.num(2)), false);
     })},
    {"settings", "set", "Store a string", {{"SECTION", S}, {"KEY", S}, {"VALUE", S}},
     on<SettingsManager>([](SettingsManager &p, auto &v) {
         return number(p.SetValue(v.text(0), v.text(1), v.text(2)));
     })},
    {"settings", "set-long", "Store a number", {{"SECTION", S}, {"KEY", S}, {"VALUE", I}},
     on<SettingsManager>([](SettingsManager &p, auto &v) {
         return number(p.SetLongValue(v.text(0), v.text(1), v.num(2)));
     })},
    {"settings", "delete", "Delete a value", {{"SECTION", S}, {"KEY", S}},
     on<SettingsManager>([](SettingsManager &p, auto &v) { return number(p.Delete(v.text(0), v.text(1))); })},
    {"settings", "save", "Write the store to its file", {},
     on<SettingsManager>([](SettingsManager &p, auto &) { return number(p.SaveFile()); })},

    // backlight
    {"backlight", "get", "Current brightness", {},
     on<BacklightManager>([](BacklightManager &p, auto &) { return number(p.GetBrightness()); })},
    {"backlight", "max", "Maximum brightness", {},
     on<BacklightManager>([](BacklightManager &p, auto &) { return number(p.GetMaxBrightness()); })},
    {"backlight", "set", "Set the brightness", {{"LEVEL", I}},
     on<BacklightManager>([](BacklightManager &p, auto &v) { return ok(p.SetBrightness(int(v.num(0)))); })},
    {"backlight", "set-max", "Set the brightness to its maximum", {},
     on<BacklightManager>([](BacklightManager &p, auto &) { return ok(p.SetBrightnessToMax()); })},
    {"backlight", "lock", "Lock the brightness", {{"VALUE", I}},
     on<BacklightManager>([](BacklightManager &p, auto &v) { p.Lock(int(v.num(0))); return done(); })},
    {"backlight", "unlock", "Unlock the brightness", {},
     on<BacklightManager>([](BacklightManager &p, auto &) { p.Unlock(); return done(); })},

    // beep
    {"beep", "beep", "Sound the beeper", {{"A", I}, {"B", I}},
     on<BeepManager>([](BeepManager &p, auto &v) { p.Beep(int(v.num(0)), int(v.num(1))); return done(); })},

    // date
    {"date", "get", "System date and time", {},
     on<DateManager>([](DateManager &p, auto &) {
         Date d;
         d.year = -1; // left alone by a failed call
         p.GetTime(d);
         if (d.year == -1)
             return ok(false);
         printDate(d);
         return 0;
     })},
    {"date", "set", "Set the date and time",
     {{"YEAR", I}, {"MONTH", I}, {"DAY", I}, {"HOUR", I}, {"MINUTE", I}, {"SECOND", I}},
     on<DateManager>([](DateManager &p, auto &v) {
         Date d;
         d.year = int(v.num(0)), d.month = int(v.num(1)), d.day = int(v.num(2));
         d.hour = int(v.num(3)), d.minute = int(v.num(4)), d.second = int(v.num(5));
         p.SetTime(d);
         return done();
     })},
    {"date", "set-modifiable", "Allow or forbid changing the date", {{"MODIFIABLE", B}},
     on<DateManager>([](DateManager &p, auto &v) { p.SetModifiable(v.flag(0)); return done(); })},
    {"date", "modifiable", "Whether the date may be changed", {},
     on<DateManager>([](DateManager &p, auto &) { return flag(p.Modifiable()); })},

    // eth
    {"eth", "get", "Ethernet settings", {},
     on<EthInfoManager>([](EthInfoManager &p, auto &) {
         NetInfo i;
         bool success = p.GetEthinfo(i);
         return fields(success, {HMISVC_TEXTS(i), {"kind", std::to_string(int(i.kind))}});
     })},
    {"eth", "set", "Change the Ethernet settings",
     {{"TEXT1", S}, {"TEXT2", S}, {"TEXT3", S}, {"TEXT4", S}, {"TEXT5", S}, {"TEXT6", S}, {"KIND", I}},
     on<EthInfoManager>([](EthInfoManager &p, auto &v) {
         NetInfo i;
         i.text1 = v.text(0), i.text2 = v.text(1), i.text3 = v.text(2);
         i.text4 = v.text(3), i.text5 = v.text(4), i.text6 = v.text(5);
         i.kind = NetInfo::Kind(v.num(6));
         return ok(p.SetEthinfo(i));
     })},
    {"eth", "mac", "Ethernet MAC address", {},
     on<EthInfoManager>([](EthInfoManager &p, auto &) { return text(p.GetEthMac()); })},

    // 4g
    {"4g", "get", "4G modem state", {},
     on<P4gManager>([](P4gManager &p, auto &) {
         P4gInfo i;
         bool success = p.Get4ginfo(i);
         return fields(success, {HMISVC_TEXTS(i), {"kind", std::to_string(int(i.kind))},
                                 {"value", std::to_string(i.value)}});
     })},
    {"4g", "is-4g", "Whether the 4G network is in use", {},
     on<P4gManager>([](P4gManager &p, auto &) { return flag(p.GetIs4G()); })},
    {"4g", "ccid", "SIM card CCID", {},
     on<P4gManager>([](P4gManager &p, auto &) { return text(p.Get4GCcid()); })},

    // wifi
    {"wifi", "get", "Wi-Fi state", {},
     on<WifiManager>([](WifiManager &p, auto &) {
         WifiInfo i;
         bool success = p.GetWifiinfo(i);
         return fields(success, {HMISVC_TEXTS(i), {"value", std::to_string(i.value)}});
     })},
    {"wifi", "connect", "Connect to a network", {{"SSID", S}, {"PASSWORD", S}, {"OPTION", I}},
     on<WifiManager>([](WifiManager &p, auto &v) {
         return number(p.SetWifiConnection(v.text(0), v.text(1), int(v.num(2))));
     })},
    {"wifi", "list", "Scan list, one network a line: text1 text2 text3 value text4 kind", {},
     on<WifiManager>([](WifiManager &p, auto &) {
         std::vector<WifiList> list;
         if (!p.GetWifilist(list))
             return ok(false);
         for (auto &n : list)
             std::cout << n.text1 << '\t' << n.text2 << '\t' << n.text3 << '\t' << n.value << '\t'
                       << n.text4 << '\t' << int(n.kind) << '\n';
         return 0;
     })},
    {"wifi", "is-wifi", "Whether Wi-Fi is in use", {},
     on<WifiManager>([](WifiManager &p, auto &) { return flag(p.GetIsWifi()); })},
    {"wifi", "disconnect", "Leave the current network", {},
     on<WifiManager>([](WifiManager &p, auto &) { return ok(p.DisconnectCurrentWifi()); })},
    {"wifi", "mac", "Wi-Fi MAC address", {},
     on<WifiManager>([](WifiManager &p, auto &) { return text(p.GetWifiMac()); })},

    // net
    {"net", "current", "Network in use", {},
     on<NetChanageManager>([](NetChanageManager &p, auto &) { return number(p.GetCurrentNet()); })},
    {"net", "set-first", "Preferred network", {{"NET", I}},
     on<NetChanageManager>([](NetChanageManager &p, auto &v) { return ok(p.SetFirstNet(int(v.num(0)))); })},
    {"net", "level", "Level of the network in use", {},
     on<NetChanageManager>([](NetChanageManager &p, auto &) { return number(p.GetNetLevel()); })},

    // vncfrpvpn
    {"vnc", "vnc-restart", "Restart the VNC server", {{"VALUE", I}},
     on<VncFrpVpnManager>([](VncFrpVpnManager &p, auto &v) { return ok(p.Vnc_Restart(int(v.num(0)))); })},
    {"vnc", "vnc-passwd", "Set the VNC password", {{"PASSWORD", S}},
     on<VncFrpVpnManager>([](VncFrpVpnManager &p, auto &v) { return ok(p.Set_Vnc_Passwd(v.text(0))); })},
    {"vnc", "frp-restart", "Restart the frp tunnel", {},
     on<VncFrpVpnManager>([](VncFrpVpnManager &p, auto &) { return ok(p.Frp_Restart()); })},
    {"vnc", "frp-close", "Close the frp tunnel (the result tells nothing)", {},
     on<VncFrpVpnManager>([](VncFrpVpnManager &p, auto &) { p.Frp_Close(); return done(); })},
    {"vnc", "vnc-close", "Stop the VNC server", {},
     on<VncFrpVpnManager>([](VncFrpVpnManager &p, auto &) { return ok(p.Vnc_Close()); })},
    {"vnc", "vpn-restart", "Restart the VPN", {{"VALUE", I}},
     on<VncFrpVpnManager>([](VncFrpVpnManager &p, auto &v) { return ok(p.Vpn_Restart(int(v.num(0)))); })},
    {"vnc", "vpn-range", "Set the VPN range", {{"A", S}, {"B", S}, {"C", S}, {"D", S}},
     on<VncFrpVpnManager>([](VncFrpVpnManager &p, auto &v) {
         return ok(p.Set_Vpn_Range(v.text(0), v.text(1), v.text(2), v.text(3)));
     })},
    {"vnc", "vnc-flag", "VNC state flag", {},
     on<VncFrpVpnManager>([](VncFrpVpnManager &p, auto &) { return number(p.Get_Vnc_Flag()); })},

    // vpn
    {"vpn", "start", "Start the VPN", {{"VALUE", I}},
     on<VpnManager>([](VpnManager &p, auto &v) { p.Start(int(v.num(0))); return done(); })},
    {"vpn", "stop", "Stop the VPN", {{"VALUE", I}},
     on<VpnManager>([](VpnManager &p, auto &v) { p.Stop(int(v.num(0))); return done(); })},

    // broadcast (send and listen are built in main.cpp: they take options)
    {"broadcast", "register", "Announce a receiving endpoint by name", {{"NAME", S}},
     on<BroadcastManager>([](BroadcastManager &p, auto &v) {
         return number(p.RegisterBroadcastService(v.text(0)));
     })},
};

} // namespace

const std::vector<Group> &groups() { return groupTable; }
const std::vector<Command> &commands() { return table; }

} // namespace cli
