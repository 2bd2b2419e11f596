#include <hmisvc/proxies.h>

#include "proxies/call.h"

using namespace hmisvc::proxy;

std::string VpnManager::SERVICE_NAME = "vpn";
const unsigned int VpnManager::MAP_SIZE;

VpnManager::VpnManager() : ServiceManager(SERVICE_NAME, 1024) { number(codes_); }
VpnManager::~VpnManager() = default;

void VpnManager::Start(int value) { call<kSmall>(*this, codes_[0], "Start", nothing, no_value, value); }
void VpnManager::Stop(int value) { call<kSmall>(*this, codes_[1], "Stop", nothing, no_value, value); }
