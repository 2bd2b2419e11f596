// The proxy methods as rows of data. Each row names its arguments and says
// how to call the method and read its result; main.cpp builds the CLI11
// subcommands from the rows.
//
// A failed call is seen in the library's "Fail binder call" line (see
// LibraryLines), so void methods and flags fail visibly too. Records print
// with field names after what the simulator keeps in them; the design fixes
// only their order (text1..text6, kind, value).
#include "commands.h"

#include <cstdio>
#include <memory>

#include <hmisvc/broadcast.h>
#include <hmisvc/context.h>
#include <hmisvc/proxies.h>
#include <hmisvc/records.h>

namespace cli {
namespace {

constexpr Type I = Type::Int, S = Type::Text, B = Type::Bool;

// Binds a method call on a fresh proxy of the concrete class to the table's
// Invoke shape.
template <class Proxy, class Call>
Invoke on(Call call)
{
    return [call](const Values &v) {
        return callService(Proxy::SERVICE_NAME, [&] {
            auto p = std::dynamic_pointer_cast<Proxy>(Context::getSystemService(Proxy::SERVICE_NAME));
            return call(*p, v);
        });
    };
}

// Result readers.
Reply value(Json v) { return {kOk, std::move(v), "", ""}; }
// A success flag; callService says which service answered false.
Reply ok(bool success) { return success ? done() : Reply{kFailed, nullptr, "", ""}; }
// A status answer: 0 done, anything else the service's refusal.
template <class Proxy>
Reply status(long answer)
{
    return answer == 0 ? done() : refused(Proxy::SERVICE_NAME, answer);
}
Reply record(bool success, Json fields) { return success ? value(std::move(fields)) : ok(false); }

Json netInfo(const NetInfo &i)
{
    return {{"address", i.text1}, {"netmask", i.text2}, {"gateway", i.text3}, {"dns1", i.text4},
            {"dns2", i.text5},    {"interface", i.text6}, {"kind", int(i.kind)}};
}
Json p4gInfo(const P4gInfo &i)
{
    return {{"operator", i.text1}, {"imei", i.text2}, {"address", i.text3}, {"apn", i.text4},
            {"mode", i.text5},     {"state", i.text6}, {"kind", int(i.kind)}, {"level", i.value}};
}
Json wifiInfo(const WifiInfo &i)
{
    return {{"ssid", i.text1},  {"address", i.text2}, {"netmask", i.text3}, {"gateway", i.text4},
            {"bssid", i.text5}, {"state", i.text6},   {"signal", i.value}};
}
Json wifiNetwork(const WifiList &n)
{
    return {{"ssid", n.text1},   {"bssid", n.text2},     {"security", n.text3},
            {"signal", n.value}, {"frequency", n.text4}, {"kind", int(n.kind)}};
}

Reply date(const Date &d)
{
    char text[64];
    std::snprintf(text, sizeof text, "%04d-%02d-%02d %02d:%02d:%02d.%03d extra=%d", d.year, d.month,
                  d.day, d.hour, d.minute, d.second, d.subsecond, d.extra);
    Json fields = {{"year", d.year},     {"month", d.month},         {"day", d.day},
                   {"hour", d.hour},     {"minute", d.minute},       {"second", d.second},
                   {"subsecond", d.subsecond}, {"extra", d.extra}};
    return {kOk, fields, text, ""};
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

// Arguments several commands share.
const Arg kValue{"VALUE", I, "Number passed on to the service as it is"};
const Arg kSection{"SECTION", S, "Section of the store"}, kKey{"KEY", S, "Key within the section"};

const std::vector<Command> table = {
    // system
    {"system", "udisk-root", "Mount point of the USB disk", {},
     on<SystemManager>([](SystemManager &p, auto &) { return value(p.GetUDiskRoot()); })},
    {"system", "udisk-mounted", "Whether the USB disk is mounted (answered locally)", {},
     on<SystemManager>([](SystemManager &p, auto &) { return value(p.UDiskMounted()); })},
    {"system", "umount-udisk", "Unmount the USB disk", {},
     on<SystemManager>([](SystemManager &p, auto &) { return ok(p.UmountUDisk()); })},
    {"system", "storage-free", "Free storage space (the simulator: KiB)", {},
     on<SystemManager>([](SystemManager &p, auto &) { return value(p.GetStorageFreeSpace()); })},
    {"system", "ram-free", "Free RAM (the simulator: KiB)", {},
     on<SystemManager>([](SystemManager &p, auto &) { return value(p.GetRamFreeSpace()); })},
    {"system", "device-id", "Device identifier", {},
     on<SystemManager>([](SystemManager &p, auto &) { return value(p.GetDeviceID()); })},
    {"system", "device-type", "Device type", {},
     on<SystemManager>([](SystemManager &p, auto &) { return value(p.GetDeviceType()); })},
    {"system", "device-series", "Device series", {},
     on<SystemManager>([](SystemManager &p, auto &) { return value(p.GetDeviceSeries()); })},
    {"system", "device-model", "Device model", {},
     on<SystemManager>([](SystemManager &p, auto &) { return value(p.GetDeviceModel()); })},
    {"system", "hmi-name", "Name of the HMI", {},
     on<SystemManager>([](SystemManager &p, auto &) { return value(p.GetHmiName()); })},
    {"system", "version", "Version of a firmware part", {{"NAME", S, "Name of the firmware part"}},
     on<SystemManager>([](SystemManager &p, auto &v) { return value(p.GetVersion(v.text(0))); })},
    {"system", "show-settings", "Show or hide the settings screen",
     {{"SHOW", B, "true/1 to show, false/0 to hide"}},
     on<SystemManager>([](SystemManager &p, auto &v) { p.ShowSettings(v.flag(0)); return done(); })},
    {"system", "reboot", "Reboot the device", {},
     on<SystemManager>([](SystemManager &p, auto &) { p.Reboot(); return done(); })},
    {"system", "settings-shown", "Whether the settings screen is shown", {},
     on<SystemManager>([](SystemManager &p, auto &) { return value(p.IsSettingsShown()); })},

    // settings
    {"settings", "get", "A stored string, or DEFAULT",
     {kSection, kKey, {"DEFAULT", S, "Printed when the key is not stored"}},
     on<SettingsManager>([](SettingsManager &p, auto &v) {
         return value(p.GetValue(v.text(0), v.text(1), v.text(2)));
     })},
    {"settings", "get-long", "A stored number, or DEFAULT",
     {kSection, kKey, {"DEFAULT", I, "Printed when the key is not stored"}},
     on<SettingsManager>([](SettingsManager &p, auto &v) {
         return value(p.GetLongValue(v.text(0), v.text(1), v.num(2)));
     })},
    {"settings", "set", "Store a string", {kSection, kKey, {"VALUE", S, "String to store"}},
     on<SettingsManager>([](SettingsManager &p, auto &v) {
         return status<SettingsManager>(p.SetValue(v.text(0), v.text(1), v.text(2)));
     })},
    {"settings", "set-long", "Store a number", {kSection, kKey, {"VALUE", I, "Number to store"}},
     on<SettingsManager>([](SettingsManager &p, auto &v) {
         return status<SettingsManager>(p.SetLongValue(v.text(0), v.text(1), v.num(2)));
     })},
    {"settings", "delete", "Delete a value", {kSection, kKey},
     on<SettingsManager>([](SettingsManager &p, auto &v) {
         return status<SettingsManager>(p.Delete(v.text(0), v.text(1)));
     })},
    {"settings", "save", "Write the store to its file", {},
     on<SettingsManager>([](SettingsManager &p, auto &) { return status<SettingsManager>(p.SaveFile()); })},

    // backlight
    {"backlight", "get", "Current brightness", {},
     on<BacklightManager>([](BacklightManager &p, auto &) { return value(p.GetBrightness()); })},
    {"backlight", "max", "Maximum brightness", {},
     on<BacklightManager>([](BacklightManager &p, auto &) { return value(p.GetMaxBrightness()); })},
    {"backlight", "set", "Set the brightness", {{"LEVEL", I, "Brightness, 0 to `backlight max`"}},
     on<BacklightManager>([](BacklightManager &p, auto &v) { return ok(p.SetBrightness(v.num(0))); })},
    {"backlight", "set-max", "Set the brightness to its maximum", {},
     on<BacklightManager>([](BacklightManager &p, auto &) { return ok(p.SetBrightnessToMax()); })},
    {"backlight", "lock", "Lock the brightness", {kValue},
     on<BacklightManager>([](BacklightManager &p, auto &v) { p.Lock(v.num(0)); return done(); })},
    {"backlight", "unlock", "Unlock the brightness", {},
     on<BacklightManager>([](BacklightManager &p, auto &) { p.Unlock(); return done(); })},

    // beep
    {"beep", "beep", "Sound the beeper", {{"A", I, "First number (passed on)"}, {"B", I, "Second number (passed on)"}},
     on<BeepManager>([](BeepManager &p, auto &v) { p.Beep(v.num(0), v.num(1)); return done(); })},

    // date
    {"date", "get", "System date and time; subsecond in milliseconds, extra the weekday (0 Sunday)", {},
     on<DateManager>([](DateManager &p, auto &) {
         Date d;
         p.GetTime(d);
         return date(d);
     })},
    {"date", "set", "Set the date and time",
     {{"YEAR", I, "Full year"}, {"MONTH", I, "1-12"}, {"DAY", I, "1-31"}, {"HOUR", I, "0-23"},
      {"MINUTE", I, "0-59"}, {"SECOND", I, "0-59"}},
     on<DateManager>([](DateManager &p, auto &v) {
         Date d;
         d.year = v.num(0), d.month = v.num(1), d.day = v.num(2);
         d.hour = v.num(3), d.minute = v.num(4), d.second = v.num(5);
         p.SetTime(d);
         return done();
     })},
    {"date", "set-modifiable", "Allow or forbid changing the date",
     {{"MODIFIABLE", B, "true/1 to allow, false/0 to forbid"}},
     on<DateManager>([](DateManager &p, auto &v) { p.SetModifiable(v.flag(0)); return done(); })},
    {"date", "modifiable", "Whether the date may be changed", {},
     on<DateManager>([](DateManager &p, auto &) { return value(p.Modifiable()); })},

    // eth
    {"eth", "get", "Ethernet settings", {},
     on<EthInfoManager>([](EthInfoManager &p, auto &) {
         NetInfo i;
         bool success = p.GetEthinfo(i);
         return record(success, netInfo(i));
     })},
    {"eth", "set", "Change the Ethernet settings",
     {{"ADDRESS", S, "text1: IP address"}, {"NETMASK", S, "text2: netmask"}, {"GATEWAY", S, "text3: gateway"},
      {"DNS1", S, "text4: first DNS server"}, {"DNS2", S, "text5: second DNS server"},
      {"INTERFACE", S, "text6: interface name"}, {"KIND", I, "kind: 0 static, 1 DHCP"}},
     on<EthInfoManager>([](EthInfoManager &p, auto &v) {
         NetInfo i;
         i.text1 = v.text(0), i.text2 = v.text(1), i.text3 = v.text(2);
         i.text4 = v.text(3), i.text5 = v.text(4), i.text6 = v.text(5);
         i.kind = NetInfo::Kind(v.num(6));
         return ok(p.SetEthinfo(i));
     })},
    {"eth", "mac", "Ethernet MAC address", {},
     on<EthInfoManager>([](EthInfoManager &p, auto &) { return value(p.GetEthMac()); })},

    // 4g
    {"4g", "get", "4G modem state", {},
     on<P4gManager>([](P4gManager &p, auto &) {
         P4gInfo i;
         bool success = p.Get4ginfo(i);
         return record(success, p4gInfo(i));
     })},
    {"4g", "is-4g", "Whether the 4G network is in use", {},
     on<P4gManager>([](P4gManager &p, auto &) { return value(p.GetIs4G()); })},
    {"4g", "ccid", "SIM card CCID", {},
     on<P4gManager>([](P4gManager &p, auto &) { return value(p.Get4GCcid()); })},

    // wifi
    {"wifi", "get", "Wi-Fi state", {},
     on<WifiManager>([](WifiManager &p, auto &) {
         WifiInfo i;
         bool success = p.GetWifiinfo(i);
         return record(success, wifiInfo(i));
     })},
    {"wifi", "connect", "Connect to a network",
     {{"SSID", S, "Network name"}, {"PASSWORD", S, "Password"}, {"OPTION", I, "Number passed on to the service"}},
     on<WifiManager>([](WifiManager &p, auto &v) {
         return status<WifiManager>(p.SetWifiConnection(v.text(0), v.text(1), v.num(2)));
     })},
    {"wifi", "list", "Scan list, one network a line: ssid bssid security signal frequency kind", {},
     on<WifiManager>([](WifiManager &p, auto &) {
         std::vector<WifiList> list;
         if (!p.GetWifilist(list))
             return ok(false);
         Json networks = Json::array();
         for (auto &n : list)
             networks.push_back(wifiNetwork(n));
         return value(networks);
     })},
    {"wifi", "is-wifi", "Whether Wi-Fi is in use", {},
     on<WifiManager>([](WifiManager &p, auto &) { return value(p.GetIsWifi()); })},
    {"wifi", "disconnect", "Leave the current network", {},
     on<WifiManager>([](WifiManager &p, auto &) { return ok(p.DisconnectCurrentWifi()); })},
    {"wifi", "mac", "Wi-Fi MAC address", {},
     on<WifiManager>([](WifiManager &p, auto &) { return value(p.GetWifiMac()); })},

    // net
    {"net", "current", "Network in use (the simulator: 0 Ethernet, 1 Wi-Fi, 2 4G)", {},
     on<NetChanageManager>([](NetChanageManager &p, auto &) { return value(p.GetCurrentNet()); })},
    {"net", "set-first", "Preferred network", {{"NET", I, "Network number (the simulator: 0 Ethernet, 1 Wi-Fi, 2 4G)"}},
     on<NetChanageManager>([](NetChanageManager &p, auto &v) { return ok(p.SetFirstNet(v.num(0))); })},
    {"net", "level", "Signal level of the network in use (the simulator: 0-5)", {},
     on<NetChanageManager>([](NetChanageManager &p, auto &) { return value(p.GetNetLevel()); })},

    // vncfrpvpn
    {"vnc", "vnc-restart", "Restart the VNC server", {kValue},
     on<VncFrpVpnManager>([](VncFrpVpnManager &p, auto &v) { return ok(p.Vnc_Restart(v.num(0))); })},
    {"vnc", "vnc-passwd", "Set the VNC password", {{"PASSWORD", S, "New password"}},
     on<VncFrpVpnManager>([](VncFrpVpnManager &p, auto &v) { return ok(p.Set_Vnc_Passwd(v.text(0))); })},
    {"vnc", "frp-restart", "Restart the frp tunnel", {},
     on<VncFrpVpnManager>([](VncFrpVpnManager &p, auto &) { return ok(p.Frp_Restart()); })},
    {"vnc", "frp-close", "Close the frp tunnel (the service's answer is not passed on)", {},
     on<VncFrpVpnManager>([](VncFrpVpnManager &p, auto &) { p.Frp_Close(); return done(); })},
    {"vnc", "vnc-close", "Stop the VNC server", {},
     on<VncFrpVpnManager>([](VncFrpVpnManager &p, auto &) { return ok(p.Vnc_Close()); })},
    {"vnc", "vpn-restart", "Restart the VPN", {kValue},
     on<VncFrpVpnManager>([](VncFrpVpnManager &p, auto &v) { return ok(p.Vpn_Restart(v.num(0))); })},
    {"vnc", "vpn-range", "Set the VPN range",
     {{"A", S, "First text (passed on)"}, {"B", S, "Second text"}, {"C", S, "Third text"}, {"D", S, "Fourth text"}},
     on<VncFrpVpnManager>([](VncFrpVpnManager &p, auto &v) {
         return ok(p.Set_Vpn_Range(v.text(0), v.text(1), v.text(2), v.text(3)));
     })},
    {"vnc", "vnc-flag", "State flags (the simulator: 1 VNC, 2 frp, 4 VPN running)", {},
     on<VncFrpVpnManager>([](VncFrpVpnManager &p, auto &) { return value(p.Get_Vnc_Flag()); })},

    // vpn
    {"vpn", "start", "Start the VPN", {kValue},
     on<VpnManager>([](VpnManager &p, auto &v) { p.Start(v.num(0)); return done(); })},
    {"vpn", "stop", "Stop the VPN", {kValue},
     on<VpnManager>([](VpnManager &p, auto &v) { p.Stop(v.num(0)); return done(); })},

    // broadcast (send and listen are built in broadcast.cpp: they take options)
    {"broadcast", "register", "Announce a receiving endpoint by name", {{"NAME", S, "Endpoint name"}},
     on<BroadcastManager>([](BroadcastManager &p, auto &v) {
         return value(p.RegisterBroadcastService(v.text(0)));
     })},
};

} // namespace

const std::vector<Group> &groups() { return groupTable; }
const std::vector<Command> &commands() { return table; }

} // namespace cli
