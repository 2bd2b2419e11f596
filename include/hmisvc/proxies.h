// The device service proxies. Each method is one synchronous transaction with
// its service; on failure it prints "Fail binder call <label>" on stdout and
// returns its failure value (documented per method where it is not the usual
// false / 0 / -1 / empty string).
#ifndef HMISVC_PROXIES_H
#define HMISVC_PROXIES_H

#include <string>
#include <vector>

#include <hmisvc/context.h>
#include <hmisvc/export.h>

class Date;
class NetInfo;
class P4gInfo;
class WifiInfo;
class WifiList;
class Intent;

/// Storage, identity, firmware versions, the settings screen and reboot.
class HMISVC_API SystemManager : public ServiceManager {
public:
    static std::string SERVICE_NAME; ///< "system"
    static const unsigned int MAP_SIZE = 1024;
    SystemManager();
    ~SystemManager() override;

    std::string GetUDiskRoot();
    /// Answered locally: whether the target of the /mnt/udisk link appears in
    /// /proc/mounts. No binder traffic, never prints.
    bool UDiskMounted();
    bool UmountUDisk();
    int GetStorageFreeSpace();
    int GetRamFreeSpace();
    std::string GetDeviceID();
    int GetDeviceType();
    int GetDeviceSeries();
    int GetDeviceModel();
    std::string GetHmiName();
    std::string GetVersion(std::string name);
    void ShowSettings(bool show);
    void Reboot();
    bool IsSettingsShown();

private:
    unsigned int codes_[14];
};

/// Persistent named values, addressed by section and key.
class HMISVC_API SettingsManager : public ServiceManager {
public:
    static std::string SERVICE_NAME; ///< "settings"
    static const unsigned int MAP_SIZE = 1024;
    SettingsManager();
    ~SettingsManager() override;

    /// The stored string, or @p defaultValue (also when the call fails).
    std::string GetValue(std::string section, std::string key, std::string defaultValue);
    /// The stored number, or @p defaultValue (also when the call fails).
    long GetLongValue(std::string section, std::string key, long defaultValue);
    /// The service's answer; -1 when the call did not reach it.
    int SetValue(std::string section, std::string key, std::string value);
    int SetLongValue(std::string section, std::string key, long value);
    int Delete(std::string section, std::string key);
    /// Asks the service to write its store to its file.
    int SaveFile();

private:
    unsigned int codes_[6];
};

/// Screen brightness and its lock.
class HMISVC_API BacklightManager : public ServiceManager {
public:
    static std::string SERVICE_NAME; ///< "backlight"
    static const unsigned int MAP_SIZE = 1024;
    BacklightManager();
    ~BacklightManager() override;

    int GetBrightness();    ///< -1 on failure
    int GetMaxBrightness(); ///< -1 on failure (reported as "GetBrightness")
    bool SetBrightness(int level);
    bool SetBrightnessToMax();
    void Lock(int value);
    void Unlock();

private:
    unsigned int codes_[6];
};

/// The beeper.
class HMISVC_API BeepManager : public ServiceManager {
public:
    static std::string SERVICE_NAME; ///< "beep"
    static const unsigned int MAP_SIZE = 1024;
    BeepManager();
    ~BeepManager() override;

    void Beep(int a, int b);

private:
    unsigned int codes_[1];
};

/// System date and time.
class HMISVC_API DateManager : public ServiceManager {
public:
    static std::string SERVICE_NAME; ///< "date"
    static const unsigned int MAP_SIZE = 1024;
    DateManager();
    ~DateManager() override;

    /// Fills @p date; leaves it untouched when the call fails (preset it to
    /// tell). Throws cereal::Exception when the reply does not decode.
    void GetTime(Date &date);
    void SetTime(Date &date);
    void SetModifiable(bool modifiable);
    bool Modifiable();

private:
    unsigned int codes_[4];
};

