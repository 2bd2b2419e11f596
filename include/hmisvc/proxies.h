/**
 * @file
 * The device service proxies. Get one with Context::getSystemService() and
 * std::dynamic_pointer_cast. Each method is one synchronous transaction with
 * its service, on the calling thread, with no time limit: a service that
 * stops answering blocks the caller. On failure a method prints one line
 * "Fail binder call <label>" on standard output and returns its failure
 * value; nothing is retried. A proxy whose service was missing at
 * construction, or has restarted since, fails every call: build a new one.
 * Any thread may call any proxy; each calling thread needs more than 40 KB of
 * stack. Values the services define (units, numbering) are described here
 * as the simulator (hmisvc-devsim) answers them; the device's services
 * define their own.
 */
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
    static std::string SERVICE_NAME; ///< "system", the name looked up (equal to the Context name).
    static const unsigned int MAP_SIZE = 1024; ///< Bytes of the binder mapping its replies arrive in.
    /// Looks "system" up on a connection of its own; when it is not registered prints
    /// "Failed to find service: system" and every call fails. Context::getSystemService() builds
    /// one.
    SystemManager();
    /// Closes the connection.
    ~SystemManager() override;

    /// The USB disk's mount point as the service reports it (simulator: "/mnt/udisk"). Empty string
    /// on failure ("Fail binder call GetUDiskRoot").
    std::string GetUDiskRoot();
    /// Answered locally: whether the target of the /mnt/udisk link appears in
    /// /proc/mounts. No binder traffic, never prints.
    bool UDiskMounted();
    /// Asks the service to unmount the USB disk; its answer. false on failure ("Fail binder call
    /// UmountUDisk").
    bool UmountUDisk();
    /// Free storage, in the service's unit (simulator: KiB). 0 on failure ("Fail binder call
    /// GetStorageFreeSpace").
    int GetStorageFreeSpace();
    /// Free RAM, in the service's unit (simulator: KiB). 0 on failure ("Fail binder call
    /// GetRamFreeSpace").
    int GetRamFreeSpace();
    /// The device's identifier (simulator: "HMI-DEVSIM-000001"). Empty string on failure ("Fail
    /// binder call GetDeviceID"); std::logic_error when the reply holds no string.
    std::string GetDeviceID();
    /// The device type number; the service defines it (simulator: 1). 0 on failure ("Fail binder
    /// call GetDeviceType").
    int GetDeviceType();
    /// The device series number; the service defines it (simulator: 7). 0 on failure ("Fail binder
    /// call GetDeviceSeries").
    int GetDeviceSeries();
    /// The device model number; the service defines it (simulator: 70). 0 on failure ("Fail binder
    /// call GetDeviceModel").
    int GetDeviceModel();
    /// The HMI's name (simulator: "DevSim HMI"). Empty string on failure ("Fail binder call
    /// GetHmiName").
    std::string GetHmiName();
    /// The version of component @p name; the service defines the names (simulator: "" for one it
    /// does not know). Empty string on failure ("Fail binder call GetVersion").
    std::string GetVersion(std::string name);
    /// Shows (true) or hides the system settings screen. Failure: "Fail binder call ShowSettings"
    /// only.
    void ShowSettings(bool show);
    /// Asks the service to reboot the device. Failure: "Fail binder call Reboot" only.
    void Reboot();
    /// Whether the settings screen is shown. false on failure ("Fail binder call IsSettingsShown").
    bool IsSettingsShown();

private:
    unsigned int codes_[14];
};

/// Persistent named values, addressed by section and key.
class HMISVC_API SettingsManager : public ServiceManager {
public:
    static std::string SERVICE_NAME; ///< "settings", the name looked up (equal to the Context name).
    static const unsigned int MAP_SIZE = 1024; ///< Bytes of the binder mapping its replies arrive in.
    /// Looks "settings" up on a connection of its own; when it is not registered prints
    /// "Failed to find service: settings" and every call fails. Context::getSystemService() builds
    /// one.
    SettingsManager();
    /// Closes the connection.
    ~SettingsManager() override;

    /// The stored string, or @p defaultValue (also when the call fails).
    std::string GetValue(std::string section, std::string key, std::string defaultValue);
    /// The stored number, or @p defaultValue (also when the call fails).
    long GetLongValue(std::string section, std::string key, long defaultValue);
    /// The service's answer; -1 when the call did not reach it.
    int SetValue(std::string section, std::string key, std::string value);
    /// Stores a number (32 bits on the wire); the service's answer, -1 when the call did not reach
    /// it ("Fail binder call SetLongValue").
    int SetLongValue(std::string section, std::string key, long value);
    /// Removes a value; the service's answer, -1 when the call did not reach it ("Fail binder call
    /// Delete").
    int Delete(std::string section, std::string key);
    /// Asks the service to write its store to its file.
    int SaveFile();

private:
    unsigned int codes_[6];
};

