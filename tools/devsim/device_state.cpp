#include "device_state.h"

#include <sys/statvfs.h>
#include <sys/sysinfo.h>
#include <sys/utsname.h>

#include <algorithm>
#include <climits>
#include <ctime>
#include <map>

namespace hmisvc::devsim {

bool Backlight::set(int32_t level)
{
    if (locked_ || level < 0 || level > max_)
        return false;
    level_ = level;
    return true;
}

// ---- clock ----

namespace {

// The local date at `ms` since the epoch; false when the C library cannot
// give it (a year beyond its range).
bool local_date(int64_t ms, Date &d)
{
    // Floor division, so times before the epoch keep a positive subsecond;
    // no step can overflow, whatever ms is.
    bool before_epoch = ms % 1000 < 0;
    int64_t secs = ms / 1000 - (before_epoch ? 1 : 0);
    int subsecond = static_cast<int>(ms % 1000 + (before_epoch ? 1000 : 0));
    std::time_t t = static_cast<std::time_t>(secs);
    std::tm tm{};
    // A 32-bit time_t (armhf) would wrap to some other date.
    if (static_cast<int64_t>(t) != secs || !localtime_r(&t, &tm) || tm.tm_year > INT_MAX - 1900)
        return false;
    d.subsecond = subsecond;
    d.second = tm.tm_sec;
    d.minute = tm.tm_min;
    d.hour = tm.tm_hour;
    d.day = tm.tm_mday;
    d.month = tm.tm_mon + 1;
    d.year = tm.tm_year + 1900;
    d.extra = tm.tm_wday;
    return true;
}

}  // namespace

bool Clock::now_ms(int64_t &ms) const
{
    using namespace std::chrono;
    int64_t host = duration_cast<milliseconds>(source_().time_since_epoch()).count();
    return !__builtin_add_overflow(host, static_cast<int64_t>(offset_.count()), &ms);
}

Date Clock::now() const
{
    // Every way to set the offset checks answerable(); should the host's
    // clock still carry it out of range, the date is all zeros.
    Date d{};
    int64_t ms = 0;
    if (!now_ms(ms) || !local_date(ms, d))
        return Date{};
    return d;
}

bool Clock::answerable() const
{
    Date d{};
    int64_t ms = 0;
    return now_ms(ms) && local_date(ms, d) && d.year >= kFirstYear && d.year <= kLastYear;
}

bool Clock::set(const Date &date)
{
    using namespace std::chrono;
    auto in = [](int v, int lo, int hi) { return v >= lo && v <= hi; };
    if (!in(date.subsecond, 0, 999) || !in(date.second, 0, 59) || !in(date.minute, 0, 59) ||
        !in(date.hour, 0, 23) || !in(date.day, 1, 31) || !in(date.month, 1, 12) ||
        !in(date.year, kFirstYear, kLastYear))
        return false;
    std::tm tm{};
    tm.tm_sec = date.second;
    tm.tm_min = date.minute;
    tm.tm_hour = date.hour;
    tm.tm_mday = date.day;
    tm.tm_mon = date.month - 1;
    tm.tm_year = date.year - 1900;
    tm.tm_isdst = -1;
    std::tm want = tm;
    tm.tm_wday = -1;  // set by a successful mktime: -1 is also a valid time
    std::time_t t = std::mktime(&tm);
    // mktime moves a day past the month's end into the next month and a
    // local time skipped by a clock change past the gap: refuse both.
    if (tm.tm_wday < 0 || tm.tm_sec != want.tm_sec || tm.tm_min != want.tm_min ||
        tm.tm_hour != want.tm_hour || tm.tm_mday != want.tm_mday || tm.tm_mon != want.tm_mon ||
        tm.tm_year != want.tm_year)
        return false;
    auto target = seconds(t) + milliseconds(date.subsecond);
    offset_ = target - duration_cast<milliseconds>(source_().time_since_epoch());
    return true;
}

// ---- network ----

namespace {

WifiList network(const char *ssid, const char *bssid, const char *security, int32_t dbm, int kind,
                 const char *mhz)
{
    WifiList n;
    n.text1 = ssid;
    n.text2 = bssid;
    n.text3 = security;
    n.value = dbm;
    n.kind = WifiList::Kind(kind);
    n.text4 = mhz;
    return n;
}

}  // namespace

Network::Network()
    : ethernet_{"192.168.1.120", "255.255.255.0", "192.168.1.1", "192.168.1.1", "8.8.8.8", "eth0",
                NetInfo::Kind(1)},
      modem_{"DevSim Mobile", "860000000000001", "10.64.12.34", "internet", "LTE", "registered",
             P4gInfo::Kind(1), 4}
{
    // Every listed network is secured, so every join needs a password.
    scan_ = {network("Office-WiFi", "a4:2b:b0:10:20:30", "WPA2-PSK", -48, 3, "2437"),
             network("Workshop", "a4:2b:b0:10:20:31", "WPA2-PSK", -63, 3, "5180"),
             network("Guest", "c8:3a:35:44:55:66", "WPA-PSK", -71, 2, "2412"),
             network("Line-3-AP", "00:0e:8e:7a:8b:9c", "WEP", -84, 1, "2462")};
}

const WifiList *Network::joined() const { return joined_ < 0 ? nullptr : &scan_[joined_]; }

WifiInfo Network::wifi() const
{
    WifiInfo info;
    const WifiList *net = joined();
    if (!net) {
        info.text6 = "disconnected";
        return info;
    }
    info.text1 = net->text1;
    info.text2 = "192.168.50." + std::to_string(100 + joined_);
    info.text3 = "255.255.255.0";
    info.text4 = "192.168.50.1";
    info.text5 = net->text2;
    info.text6 = "connected";
    info.value = net->value;
    return info;
}

int32_t Network::connect(const std::string &ssid, const std::string &password, int32_t)
{
    auto it = std::find_if(scan_.begin(), scan_.end(), [&](const WifiList &n) { return n.text1 == ssid; });
    if (it == scan_.end())
        return kUnknownNetwork;
    if (password.size() < kMinPassword)
        return kBadPassword;
    joined_ = static_cast<int>(it - scan_.begin());
    return kConnected;
}

bool Network::disconnect()
{
    bool was = joined_ >= 0;
    joined_ = -1;
    return was;
}

int32_t Network::current() const
{
    if (first_ == kWifi && joined())
        return kWifi;
    if (first_ == k4G && has_modem())
        return k4G;
    return kEthernet;
}

bool Network::set_first(int32_t net)
{
    if (net != kEthernet && net != kWifi && net != k4G)
        return false;
    first_ = net;
    return true;
}

int32_t Network::level() const
{
    switch (current()) {
    case kWifi:
        return level_of(joined()->value);
    case k4G:
        return modem_.value;
    default:
        return 5;
    }
}

int32_t Network::level_of(int32_t dbm) { return std::clamp((dbm + 100) / 10, 0, 5); }

// ---- system ----

SystemInfo::SystemInfo()
    : versions{{"system", "1.0.0-devsim"}, {"firmware", "2.1.0"}, {"bootloader", "2019.04-devsim"}}
{
    utsname u{};
    if (uname(&u) == 0)
        versions["kernel"] = u.release;
}

std::string SystemInfo::version(const std::string &component) const
{
    auto it = versions.find(component);
    return it == versions.end() ? "" : it->second;
}

namespace {
int32_t kib(unsigned long long bytes) { return static_cast<int32_t>(std::min<unsigned long long>(bytes / 1024, INT32_MAX)); }
}  // namespace

int32_t SystemInfo::storage_free_kib() const
{
    if (storage_free >= 0)
        return storage_free;
    struct statvfs fs{};
    return statvfs("/", &fs) == 0 ? kib(static_cast<unsigned long long>(fs.f_bavail) * fs.f_frsize) : 0;
}

int32_t SystemInfo::ram_free_kib() const
{
    if (ram_free >= 0)
        return ram_free;
    struct sysinfo si{};
    return sysinfo(&si) == 0 ? kib(static_cast<unsigned long long>(si.freeram) * si.mem_unit) : 0;
}

}  // namespace hmisvc::devsim
