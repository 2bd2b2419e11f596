#include <hmisvc/proxies.h>

#include "proxies/call.h"

using namespace hmisvc::proxy;

HMISVC_DEFINE_PROXY(VncFrpVpnManager, "vncfrpvpn");

bool VncFrpVpnManager::Vnc_Restart(int value) {
    return call<kSmall>(*this, codes_[0], "vnc restart", delivered<true>, false, value);
}
bool VncFrpVpnManager::Set_Vnc_Passwd(std::string password) {
    return call<kSmall>(*this, codes_[1], "set vnc passwd", delivered<true>, false, password);
}
bool VncFrpVpnManager::Frp_Restart() { return call<kSmall>(*this, codes_[2], "frp restart", flag, false); }
// Answers false whether or not it was delivered.
bool VncFrpVpnManager::Frp_Close() { return call<kSmall>(*this, codes_[3], "frp close", delivered<false>, false); }
bool VncFrpVpnManager::Vnc_Close() { return call<kSmall>(*this, codes_[4], "vnc close", delivered<true>, false); }
bool VncFrpVpnManager::Vpn_Restart(int value) {
    return call<kSmall>(*this, codes_[5], "vpn restart", delivered<true>, false, value);
}
bool VncFrpVpnManager::Set_Vpn_Range(std::string a, std::string b, std::string c, std::string d) {
    return call<kSmall>(*this, codes_[6], "set vpn ranage", delivered<true>, false, a, b, c, d);
}
int VncFrpVpnManager::Get_Vnc_Flag() { return call<kLarge>(*this, codes_[7], "get vnc flag", word, 0); }
