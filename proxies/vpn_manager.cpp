#include <hmisvc/proxies.h>

#include "proxies/call.h"

using namespace hmisvc::proxy;

HMISVC_DEFINE_PROXY(VpnManager, "vpn");

void VpnManager::Start(int value) { call<kSmall>(*this, codes_[0], "Start", nothing, no_value, value); }
void VpnManager::Stop(int value) { call<kSmall>(*this, codes_[1], "Stop", nothing, no_value, value); }