/// Screen brightness and its lock.
class HMISVC_API BacklightManager : public ServiceManager {
public:
    static std::string SERVICE_NAME; ///< "backlight", the name looked up (equal to the Context name).
    static const unsigned int MAP_SIZE = 1024; ///< Bytes of the binder mapping its replies arrive in.
    /// Looks "backlight" up on a connection of its own; when it is not registered prints
    /// "Failed to find service: backlight" and every call fails. Context::getSystemService() builds
    /// one.
    BacklightManager();
    /// Closes the connection.
    ~BacklightManager() override;

    int GetBrightness();    ///< -1 on failure
    int GetMaxBrightness(); ///< -1 on failure (reported as "GetBrightness")
    /// Sets the brightness to @p level (the service's scale; simulator: 0 to GetMaxBrightness(),
    /// refused outside it or while locked). Whether the service accepted; false on failure ("Fail
    /// binder call SetBrightness").
    bool SetBrightness(int level);
    /// Sets the brightness to its maximum; whether the service accepted. false on failure ("Fail
    /// binder call SetBrightnessToMax").
    bool SetBrightnessToMax();
    /// Locks the brightness; the service defines @p value (simulator: kept, the level does not
    /// move; SetBrightness is refused until Unlock). Failure: "Fail binder call Lock" only.
    void Lock(int value);
    /// Releases the brightness lock. Failure: "Fail binder call Unlock" only.
    void Unlock();

private:
    unsigned int codes_[6];
};

/// The beeper.
class HMISVC_API BeepManager : public ServiceManager {
public:
    static std::string SERVICE_NAME; ///< "beep", the name looked up (equal to the Context name).
    static const unsigned int MAP_SIZE = 1024; ///< Bytes of the binder mapping its replies arrive in.
    /// Looks "beep" up on a connection of its own; when it is not registered prints
    /// "Failed to find service: beep" and every call fails. Context::getSystemService() builds one.
    BeepManager();
    /// Closes the connection.
    ~BeepManager() override;

    /// Sounds the beeper; the service defines both values (duration, count or the like). Failure:
    /// "Fail binder call Beep" only.
    void Beep(int a, int b);

private:
    unsigned int codes_[1];
};

/// System date and time.
class HMISVC_API DateManager : public ServiceManager {
public:
    static std::string SERVICE_NAME; ///< "date", the name looked up (equal to the Context name).
    static const unsigned int MAP_SIZE = 1024; ///< Bytes of the binder mapping its replies arrive in.
    /// Looks "date" up on a connection of its own; when it is not registered prints
    /// "Failed to find service: date" and every call fails. Context::getSystemService() builds one.
    DateManager();
    /// Closes the connection.
    ~DateManager() override;

    /// Fills @p date; leaves it untouched when the call fails (preset it to
    /// tell). Throws cereal::Exception when the reply does not decode.
    void GetTime(Date &date);
    /// Sets the device clock to @p date. Failure: "Fail binder call SetTime" only (simulator: an
    /// invalid date is ignored).
    void SetTime(Date &date);
    /// Whether the user may change the time. Failure: "Fail binder call SetModifiable" only.
    void SetModifiable(bool modifiable);
    /// Whether the user may change the time. false on failure ("Fail binder call Modifiable").
    bool Modifiable();

private:
    unsigned int codes_[4];
};

/// Wired Ethernet settings and MAC address.
class HMISVC_API EthInfoManager : public ServiceManager {
public:
    static std::string SERVICE_NAME; ///< "ethinfo", the name looked up (equal to the Context name).
    static const unsigned int MAP_SIZE = 1024; ///< Bytes of the binder mapping its replies arrive in.
    /// Looks "ethinfo" up on a connection of its own; when it is not registered prints
    /// "Failed to find service: ethinfo" and every call fails. Context::getSystemService() builds
    /// one.
    EthInfoManager();
    /// Closes the connection.
    ~EthInfoManager() override;

