#include "services.h"

#include "looper.h"

#include <chrono>
#include <condition_variable>
#include <deque>
#include <thread>
#include <utility>

namespace hmisvc::devsim {

namespace {

// Binds a service's methods to one piece of the device's state.
template <class State> struct On {
    State &state;
    template <class F> Method operator()(const char *name, F f, bool query = false) const
    {
        return {name, serve(state, f), detail::signature<F>::arg_types(), query};
    }
    // A method that only answers.
    template <class F> Method get(const char *name, F f) const { return (*this)(name, f, true); }
};
template <class State> On(State &) -> On<State>;

// A code the proxy class numbers but never sends.
const Method kUnused{"(unused)", nullptr, {}};

using Text = std::string;

std::string hex(const std::string &bytes)
{
    static const char digits[] = "0123456789abcdef";
    std::string out;
    for (unsigned char c : bytes)
        out += digits[c >> 4], out += digits[c & 15];
    return out;
}

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
         {settings.get("GetValue", [](S &s, Text sec, Text key, Text dflt) { return s.get(sec, key, dflt); }),
          settings.get("GetLongValue",
                   [](S &s, Text sec, Text key, int32_t dflt) { return s.get_long(sec, key, dflt); }),
          settings("SetValue", [](S &s, Text sec, Text key, Text v) { return s.set(sec, key, v); }),
          settings("SetLongValue", [](S &s, Text sec, Text key, int32_t v) { return s.set_long(sec, key, v); }),
          settings("Delete", [](S &s, Text sec, Text key) { return s.remove(sec, key); }),
          settings("SaveFile", [](S &s) { return s.save(); })}},
        {"backlight",
         {backlight.get("GetBrightness", [](Backlight &b) { return b.level(); }),
          backlight.get("GetMaxBrightness", [](Backlight &b) { return b.max(); }),
          backlight("SetBrightness", [](Backlight &b, int32_t level) { return b.set(level); }),
          backlight("SetBrightnessToMax", [](Backlight &b) { return b.set_to_max(); }),
          backlight("Lock", [](Backlight &b, int32_t value) { b.lock(value); }),
          backlight("Unlock", [](Backlight &b) { b.unlock(); })}},
        {"ethinfo",
         {net.get("GetEthinfo", [](N &n) { return n.ethernet(); }),
          net("SetEthinfo", [](N &n, NetInfo info) { n.set_ethernet(info); }),
          net.get("GetEthMac", [](N &n) { return n.ethernet_mac(); })}},
        {"4ginfo",
         {net.get("Get4ginfo", [](N &n) { return n.modem(); }),
          net.get("GetIs4G", [](N &n) { return n.has_modem(); }),
          net.get("Get4GCcid", [](N &n) { return n.ccid(); })}},
        {"wifiinfo",
         {net.get("GetWifiinfo", [](N &n) { return n.wifi(); }),
          net("SetWifiConnection",
              [](N &n, Text ssid, Text password, int32_t option) { return n.connect(ssid, password, option); }),
          net.get("GetWifilist", [](N &n) { return n.scan(); }),
          net.get("GetIsWifi", [](N &n) { return n.has_wifi(); }),
          net("DisconnectCurrentWifi", [](N &n) { return n.disconnect(); }),
          net.get("GetWifiMac", [](N &n) { return n.wifi_mac(); })}},
        {"netchanage",
         {net.get("GetCurrentNet", [](N &n) { return n.current(); }),
          net("SetFirstNet", [](N &n, int32_t first) { n.set_first(first); }),
          net.get("GetNetLevel", [](N &n) { return n.level(); })}},
        {"vncfrpvpn",
         {remote("Vnc_Restart", [](R &r, int32_t mode) { r.vnc = true, r.vnc_mode = mode; }),
          remote("Set_Vnc_Passwd", [](R &r, Text password) { r.vnc_password = password; }),
          remote("Frp_Restart", [](R &r) { return r.frp = true; }),
          remote("Frp_Close", [](R &r) { r.frp = false; }),
          remote("Vnc_Close", [](R &r) { r.vnc = false; }),
          remote("Vpn_Restart", [](R &r, int32_t mode) { r.vpn = true, r.vpn_mode = mode; }),
          remote("Set_Vpn_Range", [](R &r, Text a, Text b, Text c, Text e) { r.vpn_range = {a, b, c, e}; }),
          remote.get("Get_Vnc_Flag", [](R &r) { return r.flags(); })}},
        {"date",
         {clock.get("GetTime", [](Clock &c) { return c.now(); }),
          // An invalid date changes nothing; the reply is not read anyway.
          clock("SetTime", [](Clock &c, Date date) { c.set(date); }),
          clock("SetModifiable", [](Clock &c, bool on) { c.set_modifiable(on); }),
          clock.get("Modifiable", [](Clock &c) { return c.modifiable(); })}},
        {"vpn",
         {vpn("Start", [](Vpn &v, int32_t value) { v.running = true, v.value = value; }),
          vpn("Stop", [](Vpn &v, int32_t value) { v.running = false, v.value = value; })}},
        {"system",
         {sys.get("GetUDiskRoot", [](SystemInfo &s) { return s.udisk_root; }),
          // UDiskMounted is answered inside the proxy.
          kUnused,
          sys("UmountUDisk", [](SystemInfo &s) { return std::exchange(s.udisk_mounted, false); }),
          sys.get("GetStorageFreeSpace", [](SystemInfo &s) { return s.storage_free_kib(); }),
          sys.get("GetRamFreeSpace", [](SystemInfo &s) { return s.ram_free_kib(); }),
          sys.get("GetDeviceID", [](SystemInfo &s) { return s.device_id; }),
          sys.get("GetDeviceType", [](SystemInfo &s) { return s.device_type; }),
          sys.get("GetDeviceSeries", [](SystemInfo &s) { return s.device_series; }),
          sys.get("GetDeviceModel", [](SystemInfo &s) { return s.device_model; }),
          sys.get("GetHmiName", [](SystemInfo &s) { return s.hmi_name; }),
          sys.get("GetVersion", [](SystemInfo &s, Text component) { return s.version(component); }),
          sys("ShowSettings", [](SystemInfo &s, bool show) { s.settings_shown = show; }),
          sys("Reboot",
              [](SystemInfo &s) {
                  ++s.reboots;
                  std::fprintf(stderr, "hmisvc-devsim: reboot requested (simulated: nothing happens)\n");
              }),
          sys.get("IsSettingsShown", [](SystemInfo &s) { return s.settings_shown; })}},
        {"beep", {beep("Beep", [](Beeper &b, int32_t x, int32_t y) { ++b.beeps, b.last[0] = x, b.last[1] = y; })}},
        {"broadcast",
         {On{d.broadcasts}("RegisterBroadcastService",
                           [](BroadcastHub &h, Text name) { return h.add(name), int32_t{0}; }),
          // The intent travels as it came: the endpoints decode it.
          {"SendBroadcast",
           [&d](Request &in, binder_io &reply, Json *trace) {
               std::string payload = in.block();
               if (!in.complete())
                   return int{kBadRequest};
               if (trace)
                   (*trace)["args"] = Json::array({hex(payload)});
               d.broadcasts.send(payload);
               put(reply, int32_t{0});
               return int{kOk};
           },
           {"Intent"}}}},
    };
}

