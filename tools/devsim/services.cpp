#include "services.h"

#include <utility>

namespace hmisvc::devsim {

namespace {

// Binds a service's methods to one piece of the device's state.
template <class State> struct On {
    State &state;
    template <class F> Method operator()(const char *name, F f) const { return {name, serve(state, f)}; }
};
template <class State> On(State &) -> On<State>;

// A code the proxy class numbers but never sends.
const Method kUnused{"(unused)", nullptr};

using Text = std::string;

}  // namespace

std::vector<Service> make_services(Device &d)
{
    On settings{d.settings};
    On backlight{d.backlight};
    On clock{d.clock};
    On net{d.network};
    On sys{d.system};
    On remote{d.remote};
    On vpn{d.vpn};
    On beep{d.beeper};
    using S = SettingsStore;
    using N = Network;
    using R = RemoteAccess;

    return {
        {"settings",
         {settings("GetValue", [](S &s, Text sec, Text key, Text dflt) { return s.get(sec, key, dflt); }),
          settings("GetLongValue",
                   [](S &s, Text sec, Text key, int32_t dflt) { return s.get_long(sec, key, dflt); }),
          settings("SetValue", [](S &s, Text sec, Text key, Text v) { return s.set(sec, key, v); }),
          settings("SetLongValue", [](S &s, Text sec, Text key, int32_t v) { return s.set_long(sec, key, v); }),
          settings("Delete", [](S &s, Text sec, Text key) { return s.remove(sec, key); }),
          settings("SaveFile", [](S &s) { return s.save(); })}},
        {"backlight",
         {backlight("GetBrightness", [](Backlight &b) { return b.level(); }),
          backlight("GetMaxBrightness", [](Backlight &b) { return b.max(); }),
          backlight("SetBrightness", [](Backlight &b, int32_t level) { return b.set(level); }),
          backlight("SetBrightnessToMax", [](Backlight &b) { return b.set_to_max(); }),
          backlight("Lock", [](Backlight &b, int32_t value) { b.lock(value); }),
          backlight("Unlock", [](Backlight &b) { b.unlock(); })}},
        {"ethinfo",
         {net("GetEthinfo", [](N &n) { return n.ethernet(); }),
          net("SetEthinfo", [](N &n, NetInfo info) { n.set_ethernet(info); }),
          net("GetEthMac", [](N &n) { return n.ethernet_mac(); })}},
        {"4ginfo",
         {net("Get4ginfo", [](N &n) { return n.modem(); }),
          net("GetIs4G", [](N &n) { return n.has_modem(); }),
          net("Get4GCcid", [](N &n) { return n.ccid(); })}},
        {"wifiinfo",
         {net("GetWifiinfo", [](N &n) { return n.wifi(); }),
          net("SetWifiConnection",
              [](N &n, Text ssid, Text password, int32_t option) { return n.connect(ssid, password, option); }),
          net("GetWifilist", [](N &n) { return n.scan(); }),
          net("GetIsWifi", [](N &n) { return n.has_wifi(); }),
          net("DisconnectCurrentWifi", [](N &n) { return n.disconnect(); }),
          net("GetWifiMac", [](N &n) { return n.wifi_mac(); })}},
        {"netchanage",
         {net("GetCurrentNet", [](N &n) { return n.current(); }),
          net("SetFirstNet", [](N &n, int32_t first) { n.set_first(first); }),
          net("GetNetLevel", [](N &n) { return n.level(); })}},
        {"vncfrpvpn",
         {remote("Vnc_Restart", [](R &r, int32_t mode) { r.vnc = true, r.vnc_mode = mode; }),
          remote("Set_Vnc_Passwd", [](R &r, Text password) { r.vnc_password = password; }),
          remote("Frp_Restart", [](R &r) { return r.frp = true; }),
          remote("Frp_Close", [](R &r) { r.frp = false; }),
          remote("Vnc_Close", [](R &r) { r.vnc = false; }),
          remote("Vpn_Restart", [](R &r, int32_t mode) { r.vpn = true, r.vpn_mode = mode; }),
          remote("Set_Vpn_Range", [](R &r, Text a, Text b, Text c, Text e) { r.vpn_range = {a, b, c, e}; }),
          remote("Get_Vnc_Flag", [](R &r) { return r.flags(); })}},
        {"date",
         {clock("GetTime", [](Clock &c) { return c.now(); }),
          // An invalid date changes nothing; the reply is not read anyway.
          clock("SetTime", [](Clock &c, Date date) { c.set(date); }),
          clock("SetModifiable", [](Clock &c, bool on) { c.set_modifiable(on); }),
          clock("Modifiable", [](Clock &c) { return c.modifiable(); })}},
        {"vpn",
         {vpn("Start", [](Vpn &v, int32_t value) { v.running = true, v.value = value; }),
          vpn("Stop", [](Vpn &v, int32_t value) { v.running = false, v.value = value; })}},
        {"system",
         {sys("GetUDiskRoot", [](SystemInfo &) { return SystemInfo::udisk_root(); }),
          // UDiskMounted is answered inside the proxy.
          kUnused,
          sys("UmountUDisk", [](SystemInfo &s) { return std::exchange(s.udisk_mounted, false); }),
          sys("GetStorageFreeSpace", [](SystemInfo &) { return SystemInfo::storage_free_kib(); }),
          sys("GetRamFreeSpace", [](SystemInfo &) { return SystemInfo::ram_free_kib(); }),
          sys("GetDeviceID", [](SystemInfo &) { return SystemInfo::device_id(); }),
          sys("GetDeviceType", [](SystemInfo &) { return SystemInfo::device_type(); }),
          sys("GetDeviceSeries", [](SystemInfo &) { return SystemInfo::device_series(); }),
          sys("GetDeviceModel", [](SystemInfo &) { return SystemInfo::device_model(); }),
          sys("GetHmiName", [](SystemInfo &) { return SystemInfo::hmi_name(); }),
          sys("GetVersion", [](SystemInfo &, Text component) { return SystemInfo::version(component); }),
          sys("ShowSettings", [](SystemInfo &s, bool show) { s.settings_shown = show; }),
          sys("Reboot",
              [](SystemInfo &s) {
                  ++s.reboots;
                  std::fprintf(stderr, "hmisvc-devsim: reboot requested (simulated: nothing happens)\n");
              }),
          sys("IsSettingsShown", [](SystemInfo &s) { return s.settings_shown; })}},
        {"beep", {beep("Beep", [](Beeper &b, int32_t x, int32_t y) { ++b.beeps, b.last[0] = x, b.last[1] = y; })}},
        {"broadcast",
         {On{d.broadcasts}("RegisterBroadcastService",
                           [](BroadcastHub &h, Text name) { return h.add(name), int32_t{0}; }),
          // The intent travels as it came: the endpoints decode it.
          {"SendBroadcast", [&d](Request &in, binder_io &reply) {
               std::string payload = in.block();
               if (!in.complete())
                   return int{kBadRequest};
               d.broadcasts.send(payload);
               put(reply, int32_t{0});
               return int{kOk};
           }}}},
    };
}

Simulator::Simulator(Device &device, std::FILE *record, std::FILE *trace)
    : services_(make_services(device)), record_(record), trace_(trace)
{}

const Service *Simulator::find(const std::string &name) const
{
    for (const Service &s : services_)
        if (name == s.name)
            return &s;
    return nullptr;
}

const Service *Simulator::target(const binder_transaction_data &txn) const
{
    // Compared, never dereferenced: the pointer comes from the driver.
    for (const Service &s : services_)
        if (txn.target.ptr == reinterpret_cast<binder_uintptr_t>(&s))
            return &s;
    return nullptr;
}

void Simulator::record(const char *service, uint32_t code, const binder_io &msg)
{
    if (!record_)
        return;
    std::fprintf(record_, "%s %u ", service, code);
    const auto *bytes = reinterpret_cast<const unsigned char *>(msg.data_start);
    for (uint32_t i = 0; i < msg.data_left; ++i)
        std::fprintf(record_, "%02x", bytes[i]);
    std::fputc('\n', record_);
    std::fflush(record_);
}

int Simulator::handle(const binder_transaction_data &txn, binder_io &msg, binder_io &reply)
{
    const Service *service = target(txn);
    const char *service_name = service ? service->name : "?";
    record(service_name, txn.code, msg);

    const Method *method = nullptr;
    if (service && txn.code < service->methods.size() && service->methods[txn.code].run)
        method = &service->methods[txn.code];

    int status = kUnknownMethod;
    const char *why = service ? "unknown code" : "unknown object";
    if (method) {
        Request in(msg);
        status = method->run(in, reply);
        why = in.error();
        if (status == kOk && (reply.flags & BIO_FLAG_OVERFLOW)) {
            status = kReplyTooLarge;
            why = "answer does not fit the reply";
        }
    }
    if (trace_) {
        std::fprintf(trace_, "hmisvc-devsim: %s %u %s: ", service_name, txn.code, method ? method->name : "-");
        if (status == kOk)
            std::fprintf(trace_, "ok\n");
        else
            std::fprintf(trace_, "refused, status %d (%s)\n", status, why ? why : "?");
        std::fflush(trace_);
    }
    return status;
}

}  // namespace hmisvc::devsim
