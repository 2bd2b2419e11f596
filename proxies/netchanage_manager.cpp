#include <hmisvc/proxies.h>

#include "proxies/call.h"

using namespace hmisvc::proxy;

std::string NetChanageManager::SERVICE_NAME = "netchanage";
const unsigned int NetChanageManager::MAP_SIZE;

NetChanageManager::NetChanageManager() : ServiceManager(SERVICE_NAME, 1024) { number(codes_); }
NetChanageManager::~NetChanageManager() = default;

int NetChanageManager::GetCurrentNet() { return call<kLarge>(*this, codes_[0], "get current net", word, 0); }
bool NetChanageManager::SetFirstNet(int net) {
    return call<kLarge>(*this, codes_[1], "set first net", delivered<true>, false, net);
}
int NetChanageManager::GetNetLevel() { return call<kLarge>(*this, codes_[2], "get net level", word, 0); }