class TraceWriter {
public:
    explicit TraceWriter(std::FILE *out) : out_(out), thread_([this] { run(); }) {}
    ~TraceWriter()
    {
        {
            std::lock_guard<std::mutex> hold(mutex_);
            stopping_ = true;
        }
        wake_.notify_one();
        thread_.join();
    }
    void add(std::string line)
    {
        {
            std::lock_guard<std::mutex> hold(mutex_);
            lines_.push_back(std::move(line));
        }
        wake_.notify_one();
    }

private:
    void run()
    {
        std::unique_lock<std::mutex> hold(mutex_);
        for (;;) {
            wake_.wait(hold, [this] { return stopping_ || !lines_.empty(); });
            std::deque<std::string> batch;
            batch.swap(lines_);
            hold.unlock();
            for (const std::string &line : batch)
                std::fprintf(out_, "%s\n", line.c_str());
            std::fflush(out_);  // every line out as soon as the queue is drained
            hold.lock();
            if (stopping_ && lines_.empty())
                return;
        }
    }

    std::FILE *out_;
    std::mutex mutex_;
    std::condition_variable wake_;
    std::deque<std::string> lines_;
    bool stopping_ = false;
    std::thread thread_;
};

Simulator::Simulator(Device &device, std::FILE *record, std::FILE *trace)
    : services_(make_services(device)), record_(record), trace_(trace),
      trace_writer_(trace ? std::make_unique<TraceWriter>(trace) : nullptr)
{}

Simulator::~Simulator() = default;

