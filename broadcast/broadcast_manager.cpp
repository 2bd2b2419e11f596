#include <hmisvc/broadcast.h>
#include <hmisvc/proxies.h>

#include "proxies/call.h"

using namespace hmisvc::proxy;

std::string BroadcastManager::SERVICE_NAME = "broadcast";
const unsigned int BroadcastManager::MAP_SIZE;

BroadcastManager::BroadcastManager() : ServiceManager(SERVICE_NAME, 1024) { number(codes_); }
BroadcastManager::~BroadcastManager() = default;

int BroadcastManager::RegisterBroadcastService(std::string name) {
    return call<kLarge>(*this, codes_[0], "RegisterBroadcastService", word, -1, name);
}

void BroadcastManager::SendBroadcast(Intent &intent) {
    call<kLarge>(*this, codes_[1], "SendBroadcast", nothing, no_value, intent);
}
