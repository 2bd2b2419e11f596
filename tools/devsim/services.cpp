#include "services.h"

#include "holds.h"
#include "looper.h"
#include "state.h"

#include <hmisvc/proxies.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <condition_variable>
#include <deque>
#include <optional>
#include <thread>
#include <utility>

namespace hmisvc::devsim {

namespace {

// Binds a service's methods to one piece of the device's state.
template <class State> struct On {
    State &state;
    template <class F> Method operator()(const char *name, F f, bool query = false) const
    {
        return method_of(state, name, f, query);
    }
    // A method that only answers; `keep` puts its answer into the state.
    template <class F> Method get(const char *name, F f, Keep keep) const
    {
        Method m = (*this)(name, f, true);
        m.answer = &answer_json<typename detail::signature<F>::result>;
        m.keep = std::move(keep);
        return m;
    }
};
template <class State> On(State &) -> On<State>;

// The answer is the value at SECTION.FIELD.
Keep at(const char *section, const char *field)
{
    return [=](Json &state, const Json &, const Json &answer) { state[section][field] = answer; };
}
// The answer follows from what other queries keep.
const Keep kDerived;

// A code the proxy class numbers but never sends.
const Method kUnused{"(unused)", nullptr, {}, false, nullptr, {}};

using Text = std::string;


}  // namespace

std::vector<Service> make_services(Device &d)
{
    On settings{d.settings};
    On device{d};
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
         {settings.get("GetValue", [](S &s, Text sec, Text key, Text dflt) { return s.get(sec, key, dflt); },
                       // Asked with the default "": an empty answer is a key not set.
                       [](Json &state, const Json &args, const Json &answer) {
                           if (answer != "")
                               state["settings"][args[0].get<Text>()][args[1].get<Text>()] = answer;
                       }),
          settings.get("GetLongValue",
                   [](S &s, Text sec, Text key, int32_t dflt) { return s.get_long(sec, key, dflt); }, kDerived),
          device("SetValue", [](Device &d, Text sec, Text key, Text v) { return d.set_setting(sec, key, v); }),
          device("SetLongValue",
                 [](Device &d, Text sec, Text key, int32_t v) { return d.set_setting(sec, key, std::to_string(v)); }),
          settings("Delete", [](S &s, Text sec, Text key) { return s.remove(sec, key); }),
          settings("SaveFile", [](S &s) { return s.save(); })}},
        {"backlight",
         {backlight.get("GetBrightness", [](Backlight &b) { return b.level(); }, at("backlight", "brightness")),
          backlight.get("GetMaxBrightness", [](Backlight &b) { return b.max(); }, at("backlight", "max")),
          backlight("SetBrightness", [](Backlight &b, int32_t level) { return b.set(level); }),
          backlight("SetBrightnessToMax", [](Backlight &b) { return b.set_to_max(); }),
          backlight("Lock", [](Backlight &b, int32_t value) { b.lock(value); }),
          backlight("Unlock", [](Backlight &b) { b.unlock(); })}},
        {"ethinfo",
         {net.get("GetEthinfo", [](N &n) { return n.ethernet(); }, at("ethernet", "info")),
          net("SetEthinfo", [](N &n, NetInfo info) { n.set_ethernet(info); }),
          net.get("GetEthMac", [](N &n) { return n.ethernet_mac(); }, at("ethernet", "mac"))}},
        {"4ginfo",
         {net.get("Get4ginfo", [](N &n) { return n.modem(); }, at("modem", "info")),
          net.get("GetIs4G", [](N &n) { return n.has_modem(); }, at("modem", "present")),
          net.get("Get4GCcid", [](N &n) { return n.ccid(); }, at("modem", "ccid"))}},
        {"wifiinfo",
         {net.get("GetWifiinfo", [](N &n) { return n.wifi(); },
                  // The rest of the answer comes from the joined network's scan entry.
                  [](Json &state, const Json &, const Json &answer) {
                      state["wifi"]["connected"] = answer["state"] == "connected" ? answer["ssid"] : Json("");
                  }),
          net("SetWifiConnection",
              [](N &n, Text ssid, Text password, int32_t option) { return n.connect(ssid, password, option); }),
          net.get("GetWifilist", [](N &n) { return n.scan(); }, at("wifi", "scan")),
          net.get("GetIsWifi", [](N &n) { return n.has_wifi(); }, at("wifi", "present")),
          net("DisconnectCurrentWifi", [](N &n) { return n.disconnect(); }),
          net.get("GetWifiMac", [](N &n) { return n.wifi_mac(); }, at("wifi", "mac"))}},
        {"netchanage",
         {net.get("GetCurrentNet", [](N &n) { return n.current(); },
                  // The network in use: preferring it makes it current again.
                  at("network", "first")),
          net("SetFirstNet", [](N &n, int32_t first) { n.set_first(first); }),
          net.get("GetNetLevel", [](N &n) { return n.level(); }, kDerived)}},
        {"vncfrpvpn",
         {remote("Vnc_Restart", [](R &r, int32_t mode) { r.vnc = true, r.vnc_mode = mode; }),
          remote("Set_Vnc_Passwd", [](R &r, Text password) { r.vnc_password = password; }),
          remote("Frp_Restart", [](R &r) { return r.frp = true; }),
          remote("Frp_Close", [](R &r) { r.frp = false; }),
          remote("Vnc_Close", [](R &r) { r.vnc = false; }),
          remote("Vpn_Restart", [](R &r, int32_t mode) { r.vpn = true, r.vpn_mode = mode; }),
          remote("Set_Vpn_Range", [](R &r, Text a, Text b, Text c, Text e) { r.vpn_range = {a, b, c, e}; }),
          remote.get("Get_Vnc_Flag", [](R &r) { return r.flags(); },
                     [](Json &state, const Json &, const Json &answer) {
                         int32_t flags = answer.get<int32_t>();
                         state["remote"]["vnc_running"] = (flags & R::kVnc) != 0;
                         state["remote"]["frp_running"] = (flags & R::kFrp) != 0;
                         state["remote"]["vpn_running"] = (flags & R::kVpn) != 0;
                     })}},
        {"date",
         {clock.get("GetTime", [](Clock &c) { return c.now(); },
                    // Kept as the offset from this host's clock, as setting it would.
                    [](Json &state, const Json &, const Json &answer) {
                        Date date;
                        from_json_value(answer, date, "GetTime");
                        if (Clock clock; clock.set(date))
                            state["date"]["offset_ms"] = clock.offset().count();
                    }),
          // An invalid date changes nothing; the reply is not read anyway.
          clock("SetTime", [](Clock &c, Date date) { c.set(date); }),
          clock("SetModifiable", [](Clock &c, bool on) { c.set_modifiable(on); }),
          clock.get("Modifiable", [](Clock &c) { return c.modifiable(); }, at("date", "modifiable"))}},
        {"vpn",
         {vpn("Start", [](Vpn &v, int32_t value) { v.running = true, v.value = value; }),
          vpn("Stop", [](Vpn &v, int32_t value) { v.running = false, v.value = value; })}},
        {"system",
         {sys.get("GetUDiskRoot", [](SystemInfo &s) { return s.udisk_root; }, at("system", "udisk_root")),
          // UDiskMounted is answered inside the proxy.
          kUnused,
          sys("UmountUDisk", [](SystemInfo &s) { return std::exchange(s.udisk_mounted, false); }),
          sys.get("GetStorageFreeSpace", [](SystemInfo &s) { return s.storage_free_kib(); }, at("system", "storage_free_kib")),
          sys.get("GetRamFreeSpace", [](SystemInfo &s) { return s.ram_free_kib(); }, at("system", "ram_free_kib")),
          sys.get("GetDeviceID", [](SystemInfo &s) { return s.device_id; }, at("system", "device_id")),
          sys.get("GetDeviceType", [](SystemInfo &s) { return s.device_type; }, at("system", "device_type")),
          sys.get("GetDeviceSeries", [](SystemInfo &s) { return s.device_series; }, at("system", "device_series")),
          sys.get("GetDeviceModel", [](SystemInfo &s) { return s.device_model; }, at("system", "device_model")),
          sys.get("GetHmiName", [](SystemInfo &s) { return s.hmi_name; }, at("system", "hmi_name")),
          sys.get("GetVersion", [](SystemInfo &s, Text component) { return s.version(component); },
                  [](Json &state, const Json &args, const Json &answer) {
                      if (answer != "")
                          state["system"]["versions"][args[0].get<Text>()] = answer;
                  }),
          sys("ShowSettings", [](SystemInfo &s, bool show) { s.settings_shown = show; }),
          sys("Reboot",
              [](SystemInfo &s) {
                  ++s.reboots;
                  std::fprintf(stderr, "hmisvc-devsim: reboot requested (simulated: nothing happens)\n");
              }),
          sys.get("IsSettingsShown", [](SystemInfo &s) { return s.settings_shown; }, at("system", "settings_shown"))}},
        {"beep", {beep("Beep", [](Beeper &b, int32_t x, int32_t y) { ++b.beeps, b.last[0] = x, b.last[1] = y; })}},
        {"broadcast",
         {On{d.broadcasts}("RegisterBroadcastService",
                           // -1: refused, the list is full.
                           [](BroadcastHub &h, Text name) { return h.add(name) ? int32_t{0} : int32_t{-1}; }),
          // The intent travels as it came: the endpoints decode it.
          {"SendBroadcast",
           [&d](Request &in, binder_io &reply, Json *trace) {
               std::string payload = in.block();
               if (!in.complete())
                   return int{kBadRequest};
               if (trace)
                   (*trace)["args"] = Json::array({intent_json(payload)});
               d.broadcasts.send(payload, &Simulator::waiting);
               put(reply, int32_t{0});
               return int{kOk};
           },
           {"Intent"},
           false,
           nullptr,
           {},
           [](Request &in) {
               std::string payload = in.block();
               return in.complete() ? Json::array({intent_json(payload)}) : Json();
           },
           &answer_with<int32_t>,
           answer_type<int32_t>()}}},
    };
}

