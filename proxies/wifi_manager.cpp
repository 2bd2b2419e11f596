#include <hmisvc/proxies.h>
#include <hmisvc/records.h>

#include "proxies/call.h"

using namespace hmisvc::proxy;

HMISVC_DEFINE_PROXY(WifiManager, "wifiinfo");

bool WifiManager::GetWifiinfo(WifiInfo &info) {
    return call<kLarge>(*this, codes_[0], "GetWifiinfo", into(info), false);
}

int WifiManager::SetWifiConnection(std::string ssid, std::string password, int option) {
    return call<kLarge>(*this, codes_[1], "wifi connect", word, -1, ssid, password, option);
}

bool WifiManager::GetWifilist(std::vector<WifiList> &list) {
    // A count, then one record block per network; appended, not replaced.
    auto entries = [&list](binder_io *reply) {
        int32_t count = static_cast<int32_t>(bio_get_uint32(reply));
        WifiList scratch;
        for (int32_t i = 0; i < count; ++i) {
            scratch.fromString(take_block(reply));
            list.push_back(scratch);
        }
        return true;
    };
    return call<kLarge>(*this, codes_[2], "GetWifilist", entries, false);
}

// Failed presence and disconnect queries answer yes.
bool WifiManager::GetIsWifi() { return call<kLarge>(*this, codes_[3], "wifi module yes or not", flag, true); }
bool WifiManager::DisconnectCurrentWifi() {
    return call<kLarge>(*this, codes_[4], "disconnect current wifi", flag, true);
}
std::string WifiManager::GetWifiMac() { return call<kLarge>(*this, codes_[5], "GetWifimac", text, throws); }
