#include <functional>
#include <utility>

#include <hmisvc/context.h>
#include <hmisvc/proxies.h>

std::string Context::SETTINGS_SERVICE = "settings";
std::string Context::BACKLIGHT_SERVICE = "backlight";
std::string Context::ETHINFO_SERVICE = "ethinfo";
std::string Context::P4GINFO_SERVICE = "4ginfo";
std::string Context::WIFIINFO_SERVICE = "wifiinfo";
std::string Context::NETCHANAGE_SERVICE = "netchanage";
std::string Context::VNCFRPVPN_SERVICE = "vncfrpvpn";
std::string Context::BROADCAST_SERVICE = "broadcast";
std::string Context::DATE_SERVICE = "date";
std::string Context::VPN_SERVICE = "vpn";
std::string Context::SYSTEM_SERVICE = "system";
std::string Context::BEEP_SERVICE = "beep";

namespace {

template <class Proxy> std::shared_ptr<ServiceManager> make() { return std::make_shared<Proxy>(); }

struct Entry {
    const std::string &name;
    std::shared_ptr<ServiceManager> (*build)();
};

} // namespace

std::shared_ptr<ServiceManager> Context::getSystemService(std::string name) {
    static const Entry table[] = {
        {SETTINGS_SERVICE, make<SettingsManager>},   {BACKLIGHT_SERVICE, make<BacklightManager>},
        {ETHINFO_SERVICE, make<EthInfoManager>},     {P4GINFO_SERVICE, make<P4gManager>},
        {WIFIINFO_SERVICE, make<WifiManager>},       {NETCHANAGE_SERVICE, make<NetChanageManager>},
        {VNCFRPVPN_SERVICE, make<VncFrpVpnManager>}, {BROADCAST_SERVICE, make<BroadcastManager>},
        {DATE_SERVICE, make<DateManager>},           {VPN_SERVICE, make<VpnManager>},
        {SYSTEM_SERVICE, make<SystemManager>},       {BEEP_SERVICE, make<BeepManager>},
    };
    for (const Entry &e : table)
        if (e.name == name)
            return e.build();
    return nullptr;
}

void Context::SendBroadcast(Intent &intent) {
    auto manager = std::dynamic_pointer_cast<BroadcastManager>(getSystemService(BROADCAST_SERVICE));
    manager->SendBroadcast(intent);
}