int32_t Device::set_setting(const std::string &section, const std::string &key, const std::string &value)
{
    std::optional<std::string> old;
    if (auto s = settings.sections().find(section); s != settings.sections().end())
        if (auto k = s->second.find(key); k != s->second.end())
            old = k->second;
    int32_t answer = settings.set(section, key, value);
    if (answer != SettingsStore::kDone || undumpable(*this).empty())
        return answer;
    old ? settings.set(section, key, *old) : settings.remove(section, key);
    return SettingsStore::kTooLarge;
}

namespace {

// The mapping the proxy of a service takes its replies in.
template <class... Proxy> uint32_t map_size(const std::string &service)
{
    uint32_t size = 0;
    ((service == Proxy::SERVICE_NAME && (size = Proxy::MAP_SIZE)), ...);
    return size;
}
uint32_t proxy_map_size(const std::string &service)
{
    return map_size<SystemManager, SettingsManager, BacklightManager, BeepManager, DateManager, EthInfoManager,
                    P4gManager, WifiManager, NetChanageManager, VncFrpVpnManager, VpnManager, BroadcastManager>(
        service);
}

// Serves a query as its proxy asks it, into `room` bytes of reply: false
// when the answer does not fit.
bool answer_fits(const Method &m, const std::vector<std::string> &args, uint32_t room)
{
    std::size_t size = sizeof(uint32_t);
    for (const std::string &a : args)
        size += sizeof(uint32_t) + a.size() + sizeof(uint32_t);
    std::vector<uint32_t> request(size / sizeof(uint32_t) + 1);
    binder_io out, in, reply;
    bio_init(&out, request.data(), static_cast<uint32_t>(request.size() * sizeof(uint32_t)), 0);
    bio_put_uint32(&out, 0);
    for (const std::string &a : args)
        bio_put_string(&out, a.c_str());
    binder_transaction_data txn{};
    txn.data_size = static_cast<binder_size_t>(out.cursor - out.data_start);
    txn.data.ptr.buffer = static_cast<binder_uintptr_t>(reinterpret_cast<uintptr_t>(out.data_start));
    bio_init_from_txn(&in, &txn);
    std::vector<uint32_t> area(room / sizeof(uint32_t));
    bio_init(&reply, area.data(), room, 0);
    Request r(in);
    return m.run(r, reply, nullptr) != kOk || !(reply.flags & BIO_FLAG_OVERFLOW);
}

}  // namespace

