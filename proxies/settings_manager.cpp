#include <hmisvc/proxies.h>

#include "proxies/call.h"

using namespace hmisvc::proxy;

HMISVC_DEFINE_PROXY(SettingsManager, "settings");

// The getters send the default along, so the service can answer with it for
// a missing setting; a failed call hands it back here, so the caller sees the
// same value either way.
std::string SettingsManager::GetValue(std::string section, std::string key, std::string defaultValue) {
    // The failure value binds by reference and is moved from only after the
    // request has been built.
    return call<kSmall>(*this, codes_[0], "GetValue", text, std::move(defaultValue), section, key,
                        defaultValue);
}

long SettingsManager::GetLongValue(std::string section, std::string key, long defaultValue) {
    // A long is one 32-bit word on the wire.
    return call<kSmall>(*this, codes_[1], "GetLongValue", long_word, defaultValue, section, key, defaultValue);
}

int SettingsManager::SetValue(std::string section, std::string key, std::string value) {
    return call<kSmall>(*this, codes_[2], "SetValue", word, -1, section, key, value);
}

int SettingsManager::SetLongValue(std::string section, std::string key, long value) {
    return call<kSmall>(*this, codes_[3], "SetLongValue", word, -1, section, key, value);
}

int SettingsManager::Delete(std::string section, std::string key) {
    return call<kSmall>(*this, codes_[4], "Delete", word, -1, section, key);
}

int SettingsManager::SaveFile() { return call<kSmall>(*this, codes_[5], "SaveFile", word, -1); }
