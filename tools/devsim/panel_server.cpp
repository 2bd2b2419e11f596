#include "panel_server.h"

#include <httplib.h>

#include <condition_variable>
#include <deque>
#include <fstream>
#include <mutex>
#include <random>
#include <thread>

namespace hmisvc::devsim {

// The page, embedded at build time (panel_assets.cpp).
struct PanelAsset {
    const char *path;
    const char *type;
    const unsigned char *data;
    std::size_t size;
};
extern const PanelAsset kPanelAssets[];
extern const std::size_t kPanelAssetCount;

namespace {

// Calls a page that opens late still gets to see.
constexpr std::size_t kKeptCalls = 100;
// Events a slow page may fall behind by before it misses some.
constexpr std::size_t kKeptEvents = 512;
// A connected page is sent a comment this often, which also tells the
// server when it has gone.
constexpr auto kKeepAlive = std::chrono::seconds(15);
// Threads for requests: each open page holds one for its event stream.
constexpr std::size_t kHttpThreads = 16;

std::string random_token()
{
    std::random_device random;
    static const char digits[] = "0123456789abcdef";
    std::string token;
    for (int i = 0; i < 32; ++i)
        token += digits[random() & 15];
    return token;
}

bool same_secret(const std::string &a, const std::string &b)
{
    if (a.size() != b.size())
        return false;
    unsigned char diff = 0;
    for (std::size_t i = 0; i < a.size(); ++i)
        diff |= static_cast<unsigned char>(a[i] ^ b[i]);
    return diff == 0;
}

bool all_digits(const std::string &s)
{
    return !s.empty() && s.find_first_not_of("0123456789") == std::string::npos;
}

// The calling program's name, as the page shows it beside its pid.
std::string program_of(int pid)
{
    std::ifstream in("/proc/" + std::to_string(pid) + "/comm");
    std::string name;
    std::getline(in, name);
    return name;
}

}  // namespace

bool HttpAddress::parse(const std::string &text, HttpAddress &out, std::string &why)
{
    std::size_t colon = text.rfind(':');
    std::string port = colon == std::string::npos ? text : text.substr(colon + 1);
    HttpAddress parsed;
    if (colon != std::string::npos) {
        parsed.host = text.substr(0, colon);
        if (parsed.host.size() > 2 && parsed.host.front() == '[' && parsed.host.back() == ']')
            parsed.host = parsed.host.substr(1, parsed.host.size() - 2);
        if (parsed.host.empty()) {
            why = "--http: no address before ':' in \"" + text + "\" (give [ADDR:]PORT)";
            return false;
        }
    }
    if (!all_digits(port) || port.size() > 5 || std::stoi(port) > 65535) {
        why = "--http: \"" + port + "\" is not a port number 0-65535 (give [ADDR:]PORT)";
        return false;
    }
    parsed.port = std::stoi(port);
    out = parsed;
    return true;
}

bool panel_host_allowed(const std::string &host_header)
{
    std::string host = host_header;
    if (!host.empty() && host.front() == '[')  // [IPv6]:port
        return host.find(']') != std::string::npos;
    if (std::size_t colon = host.rfind(':'); colon != std::string::npos) {
        if (!all_digits(host.substr(colon + 1)))
            return false;
        host.resize(colon);
    }
    if (host == "localhost")
        return true;
    // A dotted IPv4 address: digits and dots only.
    return !host.empty() && host.find_first_not_of("0123456789.") == std::string::npos;
}

struct PanelServer::Impl {
    Control &control;
    Simulator &simulator;
    tools::Publisher &publisher;
    std::string token = random_token();
    httplib::Server http;
    int port = 0;
    std::thread serving;

    // Events for the pages: a numbered window of SSE messages.
    std::mutex mutex;
    std::condition_variable wake;
    std::deque<std::string> events;
    uint64_t next_event = 0;  // number of the event after events.back()
    std::deque<Json> calls;   // the last kKeptCalls, oldest first
    std::string last_state;
    bool state_dirty = true;
    bool stopping = false;
    std::thread pusher;

    Impl(Control &c, Simulator &s, tools::Publisher &p) : control(c), simulator(s), publisher(p) {}

    // With the lock held.
    void push(const char *event, const std::string &data)
    {
        events.push_back(std::string("event: ") + event + "\ndata: " + data + "\n\n");
        ++next_event;
        if (events.size() > kKeptEvents)
            events.pop_front();
        wake.notify_all();
    }