    /// Fills @p info with the Ethernet settings; true. false on failure, @p info untouched ("Fail
    /// binder call GetEthinfo"). cereal::Exception when the reply does not decode.
    bool GetEthinfo(NetInfo &info);
    /// true once delivered; the service's answer is not read.
    /// Sends new Ethernet settings. true once delivered (the service's answer is not read); false
    /// on failure ("Fail binder call SetEthinfo").
    bool SetEthinfo(NetInfo &info);
    /// Throws std::logic_error when the call fails.
    /// The Ethernet MAC address (simulator: "02:48:4d:49:00:01"). On failure prints "Fail binder
    /// call GetEthmac" and throws std::logic_error: catch it.
    std::string GetEthMac();

private:
    unsigned int codes_[3];
};

/// The 4G modem.
class HMISVC_API P4gManager : public ServiceManager {
public:
    static std::string SERVICE_NAME; ///< "4ginfo", the name looked up (equal to the Context name).
    static const unsigned int MAP_SIZE = 1024; ///< Bytes of the binder mapping its replies arrive in.
    /// Looks "4ginfo" up on a connection of its own; when it is not registered prints
    /// "Failed to find service: 4ginfo" and every call fails. Context::getSystemService() builds
    /// one.
    P4gManager();
    /// Closes the connection.
    ~P4gManager() override;

    /// Fills @p info with the modem's state; true. false on failure, @p info untouched ("Fail
    /// binder call Get4ginfo").
    bool Get4ginfo(P4gInfo &info);
    /// true also when the call fails.
    /// Whether a 4G module is fitted. true also when the call fails ("Fail binder call get 4G
    /// module yes or not"): only the line tells.
    bool GetIs4G();
    /// Throws std::logic_error when the call fails.
    /// The SIM card's CCID (simulator: "89860000000000000001"). On failure prints "Fail binder call
    /// get 4G ccid" and throws std::logic_error: catch it.
    std::string Get4GCcid();

private:
    unsigned int codes_[3];
};

/// Wi-Fi state, scan list, connect and disconnect.
class HMISVC_API WifiManager : public ServiceManager {
public:
    static std::string SERVICE_NAME; ///< "wifiinfo", the name looked up (equal to the Context name).
    static const unsigned int MAP_SIZE = 4096; ///< Bytes of the binder mapping its replies arrive in.
    /// Looks "wifiinfo" up on a connection of its own; when it is not registered prints
    /// "Failed to find service: wifiinfo" and every call fails. Context::getSystemService() builds
    /// one.
    WifiManager();
    /// Closes the connection.
    ~WifiManager() override;

    /// Fills @p info with the current Wi-Fi state; true. false on failure, @p info untouched ("Fail
    /// binder call GetWifiinfo").
    bool GetWifiinfo(WifiInfo &info);
    /// The service's answer; -1 when the call did not reach it.
    /// Joins network @p ssid with @p password; @p option and the answer are the service's
    /// (simulator: 0 joined, 1 unknown network, 2 password shorter than 8 bytes). -1 when the call
    /// did not reach it ("Fail binder call wifi connect").
    int SetWifiConnection(std::string ssid, std::string password, int option);
    /// Appends one record per listed network to @p list (it is not cleared).
    /// Appends one record per network in range to @p list (it is not cleared first); true, also for
    /// none. false on failure ("Fail binder call GetWifilist"). The reply must fit the 4096-byte
    /// mapping.
    bool GetWifilist(std::vector<WifiList> &list);
    /// true also when the call fails.
    /// Whether a Wi-Fi module is fitted. true also when the call fails ("Fail binder call wifi
    /// module yes or not").
    bool GetIsWifi();
    /// true also when the call fails.
    /// Leaves the current network; the service's answer (simulator: false when there was none).
    /// true also when the call fails ("Fail binder call disconnect current wifi").
    bool DisconnectCurrentWifi();
    /// Throws std::logic_error when the call fails.
    /// The Wi-Fi MAC address (simulator: "02:48:4d:49:00:02"). On failure prints "Fail binder call
    /// GetWifimac" and throws std::logic_error: catch it.
    std::string GetWifiMac();

private:
    unsigned int codes_[6];
};

/// Network preference, current network and its level.
class HMISVC_API NetChanageManager : public ServiceManager {
public:
    static std::string SERVICE_NAME; ///< "netchanage", the name looked up (equal to the Context name).
    static const unsigned int MAP_SIZE = 1024; ///< Bytes of the binder mapping its replies arrive in.
    /// Looks "netchanage" up on a connection of its own; when it is not registered prints
    /// "Failed to find service: netchanage" and every call fails. Context::getSystemService()
    /// builds one.
    NetChanageManager();
    /// Closes the connection.
    ~NetChanageManager() override;

