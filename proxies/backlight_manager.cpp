#include <hmisvc/proxies.h>

#include "proxies/call.h"

using namespace hmisvc::proxy;

HMISVC_DEFINE_PROXY(BacklightManager, "backlight");

int BacklightManager::GetBrightness() { return call<kSmall>(*this, codes_[0], "GetBrightness", word, -1); }
// Reports its failure under the other getter's name, as the device does.
int BacklightManager::GetMaxBrightness() { return call<kSmall>(*this, codes_[1], "GetBrightness", word, -1); }
bool BacklightManager::SetBrightness(int level) {
    return call<kSmall>(*this, codes_[2], "SetBrightness", flag, false, level);
}
bool BacklightManager::SetBrightnessToMax() {
    return call<kSmall>(*this, codes_[3], "SetBrightnessToMax", flag, false);
}
void BacklightManager::Lock(int value) { call<kSmall>(*this, codes_[4], "Lock", nothing, no_value, value); }
void BacklightManager::Unlock() { call<kSmall>(*this, codes_[5], "Unlock", nothing, no_value); }
