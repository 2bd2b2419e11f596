#include <hmisvc/proxies.h>

#include "proxies/call.h"

using namespace hmisvc::proxy;

HMISVC_DEFINE_PROXY(NetChanageManager, "netchanage");

int NetChanageManager::GetCurrentNet() { return call<kLarge>(*this, codes_[0], "get current net", word, 0); }
bool NetChanageManager::SetFirstNet(int net) {
    return call<kLarge>(*this, codes_[1], "set first net", delivered<true>, false, net);
}
int NetChanageManager::GetNetLevel() { return call<kLarge>(*this, codes_[2], "get net level", word, 0); }
