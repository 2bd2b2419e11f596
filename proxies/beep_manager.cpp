#include <hmisvc/proxies.h>

#include "proxies/call.h"

using namespace hmisvc::proxy;

HMISVC_DEFINE_PROXY(BeepManager, "beep");

void BeepManager::Beep(int a, int b) { call<kSmall>(*this, codes_[0], "Beep", nothing, no_value, a, b); }