    // Whether a call may have changed what the page shows: queries change
    // nothing, except a fault's count of calls.
    bool may_change(const Json &call)
    {
        const Service *s = simulator.find(call.value("service", ""));
        std::size_t code = call.value("code", std::size_t{0});
        bool query = s && code < s->methods.size() && s->methods[code].query;
        return !query || call.contains("status") || !simulator.faults().empty();
    }

    void observed(const Json *call)
    {
        bool dirty = !call || may_change(*call);
        Json shown;
        if (call)
            shown = *call, shown["caller"] = program_of(shown.value("pid", 0));
        std::lock_guard<std::mutex> hold(mutex);
        state_dirty = state_dirty || dirty;
        if (call) {
            calls.push_back(shown);
            if (calls.size() > kKeptCalls)
                calls.pop_front();
            push("call", shown.dump());
        }
        wake.notify_all();
    }

    // The state event: the device's state and each service's standing.
    std::string state_document()
    {
        Json doc;
        doc["state"] = Json::parse(control.dump().text);
        auto faults = simulator.faults();
        Json services = Json::array();
        for (const Service &s : simulator.services()) {
            Json entry = {{"name", s.name}, {"published", publisher.published(s.name)}, {"fault", nullptr}};
            if (auto f = faults.find(s.name); f != faults.end())
                entry["fault"] = {{"status", f->second.status},
                                  {"calls", f->second.calls},
                                  {"delay_ms", f->second.delay_ms}};
            Json methods = Json::array();
            for (const Method &m : s.methods)
                if (m.run)
                    methods.push_back(m.name);
            entry["methods"] = methods;
            services.push_back(entry);
        }
        doc["services"] = services;
        return doc.dump();
    }

    // Turns "something may have changed" into one state event when the
    // state did change, however many calls asked.
    void run_pusher()
    {
        std::unique_lock<std::mutex> hold(mutex);
        while (!stopping) {
            wake.wait(hold, [&] { return state_dirty || stopping; });
            if (stopping)
                break;
            state_dirty = false;
            hold.unlock();
            std::string state = state_document();
            hold.lock();
            if (state != last_state) {
                last_state = state;
                push("state", state);
            }
        }
    }

    void stream(const httplib::Request &, httplib::Response &res)
    {
        res.set_header("Cache-Control", "no-store");
        auto first = std::make_shared<bool>(true);
        auto seen = std::make_shared<uint64_t>(0);
        res.set_chunked_content_provider("text/event-stream", [this, first, seen](size_t, httplib::DataSink &sink) {
            std::string out;
            {
                std::unique_lock<std::mutex> hold(mutex);
                if (*first) {
                    *first = false;
                    // A page that opens gets the state and the recent calls at once.
                    Json recent = Json::array();
                    for (const Json &c : calls)
                        recent.push_back(c);
                    out = "retry: 1000\nevent: hello\ndata: " + recent.dump() + "\n\n";
                    if (!last_state.empty())
                        out += "event: state\ndata: " + last_state + "\n\n";
                    *seen = next_event;
                } else {
                    bool more = wake.wait_for(hold, kKeepAlive, [&] { return next_event > *seen || stopping; });
                    if (stopping)
                        return false;
                    if (!more)
                        out = ": keep-alive\n\n";
                    uint64_t oldest = next_event - events.size();
                    if (*seen < oldest)
                        out += "event: lost\ndata: " + std::to_string(oldest - *seen) + "\n\n", *seen = oldest;
                    for (; *seen < next_event; ++*seen)
                        out += events[*seen - oldest];
                }
            }
            return sink.write(out.data(), out.size());
        });
    }

    static void reply(httplib::Response &res, int status, const Json &body)
    {
        res.status = status;
        res.set_content(body.dump(), "application/json");
    }

    // A steering request: checked, parsed, then answered from the
    // control code's result.
    template <class F> void steer(const std::string &path, F f)
    {
        http.Post(path, [this, f](const httplib::Request &req, httplib::Response &res) {
            if (!same_secret(req.get_header_value("X-Hmisvc-Token"), token))
                return reply(res, 403, {{"error", "missing or wrong token (X-Hmisvc-Token)"}});
            Json body = Json::parse(req.body, nullptr, false);
            if (!body.is_object())
                return reply(res, 400, {{"error", "the request body must be a JSON object"}});
            ControlResult r;
            try {
                r = f(body);
            } catch (const Json::exception &e) {
                return reply(res, 400, {{"error", std::string("bad request: ") + e.what()}});
            }
            observed(nullptr);
            if (r.code == ControlResult::kDone)
                return reply(res, 200, {{"ok", true}, {"text", r.text}});
            reply(res, r.code == ControlResult::kRefused ? 400 : 409, {{"error", r.text}});
        });
    }