    /// The network in use; the service numbers them (simulator: 0 Ethernet, 1 Wi-Fi, 2 4G). 0 on
    /// failure ("Fail binder call get current net").
    int GetCurrentNet();
    /// true once delivered; the service's answer is not read.
    /// Prefers network @p net (numbered as GetCurrentNet()). true once delivered (the answer is not
    /// read); false on failure ("Fail binder call set first net").
    bool SetFirstNet(int net);
    /// Signal level of the current network; the service's scale (simulator: 0 to 5, Ethernet 5). 0
    /// on failure ("Fail binder call get net level").
    int GetNetLevel();

private:
    unsigned int codes_[3];
};

/// VNC server, frp tunnel and VPN, through one service.
class HMISVC_API VncFrpVpnManager : public ServiceManager {
public:
    static std::string SERVICE_NAME; ///< "vncfrpvpn", the name looked up (equal to the Context name).
    static const unsigned int MAP_SIZE = 1024; ///< Bytes of the binder mapping its replies arrive in.
    /// Looks "vncfrpvpn" up on a connection of its own; when it is not registered prints
    /// "Failed to find service: vncfrpvpn" and every call fails. Context::getSystemService() builds
    /// one.
    VncFrpVpnManager();
    /// Closes the connection.
    ~VncFrpVpnManager() override;

    /// Restarts the VNC server; the service defines @p value (a mode). true once delivered; false
    /// on failure ("Fail binder call vnc restart").
    bool Vnc_Restart(int value);
    /// Sets the VNC password (sent as is, not checked). true once delivered; false on failure
    /// ("Fail binder call set vnc passwd").
    bool Set_Vnc_Passwd(std::string password);
    /// Restarts the frp tunnel; the service's answer. false on failure ("Fail binder call frp
    /// restart").
    bool Frp_Restart();
    /// Always false, delivered or not.
    bool Frp_Close();
    /// Stops the VNC server. true once delivered; false on failure ("Fail binder call vnc close").
    bool Vnc_Close();
    /// Restarts the VPN; the service defines @p value. true once delivered; false on failure ("Fail
    /// binder call vpn restart").
    bool Vpn_Restart(int value);
    /// Sets the VPN's range; the service defines the four strings (addresses of a range). true once
    /// delivered; false on failure ("Fail binder call set vpn ranage"). Long strings overflow the
    /// 128-byte request.
    bool Set_Vpn_Range(std::string a, std::string b, std::string c, std::string d);
    /// What runs; the service defines the value (simulator: bit 0 VNC, bit 1 frp, bit 2 VPN). 0 on
    /// failure ("Fail binder call get vnc flag").
    int Get_Vnc_Flag();

private:
    unsigned int codes_[8];
};

/// The separate VPN service.
class HMISVC_API VpnManager : public ServiceManager {
public:
    static std::string SERVICE_NAME; ///< "vpn", the name looked up (equal to the Context name).
    static const unsigned int MAP_SIZE = 1024; ///< Bytes of the binder mapping its replies arrive in.
    /// Looks "vpn" up on a connection of its own; when it is not registered prints
    /// "Failed to find service: vpn" and every call fails. Context::getSystemService() builds one.
    VpnManager();
    /// Closes the connection.
    ~VpnManager() override;

    /// Starts the VPN; the service defines @p value. Failure: "Fail binder call Start" only.
    void Start(int value);
    /// Stops the VPN; the service defines @p value. Failure: "Fail binder call Stop" only.
    void Stop(int value);

private:
    unsigned int codes_[2];
};

/// The broadcast service: endpoints announce themselves, anyone sends.
class HMISVC_API BroadcastManager : public ServiceManager {
public:
    static std::string SERVICE_NAME; ///< "broadcast", the name looked up (equal to the Context name).
    static const unsigned int MAP_SIZE = 1024; ///< Bytes of the binder mapping its replies arrive in.
    /// Looks "broadcast" up on a connection of its own; when it is not registered prints
    /// "Failed to find service: broadcast" and every call fails. Context::getSystemService() builds
    /// one.
    BroadcastManager();
    /// Closes the connection.
    ~BroadcastManager() override;

    /// The service's answer; -1 when the call did not reach it.
    int RegisterBroadcastService(std::string name);
    /// Sends the intent's encoding (at most 4072 bytes in the 32-bit build).
    void SendBroadcast(Intent &intent);

private:
    unsigned int codes_[2];
};

#endif
