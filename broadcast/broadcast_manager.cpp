#include <hmisvc/broadcast.h>
#include <hmisvc/proxies.h>

#include "proxies/call.h"

using namespace hmisvc::proxy;

HMISVC_DEFINE_PROXY(BroadcastManager, "broadcast");

int BroadcastManager::RegisterBroadcastService(std::string name) {
    return call<kLarge>(*this, codes_[0], "RegisterBroadcastService", word, -1, name);
}

void BroadcastManager::SendBroadcast(Intent &intent) {
    call<kLarge>(*this, codes_[1], "SendBroadcast", nothing, no_value, intent);
}