    void routes()
    {
        http.set_pre_routing_handler([](const httplib::Request &req, httplib::Response &res) {
            if (!panel_host_allowed(req.get_header_value("Host"))) {
                reply(res, 403, {{"error", "Host must be localhost or an address"}});
                return httplib::Server::HandlerResponse::Handled;
            }
            return httplib::Server::HandlerResponse::Unhandled;
        });
        for (std::size_t i = 0; i < kPanelAssetCount; ++i) {
            const PanelAsset &a = kPanelAssets[i];
            http.Get(a.path, [&a](const httplib::Request &, httplib::Response &res) {
                res.set_header("Cache-Control", "no-store");
                res.set_header("Content-Security-Policy",
                               "default-src 'self'; img-src 'self' data:; frame-ancestors 'none'");
                res.set_header("X-Content-Type-Options", "nosniff");
                res.set_content(reinterpret_cast<const char *>(a.data), a.size, a.type);
            });
        }
        http.Get("/events", [this](const httplib::Request &req, httplib::Response &res) { stream(req, res); });
        http.Get("/api/state", [this](const httplib::Request &, httplib::Response &res) {
            res.set_content(state_document(), "application/json");
        });
        http.Get("/api/calls", [this](const httplib::Request &, httplib::Response &res) {
            std::lock_guard<std::mutex> hold(mutex);
            reply(res, 200, Json(calls));
        });

        using S = std::string;
        steer("/api/set", [this](const Json &b) {
            // As JSON always, so that the string "12" stays a string.
            return control.set(b.at("key").get<S>(), b.at("value").dump());
        });
        steer("/api/load", [this](const Json &b) { return control.load_state(b.at("state").get<S>()); });
        steer("/api/fail", [this](const Json &b) {
            return control.fail(b.at("service").get<S>(),
                                {b.value("status", 0), b.value("calls", -1), b.value("delay_ms", 0)});
        });
        steer("/api/heal", [this](const Json &b) { return control.heal(b.at("service").get<S>()); });
        steer("/api/publish", [this](const Json &b) { return control.publish(b.at("service").get<S>()); });
        steer("/api/unpublish", [this](const Json &b) { return control.unpublish(b.at("service").get<S>()); });
        steer("/api/broadcast", [this](const Json &b) {
            return control.broadcast(b.at("action").get<S>(), b.value("ints", std::map<S, int>{}),
                                     b.value("strings", std::map<S, S>{}));
        });
    }
};

PanelServer::PanelServer(Control &control, Simulator &simulator, tools::Publisher &publisher)
    : impl_(std::make_unique<Impl>(control, simulator, publisher))
{
    impl_->simulator.observe([impl = impl_.get()](const Json *call) { impl->observed(call); });
}

PanelServer::~PanelServer()
{
    {
        std::lock_guard<std::mutex> hold(impl_->mutex);
        impl_->stopping = true;
        impl_->wake.notify_all();
    }
    impl_->http.stop();
    if (impl_->serving.joinable())
        impl_->serving.join();
    if (impl_->pusher.joinable())
        impl_->pusher.join();
}

std::string PanelServer::start(const HttpAddress &address)
{
    Impl &i = *impl_;
    i.http.new_task_queue = [] { return new httplib::ThreadPool(kHttpThreads); };
    i.routes();
    i.port = address.port ? (i.http.bind_to_port(address.host, address.port) ? address.port : -1)
                          : i.http.bind_to_any_port(address.host);
    if (i.port < 0)
        return "--http: cannot serve the panel on " + address.host + ":" + std::to_string(address.port) +
               " (port in use, or not an address of this machine)";
    i.pusher = std::thread([&i] { i.run_pusher(); });
    i.serving = std::thread([&i] { i.http.listen_after_bind(); });
    return {};
}

int PanelServer::port() const { return impl_->port; }
const std::string &PanelServer::token() const { return impl_->token; }

}  // namespace hmisvc::devsim
