#include "state.h"

#include "services.h"

#include <algorithm>

namespace hmisvc::devsim {

// The copies a load works on, committed together once all have been read.
struct StateJson::Parts {
    SettingsStore::Sections settings;
    Backlight backlight;
    Clock clock;
    Network network;
    SystemInfo system;
    RemoteAccess remote;
    Vpn vpn;
    Beeper beeper;
    std::string connected;  // SSID of the joined network, "" for none
};

// One table of sections and fields, walked for dump and for load alike.
template <class V> void StateJson::sections(Parts &p, V &&v)
{
    auto &b = p.backlight;
    auto &c = p.clock;
    auto &n = p.network;
    auto &s = p.system;
    auto &r = p.remote;
    v("system", "device_id", s.device_id), v("system", "device_type", s.device_type),
        v("system", "device_series", s.device_series), v("system", "device_model", s.device_model),
        v("system", "hmi_name", s.hmi_name), v("system", "versions", s.versions),
        v("system", "udisk_root", s.udisk_root), v("system", "udisk_mounted", s.udisk_mounted),
        v("system", "storage_free_kib", s.storage_free), v("system", "ram_free_kib", s.ram_free),
        v("system", "settings_shown", s.settings_shown), v("system", "reboots", s.reboots);
    v("settings", nullptr, p.settings);
    v("backlight", "brightness", b.level_), v("backlight", "max", b.max_), v("backlight", "locked", b.locked_),
        v("backlight", "lock_value", b.lock_value_);
    v("beep", "count", p.beeper.beeps), v("beep", "last", p.beeper.last);
    v("date", "offset_ms", c.offset_), v("date", "modifiable", c.modifiable_);
    v("ethernet", "info", n.ethernet_), v("ethernet", "mac", n.ethernet_mac_);
    v("modem", "present", n.has_modem_), v("modem", "info", n.modem_), v("modem", "ccid", n.ccid_);
    v("wifi", "present", n.has_wifi_), v("wifi", "mac", n.wifi_mac_), v("wifi", "connected", p.connected),
        v("wifi", "scan", n.scan_);
    v("network", "first", n.first_);
    v("remote", "vnc_running", r.vnc), v("remote", "vnc_mode", r.vnc_mode), v("remote", "vnc_password", r.vnc_password),
        v("remote", "frp_running", r.frp), v("remote", "vpn_running", r.vpn), v("remote", "vpn_mode", r.vpn_mode),
        v("remote", "vpn_range", r.vpn_range);
    v("vpn", "running", p.vpn.running), v("vpn", "value", p.vpn.value);
}

StateJson::Parts StateJson::copy(const Device &d)
{
    Parts p{d.settings.sections(), d.backlight, d.clock, d.network, d.system, d.remote, d.vpn, d.beeper, {}};
    if (const WifiList *joined = d.network.joined())
        p.connected = joined->text1;
    return p;
}

Json StateJson::dump(const Device &device)
{
    Parts p = copy(device);
    Json out = Json::object();
    sections(p, [&](const char *section, const char *field, auto &value) {
        if (field)
            out[section][field] = to_json_value(value);
        else
            out[section] = to_json_value(value);
    });
    // What is answered: the host's free space unless a value was set.
    out["system"]["storage_free_kib"] = device.system.storage_free_kib();
    out["system"]["ram_free_kib"] = device.system.ram_free_kib();
    // Derived, shown for reading: what GetWifiinfo, GetCurrentNet and
    // GetNetLevel answer now.
    out["wifi"]["current"] = to_json_value(device.network.wifi());
    out["network"]["current"] = device.network.current();
    out["network"]["level"] = device.network.level();
    Json names = Json::array();
    for (const std::string &name : device.broadcasts.names())
        names.push_back(to_json_value(name));
    out["broadcast"]["endpoints"] = names;
    return out;
}

void StateJson::load(Device &device, const Json &state)
{
    if (!state.is_object())
        type_error("state", "an object", state);
    Parts p = copy(device);
    Json seen = Json::object();
    sections(p, [&](const char *section, const char *field, auto &value) {
        auto s = state.find(section);
        if (s == state.end())
            return;
        if (!field) {
            from_json_value(*s, value, section);
            seen[section] = true;
            return;
        }
        if (!s->is_object())
            type_error(section, "an object", *s);
        seen[section][field] = true;
        if (auto f = s->find(field); f != s->end())
            from_json_value(*f, value, std::string(section) + "." + field);
    });
    // What a dump shows but a state does not hold is accepted unchanged.
    for (auto s = state.begin(); s != state.end(); ++s) {
        if (s.key() == "broadcast" || s.key() == "services" || s.key() == "replies")
            continue;
        if (!seen.contains(s.key()))
            throw JsonError(s.key() + ": no such section");
        if (seen[s.key()].is_boolean())
            continue;
        for (auto f = s->begin(); f != s->end(); ++f)
            if (!seen[s.key()].contains(f.key()) && !(s.key() == "wifi" && f.key() == "current") &&
                !(s.key() == "network" && (f.key() == "current" || f.key() == "level")))
                throw JsonError(s.key() + "." + f.key() + ": no such field");
    }

    for (const auto &[section, keys] : p.settings)
        for (const auto &[key, value] : keys)
            if (!SettingsStore::storable(section, key, value))
                throw JsonError("settings." + tools::printable(section) + "." + tools::printable(key) +
                                ": the settings file cannot hold it");
    if (p.backlight.max_ < 0 || p.backlight.level_ < 0 || p.backlight.level_ > p.backlight.max_)
        throw JsonError("backlight.brightness: must be within 0..backlight.max");
    if (p.beeper.last.size() != 2)
        throw JsonError("beep.last: expected the two values of the last beep");
    if (p.network.first_ < Network::kEthernet || p.network.first_ > Network::k4G)
        throw JsonError("network.first: must be 0 (Ethernet), 1 (Wi-Fi) or 2 (4G)");
    auto &scan = p.network.scan_;
    auto it = std::find_if(scan.begin(), scan.end(), [&](const WifiList &w) { return w.text1 == p.connected; });
    if (!p.connected.empty() && it == scan.end())
        throw JsonError("wifi.connected: \"" + tools::printable(p.connected) +
                        "\" is not in wifi.scan (set wifi.connected to \"\" first to drop it)");
    p.network.joined_ = p.connected.empty() ? -1 : static_cast<int>(it - scan.begin());
    if (!p.clock.answerable())
        throw JsonError("date.offset_ms: the clock would answer a date outside the years " +
                        std::to_string(Clock::kFirstYear) + " to " + std::to_string(Clock::kLastYear));

    // What the answers take on the wire is measured on the device itself:
    // the new state goes in, and the old one back if any answer (or the
    // dump) would not reach its caller.
    Parts before = copy(device);
    commit(device, std::move(p));
    if (std::string why = unanswerable(device); !why.empty()) {
        commit(device, std::move(before));
        throw JsonError(why);
    }
}

struct StateJson::Saved {
    Parts parts;
};

std::shared_ptr<StateJson::Saved> StateJson::save(const Device &device)
{
    return std::make_shared<Saved>(Saved{copy(device)});
}

std::string StateJson::keep_or_undo(Device &device, Saved &before)
{
    std::string why = unanswerable(device);
    if (!why.empty())
        commit(device, std::move(before.parts));
    return why;
}

void StateJson::commit(Device &device, Parts &&p)
{
    device.settings.replace(std::move(p.settings));
    device.backlight = p.backlight;
    device.clock = std::move(p.clock);
    device.network = std::move(p.network);
    device.system = std::move(p.system);
    device.remote = std::move(p.remote);
    device.vpn = p.vpn;
    device.beeper = p.beeper;
}

std::map<std::string, std::string> StateJson::service_states(const Json &state,
                                                            const std::vector<std::string> &names)
{
    std::map<std::string, std::string> out;
    auto s = state.is_object() ? state.find("services") : state.end();
    if (s == state.end())
        return out;
    from_json_value(*s, out, "services");
    for (const auto &[name, how] : out) {
        if (std::find(names.begin(), names.end(), name) == names.end())
            throw JsonError("services." + name + ": no such service");
        if (how != "absent" && how != "failed")
            throw JsonError("services." + name + ": expected \"absent\" or \"failed\", got \"" + how + "\"");
    }
    return out;
}

}  // namespace hmisvc::devsim
