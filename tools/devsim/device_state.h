// The simulated device's state behind each service. The numbering choices
// (network numbers, signal levels, record field meanings) are this
// simulator's; the real services may number differently.
#ifndef HMISVC_DEVSIM_DEVICE_STATE_H
#define HMISVC_DEVSIM_DEVICE_STATE_H

#include <hmisvc/records.h>

#include <array>
#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

namespace hmisvc::devsim {

// Reads and writes the state as JSON (state.cpp); a friend of the classes
// whose invariants it checks.
struct StateJson;

// Brightness steps 0..max, and a lock that freezes the level.
class Backlight {
public:
    explicit Backlight(int32_t max = 100, int32_t level = 80) : max_(max), level_(level) {}

    int32_t level() const { return level_; }
    int32_t max() const { return max_; }
    // False, with nothing changed, outside 0..max or while locked.
    bool set(int32_t level);
    bool set_to_max() { return set(max_); }
    // The lock's argument is kept as given; it does not move the level.
    void lock(int32_t value) { locked_ = true, lock_value_ = value; }
    void unlock() { locked_ = false; }
    bool locked() const { return locked_; }
    int32_t lock_value() const { return lock_value_; }

private:
    friend StateJson;
    int32_t max_;
    int32_t level_;
    bool locked_ = false;
    int32_t lock_value_ = 0;
};

// The device clock: the host's time plus an offset that SetTime moves; the
// host clock itself is never set. Dates are local time with subsecond in
// milliseconds, month 1-12, the full year, and extra = weekday 0-6
// (0 = Sunday).
class Clock {
public:
    using TimePoint = std::chrono::system_clock::time_point;
    using Source = std::function<TimePoint()>;

    explicit Clock(Source source = [] { return std::chrono::system_clock::now(); })
        : source_(std::move(source))
    {}

    Date now() const;
    // False, with nothing changed, for a date that is not a valid local
    // time or not within kFirstYear..kLastYear; extra is ignored (the
    // weekday follows from the date).
    bool set(const Date &date);
    static constexpr int kFirstYear = 1900, kLastYear = 9999;
    // Whether now() answers a date within those years: an offset that
    // reaches beyond them (or beyond what the clock's count can hold) is
    // refused wherever it is set.
    bool answerable() const;
    std::chrono::milliseconds offset() const { return offset_; }

    bool modifiable() const { return modifiable_; }
    void set_modifiable(bool on) { modifiable_ = on; }

private:
    friend StateJson;
    // The host's time plus the offset, in ms since the epoch; false when the
    // sum does not fit.
    bool now_ms(int64_t &ms) const;
    Source source_;
    std::chrono::milliseconds offset_{0};
    bool modifiable_ = true;
};

// Ethernet, 4G modem, Wi-Fi and the choice between them.
//
// NetInfo: text1 address, text2 netmask, text3 gateway, text4 first DNS,
// text5 second DNS, text6 interface name; kind 0 static, 1 DHCP.
// P4gInfo: text1 operator, text2 IMEI, text3 address, text4 APN, text5 mode,
// text6 state; kind 1 registered; value the signal level 0-5.
// WifiInfo: text1 SSID, text2 address, text3 netmask, text4 gateway,
// text5 BSSID, text6 "connected"/"disconnected"; value the signal in dBm
// (0 when disconnected).
// WifiList: text1 SSID, text2 BSSID, text3 security, value signal in dBm,
// kind 0 open, 1 WEP, 2 WPA, 3 WPA2; text4 frequency in MHz.
class Network {
public:
    enum Net : int32_t { kEthernet = 0, kWifi = 1, k4G = 2 };
    // Answers of connect().
    enum Connect : int32_t { kConnected = 0, kUnknownNetwork = 1, kBadPassword = 2 };
    static constexpr std::size_t kMinPassword = 8;

    Network();

    NetInfo ethernet() const { return ethernet_; }
    void set_ethernet(const NetInfo &info) { ethernet_ = info; }
    std::string ethernet_mac() const { return ethernet_mac_; }

    bool has_modem() const { return has_modem_; }
    P4gInfo modem() const { return modem_; }
    std::string ccid() const { return ccid_; }

    bool has_wifi() const { return has_wifi_; }
    WifiInfo wifi() const;
    const std::vector<WifiList> &scan() const { return scan_; }
    std::string wifi_mac() const { return wifi_mac_; }
    // Joins a listed network given a password of kMinPassword bytes or
    // more; a refused attempt leaves the current connection as it was.
    int32_t connect(const std::string &ssid, const std::string &password, int32_t option);
    // True when a connection was dropped, false when there was none.
    bool disconnect();

    // The preferred network when it is up, otherwise Ethernet.
    int32_t current() const;
    int32_t first() const { return first_; }
    // Unknown network numbers are ignored.
    bool set_first(int32_t net);
    // Signal level 0-5 of the current network (Ethernet: 5).
    int32_t level() const;

    static int32_t level_of(int32_t dbm);

private:
    friend StateJson;
    const WifiList *joined() const;

    std::string ethernet_mac_ = "02:48:4d:49:00:01";
    std::string wifi_mac_ = "02:48:4d:49:00:02";
    std::string ccid_ = "89860000000000000001";
    bool has_modem_ = true;
    bool has_wifi_ = true;
    NetInfo ethernet_;
    P4gInfo modem_;
    std::vector<WifiList> scan_;
    int joined_ = -1;  // index into scan_
    int32_t first_ = kEthernet;
};

// Identity and host-backed resources of the system service.
struct SystemInfo {
    SystemInfo();

    bool udisk_mounted = true;
    bool settings_shown = false;
    int32_t reboots = 0;

    std::string udisk_root = "/mnt/udisk";
    std::string device_id = "HMI-DEVSIM-000001";
    int32_t device_type = 1;
    int32_t device_series = 7;
    int32_t device_model = 70;
    std::string hmi_name = "DevSim HMI";
    // Component name to version; "kernel" is the host's release.
    std::map<std::string, std::string> versions;
    // Free space in KiB; below 0 (the default) the host's, capped at
    // INT32_MAX.
    int32_t storage_free = -1;
    int32_t ram_free = -1;

    // "" for a component the simulator does not know.
    std::string version(const std::string &component) const;
    int32_t storage_free_kib() const;
    int32_t ram_free_kib() const;
};

// The VNC server, frp tunnel and VPN behind "vncfrpvpn".
struct RemoteAccess {
    // Get_Vnc_Flag: bit 0 VNC running, bit 1 frp running, bit 2 VPN running.
    enum Flag : int32_t { kVnc = 1, kFrp = 2, kVpn = 4 };

    bool vnc = false, frp = false, vpn = false;
    int32_t vnc_mode = 0, vpn_mode = 0;
    std::string vnc_password;
    std::array<std::string, 4> vpn_range;

    int32_t flags() const { return (vnc ? kVnc : 0) | (frp ? kFrp : 0) | (vpn ? kVpn : 0); }
};

// The separate "vpn" service.
struct Vpn {
    bool running = false;
    int32_t value = 0;
};

struct Beeper {
    int32_t beeps = 0;
    std::vector<int32_t> last{0, 0};
};

}  // namespace hmisvc::devsim

#endif