const Service *Simulator::find(const std::string &name) const
{
    for (const Service &s : services_)
        if (name == s.name)
            return &s;
    return nullptr;
}

const Service *Simulator::find_method(const std::string &method) const
{
    for (const Service &s : services_)
        for (const Method &m : s.methods)
            if (m.run && method == m.name)
                return &s;
    return nullptr;
}

const Service *Simulator::target(const binder_transaction_data &txn) const
{
    // Compared, never dereferenced: the pointer comes from the driver.
    for (const Service &s : services_)
        if (txn.target.ptr == reinterpret_cast<binder_uintptr_t>(&s))
            return &s;
    if (extra_ && txn.target.ptr == reinterpret_cast<binder_uintptr_t>(extra_))
        return extra_;
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

void Simulator::fail(const Service &service, Fault fault)
{
    std::lock_guard<std::mutex> hold(mutex_);
    faults_[&service] = fault;
}

bool Simulator::heal(const Service &service)
{
    std::lock_guard<std::mutex> hold(mutex_);
    return faults_.erase(&service) != 0;
}

std::map<std::string, Fault> Simulator::faults()
{
    std::lock_guard<std::mutex> hold(mutex_);
    std::map<std::string, Fault> out;
    for (const auto &[service, fault] : faults_)
        out[service->name] = fault;
    return out;
}

bool Simulator::take_fault(const Service *service, Fault &fault)
{
    auto it = faults_.find(service);
    if (it == faults_.end())
        return false;
    fault = it->second;
    if (it->second.calls > 0 && --it->second.calls == 0)
        faults_.erase(it);
    return true;
}

namespace {

double seconds_since_epoch()
{
    using namespace std::chrono;
    return duration_cast<microseconds>(system_clock::now().time_since_epoch()).count() / 1e6;
}

}  // namespace

int Simulator::handle(const binder_transaction_data &txn, binder_io &msg, binder_io &reply)
{
    auto start = std::chrono::steady_clock::now();
    const Service *service = target(txn);
    const Method *method = nullptr;
    if (service && txn.code < service->methods.size() && service->methods[txn.code].run)
        method = &service->methods[txn.code];
    if (service && service == extra_) {
        Request in(msg);
        int status = method ? method->run(in, reply, nullptr) : int{kUnknownMethod};
        if (status == kOk && (reply.flags & BIO_FLAG_OVERFLOW))
            status = kReplyTooLarge;
        if (observer_)
            observer_(nullptr);
        return status;
    }

    std::unique_lock<std::mutex> hold(mutex_);
    const char *service_name = service ? service->name : "?";
    record(service_name, txn.code, msg);

    Fault fault;
    bool injected = service && take_fault(service, fault);
    if (injected && fault.delay_ms > 0) {
        hold.unlock();
        std::this_thread::sleep_for(std::chrono::milliseconds(fault.delay_ms));
        hold.lock();
        injected = false;  // late, then served as usual
    }
    Json trace;
    int status = kUnknownMethod;
    const char *why = service ? "unknown code" : "unknown object";
    if (injected) {
        status = fault.status == Fault::kFailCall ? tools::kFailTransaction : fault.status;
        why = "failure injected";
    } else if (method) {
        Request in(msg);
        status = method->run(in, reply, trace_ || observer_ ? &trace : nullptr);
        why = in.error();
        if (status == kOk && (reply.flags & BIO_FLAG_OVERFLOW)) {
            status = kReplyTooLarge;
            why = "answer does not fit the reply";
        }
    }
    if (trace_ || observer_) {
        Json line = {{"time", seconds_since_epoch()},
                     {"pid", txn.sender_pid},
                     {"service", service_name},
                     {"method", method ? method->name : nullptr},
                     {"code", txn.code}};
        if (txn.flags & TF_ONE_WAY)
            line["one_way"] = true;
        if (trace.contains("args"))
            line["args"] = trace["args"];
        if (status == kOk) {
            line["reply"] = trace.contains("reply") ? trace["reply"] : Json(nullptr);
        } else {
            line["status"] = status == tools::kFailTransaction ? Json("failed transaction") : Json(status);
            line["error"] = why ? why : "?";
        }
        line["us"] = std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::steady_clock::now() - start).count();
        if (trace_writer_)
            trace_writer_->add(line.dump());
        if (observer_) {
            hold.unlock();
            observer_(&line);
        }
    }
    return status;
}

}  // namespace hmisvc::devsim
