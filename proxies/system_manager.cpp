#include <cstdio>
#include <cstring>
#include <unistd.h>

#include <hmisvc/proxies.h>

#include "proxies/call.h"

using namespace hmisvc::proxy;

HMISVC_DEFINE_PROXY(SystemManager, "system");

std::string SystemManager::GetUDiskRoot() { return call<kSmall>(*this, codes_[0], "GetUDiskRoot", text, ""); }

bool SystemManager::UDiskMounted() {
    // The USB disk's mount point is wherever the /mnt/udisk link points.
    char target[4096] = {};
    if (static_cast<size_t>(readlink("/mnt/udisk", target, sizeof target)) >= sizeof target)
        return false;
    FILE *mounts = fopen("/proc/mounts", "r");
    if (mounts == nullptr)
        return false;
    char line[4096];
    while (fgets(line, 4095, mounts) != nullptr) {
        if (strstr(line, target) != nullptr) {
            fclose(mounts);
            return true;
        }
    }
    fclose(mounts);
    return false;
}

bool SystemManager::UmountUDisk() { return call<kSmall>(*this, codes_[2], "UmountUDisk", flag, false); }
int SystemManager::GetStorageFreeSpace() { return call<kSmall>(*this, codes_[3], "GetStorageFreeSpace", word, 0); }
int SystemManager::GetRamFreeSpace() { return call<kSmall>(*this, codes_[4], "GetRamFreeSpace", word, 0); }
std::string SystemManager::GetDeviceID() { return call<kSmall>(*this, codes_[5], "GetDeviceID", text, ""); }
int SystemManager::GetDeviceType() { return call<kSmall>(*this, codes_[6], "GetDeviceType", word, 0); }
int SystemManager::GetDeviceSeries() { return call<kSmall>(*this, codes_[7], "GetDeviceSeries", word, 0); }
int SystemManager::GetDeviceModel() { return call<kSmall>(*this, codes_[8], "GetDeviceModel", word, 0); }
std::string SystemManager::GetHmiName() { return call<kSmall>(*this, codes_[9], "GetHmiName", text, ""); }

std::string SystemManager::GetVersion(std::string name) {
    return call<kSmall>(*this, codes_[10], "GetVersion", text, "", name);
}

void SystemManager::ShowSettings(bool show) {
    call<kSmall, OnFailure::StillRelease>(*this, codes_[11], "ShowSettings", nothing, no_value, show);
}

void SystemManager::Reboot() {
    call<kSmall, OnFailure::StillRelease>(*this, codes_[12], "Reboot", nothing, no_value);
}

bool SystemManager::IsSettingsShown() {
    return call<kSmall, OnFailure::StillDecode>(*this, codes_[13], "IsSettingsShown", flag, false);
}
