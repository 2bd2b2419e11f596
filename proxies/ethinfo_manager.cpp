#include <hmisvc/proxies.h>
#include <hmisvc/records.h>

#include "proxies/call.h"

using namespace hmisvc::proxy;

HMISVC_DEFINE_PROXY(EthInfoManager, "ethinfo");

bool EthInfoManager::GetEthinfo(NetInfo &info) {
    return call<kLarge>(*this, codes_[0], "GetEthinfo", into(info), false);
}
bool EthInfoManager::SetEthinfo(NetInfo &info) {
    return call<kLarge>(*this, codes_[1], "SetEthinfo", delivered<true>, false, info);
}
std::string EthInfoManager::GetEthMac() { return call<kLarge>(*this, codes_[2], "GetEthmac", text, throws); }