std::string unanswerable(Device &d)
{
    for (const Service &s : make_services(d)) {
        uint32_t room = proxy_map_size(s.name);
        for (const Method &m : s.methods) {
            if (!m.query || !m.run)
                continue;
            // The arguments asked with: none, or those the state names.
            std::vector<std::vector<std::string>> asked;
            std::vector<std::string> types(m.arg_types.begin(), m.arg_types.end());
            if (types.empty())
                asked.push_back({});
            else if (types == std::vector<std::string>{"string", "string", "string"})
                for (const auto &[section, keys] : d.settings.sections())
                    for (const auto &entry : keys)
                        asked.push_back({section, entry.first, ""});
            else if (types == std::vector<std::string>{"string"})
                for (const auto &entry : d.system.versions)
                    asked.push_back({entry.first});
            for (const auto &args : asked)
                if (!answer_fits(m, args, room))
                    return std::string(s.name) + ": the answer to " + m.name + " would not fit the " +
                           std::to_string(room) + " bytes its proxy takes replies in";
        }
    }
    return undumpable(d);
}

std::string undumpable(Device &d)
{
    // As the control service answers it, with every service named in its
    // services section.
    Json state = StateJson::dump(d);
    Json services = Json::object();
    for (const Service &s : make_services(d))
        services[s.name] = "absent";
    state["services"] = std::move(services);
    std::string text = tools::dump_json(state, 2);
    thread_local std::vector<uint32_t> area(kReplyArea / sizeof(uint32_t));
    binder_io reply;
    bio_init(&reply, area.data(), static_cast<uint32_t>(kReplyArea), 4);  // as the serving threads do
    bio_put_uint32(&reply, 0);
    bio_put_string(&reply, text.c_str());
    if (!(reply.flags & BIO_FLAG_OVERFLOW))
        return "";
    return "the state would take " + std::to_string(text.size()) + " bytes in a dump; a reply of the simulator holds " +
           std::to_string(kReplyArea) + " bytes";
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
    : device_(device), services_(make_services(device)), record_(record), trace_(trace),
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

binder_uintptr_t object_word(const Service *s)
{
    // Through uintptr_t, as the library writes the published pointer: a
    // direct cast to a wider word sign-extends a 32-bit address above 2 GiB.
    return static_cast<binder_uintptr_t>(reinterpret_cast<uintptr_t>(s));
}

const Service *Simulator::target(const binder_transaction_data &txn) const
{
    // Compared, never dereferenced: the pointer comes from the driver.
    for (const Service &s : services_)
        if (txn.target.ptr == object_word(&s))
            return &s;
    if (extra_ && txn.target.ptr == object_word(extra_))
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
    ++heals_[&service];
    healed_.notify_all();
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

namespace {

// The call the calling thread serves: its hold on the device's lock, and
// the delay hook (see Simulator::waiting).
thread_local std::unique_lock<std::mutex> *serving_hold = nullptr;
thread_local const std::function<void(bool)> *serving_delay = nullptr;

}  // namespace

void Simulator::waiting(bool starts)
{
    if (!serving_hold)
        return;
    if (!starts)
        serving_hold->lock();
    if (*serving_delay)
        (*serving_delay)(starts);  // under the lock, as for a delay
    if (starts)
        serving_hold->unlock();
}

int Simulator::handle(const binder_transaction_data &txn, binder_io &msg, binder_io &reply)
{
    auto start = std::chrono::steady_clock::now();
    const Service *service = target(txn);
    const Method *method = nullptr;
    if (service && txn.code < service->methods.size() && service->methods[txn.code].run)
        method = &service->methods[txn.code];
    if (service && service == extra_) {
        Holds::client() = {static_cast<int>(txn.sender_pid), -1};  // a wait ends when its caller does
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
    // A scripted answer, when no fault comes first.
    std::optional<Answer> scripted;
    if (!injected && method)
        if (auto q = answers_.find(method); q != answers_.end() && !q->second.empty()) {
            scripted = std::move(q->second.front());
            q->second.pop_front();
            --queued_answers_;
            queued_bytes_ -= scripted->text().size();
            if (scripted->kind == Answer::kDelay)
                injected = true, fault = {Fault::kFailCall, 1, scripted->n}, scripted.reset();
        }
    const char *why = service ? "unknown code" : "unknown object";
    if (injected && fault.delay_ms > 0 && delayed_ < kMaxDelayed) {
        // Waited out without the device's lock; a heal ends the wait.
        ++delayed_;
        if (on_delay_)
            on_delay_(true);
        uint64_t heals = heals_[service];
        healed_.wait_for(hold, std::chrono::milliseconds(fault.delay_ms), [&] { return heals_[service] != heals; });
        --delayed_;
        if (on_delay_)
            on_delay_(false);
        injected = false;  // late, then served as usual
        if (on_late_ && !on_late_())
            injected = true, fault.status = Fault::kFailCall, why = "its service's process ended while it waited";
    } else if (injected && fault.delay_ms > 0) {
        fault.status = Fault::kFailCall;
        why = "too many delayed calls waiting";
        std::fprintf(stderr, "hmisvc-devsim: %s call failed at once: %d delayed calls are waiting already\n",
                     service->name, kMaxDelayed);
    }
    Json trace;
    std::string undone;
    int status = kUnknownMethod;
    if (injected) {
        status = fault.status == Fault::kFailCall ? tools::kFailTransaction : fault.status;
        if (fault.delay_ms == 0)
            why = "failure injected";
    } else if (scripted) {
        // The request is read as the method would, and left unserved.
        Request in(msg);
        Json args = method->args(in);
        status = args.is_null() ? int{kBadRequest} : scripted->kind == Answer::kFail ? tools::kFailTransaction
                                                 : scripted->kind == Answer::kStatus ? scripted->n
                                                                                     : int{kOk};
        why = args.is_null() ? in.error() : "scripted answer";
        if (!args.is_null())
            trace["args"] = args;
        std::string unused;
        if (status == kOk && method->answer_with(scripted->value, &reply, unused))
            trace["reply"] = scripted->value;
        trace["scripted"] = true;
    } else if (method) {
        Request in(msg);
        auto run = [&] {
            serving_hold = &hold, serving_delay = &on_delay_;
            status = method->run(in, reply, &trace);
            serving_hold = nullptr, serving_delay = nullptr;
        };
        // A change after which some answer (or the dump) could no longer
        // reach its caller is undone: an Ethernet record larger than its
        // proxy's mapping, say. Only a text or record argument can make
        // anything larger; endpoints are the broadcast hub's to bound.
        bool grows = std::any_of(method->arg_types.begin(), method->arg_types.end(), [](const char *type) {
            return std::strcmp(type, "int") != 0 && std::strcmp(type, "bool") != 0;
        });
        if (method->query || !grows || std::strcmp(service->name, "broadcast") == 0)
            run();
        else if (undone = StateJson::change_within_limits(device_, run); !undone.empty())
            status = kReplyTooLarge, undone = "change undone: " + undone;
        why = undone.empty() ? in.error() : undone.c_str();
        if (status == kOk && (reply.flags & BIO_FLAG_OVERFLOW)) {
            status = kReplyTooLarge;
            why = "answer does not fit the reply";
        }
    }
    {
        Json line = {{"time", seconds_since_epoch()},
                     {"pid", txn.sender_pid},
                     {"service", service_name},
                     // A code the service does not have is traced without a name.
                     {"method", method ? Json(method->name) : Json(nullptr)},
                     {"code", txn.code}};
        if (txn.flags & TF_ONE_WAY)
            line["one_way"] = true;
        if (trace.contains("args"))
            line["args"] = trace["args"];
        if (trace.contains("scripted"))
            line["scripted"] = true;
        if (status == kOk) {
            line["reply"] = trace.contains("reply") ? trace["reply"] : Json(nullptr);
        } else {
            line["status"] = status == tools::kFailTransaction ? Json("failed transaction") : Json(status);
            line["error"] = why ? why : "?";
        }
        line["us"] = std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::steady_clock::now() - start).count();
        if (trace_writer_)
            trace_writer_->add(tools::dump_json(line));
        // Logged under the lock, so that the log's order is the order served
        // (a reset, under the same lock, empties it between two calls).
        Json logged = line;
        logged.erase("us");
        calls_.add(std::move(logged), CallLog::program_of(txn.sender_pid));
        if (observer_) {
            hold.unlock();
            observer_(&line);
        }
    }
    return status;
}

std::string Answer::text() const
{
    switch (kind) {
    case kFail:
        return "fail";
    case kStatus:
        return "status:" + std::to_string(n);
    case kDelay:
        return "delay:" + std::to_string(n);
    default:
        return tools::dump_json(value);
    }
}

std::string Simulator::queue(const Method &method, std::vector<Answer> answers)
{
    std::lock_guard<std::mutex> hold(mutex_);
    if (answers.empty()) {
        if (auto q = answers_.find(&method); q != answers_.end())
            for (const Answer &a : q->second)
                --queued_answers_, queued_bytes_ -= a.text().size();
        answers_.erase(&method);
        return "";
    }
    std::size_t bytes = 0;
    for (const Answer &a : answers)
        bytes += a.text().size();
    if (queued_answers_ + answers.size() > kMaxAnswers || queued_bytes_ + bytes > kAnswerBytes)
        return "the reply queues hold at most " + std::to_string(kMaxAnswers) + " answers and " +
               std::to_string(kAnswerBytes) + " bytes of them; " + std::to_string(queued_answers_) + " (" +
               std::to_string(queued_bytes_) + " bytes) are queued, these are " + std::to_string(answers.size()) +
               " (" + std::to_string(bytes) + " bytes)";
    queued_answers_ += answers.size();
    queued_bytes_ += bytes;
    for (Answer &a : answers)
        answers_[&method].push_back(std::move(a));
    return "";
}

std::map<std::string, std::vector<std::string>> Simulator::queued()
{
    std::lock_guard<std::mutex> hold(mutex_);
    std::map<std::string, std::vector<std::string>> out;
    for (const Service &s : services_)
        for (const Method &m : s.methods)
            if (auto q = answers_.find(&m); q != answers_.end() && !q->second.empty())
                for (const Answer &a : q->second)
                    out[std::string(s.name) + "." + m.name].push_back(a.text());
    return out;
}

void Simulator::clear_locked()
{
    faults_.clear();
    answers_.clear();
    queued_answers_ = queued_bytes_ = 0;
    for (const Service &s : services_)
        ++heals_[&s];
    healed_.notify_all();
}

void Simulator::note(Json line)
{
    line["time"] = seconds_since_epoch();
    if (trace_writer_)
        trace_writer_->add(tools::dump_json(line));
    if (observer_)
        observer_(&line);
}

void Simulator::holding(bool starts)
{
    std::lock_guard<std::mutex> hold(mutex_);
    if (on_delay_)
        on_delay_(starts);
}

}  // namespace hmisvc::devsim