/// Wired Ethernet settings and MAC address.
class HMISVC_API EthInfoManager : public ServiceManager {
public:
    static std::string SERVICE_NAME; ///< "ethinfo"
    static const unsigned int MAP_SIZE = 1024;
    EthInfoManager();
    ~EthInfoManager() override;

    bool GetEthinfo(NetInfo &info);
    /// true once delivered; the service's answer is not read.
    bool SetEthinfo(NetInfo &info);
    /// Throws std::logic_error when the call fails.
    std::string GetEthMac();

private:
    unsigned int codes_[3];
};

/// The 4G modem.
class HMISVC_API P4gManager : public ServiceManager {
public:
    static std::string SERVICE_NAME; ///< "4ginfo"
    static const unsigned int MAP_SIZE = 1024;
    P4gManager();
    ~P4gManager() override;

    bool Get4ginfo(P4gInfo &info);
    /// true also when the call fails.
    bool GetIs4G();
    /// Throws std::logic_error when the call fails.
    std::string Get4GCcid();

private:
    unsigned int codes_[3];
};

/// Wi-Fi state, scan list, connect and disconnect.
class HMISVC_API WifiManager : public ServiceManager {
public:
    static std::string SERVICE_NAME; ///< "wifiinfo"
    static const unsigned int MAP_SIZE = 4096;
    WifiManager();
    ~WifiManager() override;

    bool GetWifiinfo(WifiInfo &info);
    /// The service's answer; -1 when the call did not reach it.
    int SetWifiConnection(std::string ssid, std::string password, int option);
    /// Appends one record per listed network to @p list (it is not cleared).
    bool GetWifilist(std::vector<WifiList> &list);
    /// true also when the call fails.
    bool GetIsWifi();
    /// true also when the call fails.
    bool DisconnectCurrentWifi();
    /// Throws std::logic_error when the call fails.
    std::string GetWifiMac();

private:
    unsigned int codes_[6];
};

/// Network preference, current network and its level.
class HMISVC_API NetChanageManager : public ServiceManager {
public:
    static std::string SERVICE_NAME; ///< "netchanage"
    static const unsigned int MAP_SIZE = 1024;
    NetChanageManager();
    ~NetChanageManager() override;

    int GetCurrentNet();
    /// true once delivered; the service's answer is not read.
    bool SetFirstNet(int net);
    int GetNetLevel();

private:
    unsigned int codes_[3];
};

/// VNC server, frp tunnel and VPN, through one service.
class HMISVC_API VncFrpVpnManager : public ServiceManager {
public:
    static std::string SERVICE_NAME; ///< "vncfrpvpn"
    static const unsigned int MAP_SIZE = 1024;
    VncFrpVpnManager();
    ~VncFrpVpnManager() override;

    bool Vnc_Restart(int value);
    bool Set_Vnc_Passwd(std::string password);
    bool Frp_Restart();
    /// Always false, delivered or not.
    bool Frp_Close();
    bool Vnc_Close();
    bool Vpn_Restart(int value);
    bool Set_Vpn_Range(std::string a, std::string b, std::string c, std::string d);
    int Get_Vnc_Flag();

private:
    unsigned int codes_[8];
};

/// The separate VPN service.
class HMISVC_API VpnManager : public ServiceManager {
public:
    static std::string SERVICE_NAME; ///< "vpn"
    static const unsigned int MAP_SIZE = 1024;
    VpnManager();
    ~VpnManager() override;

    void Start(int value);
    void Stop(int value);

private:
    unsigned int codes_[2];
};

/// The broadcast service: endpoints announce themselves, anyone sends.
class HMISVC_API BroadcastManager : public ServiceManager {
public:
    static std::string SERVICE_NAME; ///< "broadcast"
    static const unsigned int MAP_SIZE = 1024;
    BroadcastManager();
    ~BroadcastManager() override;

    /// The service's answer; -1 when the call did not reach it.
    int RegisterBroadcastService(std::string name);
    /// Sends the intent's encoding (at most 4072 bytes in the 32-bit build).
    void SendBroadcast(Intent &intent);

private:
    unsigned int codes_[2];
};

#endif
