#include "panel_server.h"

#include "holds.h"
#include "json_text.h"

#include <microhttpd.h>

#include <netdb.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <deque>
#include <fstream>
#include <map>
#include <mutex>
#include <random>
#include <set>
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
// Calls a slow page may fall behind by before it misses some, in number
// and in bytes: a call's arguments may be large.
constexpr std::size_t kKeptEvents = 512;
constexpr std::size_t kKeptBytes = 4 << 20;
// A call larger than this is kept without its arguments and answer (the
// call log has them): one call never takes the history's room.
constexpr std::size_t kMaxEvent = 256 * 1024;
// A connected page is sent a comment this often, which also tells the
// server when it has gone.
constexpr auto kKeepAlive = std::chrono::seconds(15);
// One thread serves every connection, so a page's event stream or a slow
// client costs a connection slot and its memory, never a thread; a wait or
// a scenario runs on a thread of its own (as many as the control code
// holds at once) while its connection is set aside. A request
// (headers, body and answer) has kRequestDeadline to complete; an idle
// connection is closed after kIdleSeconds.
constexpr unsigned kIdleSeconds = 10;
constexpr auto kRequestDeadline = std::chrono::seconds(10);
// The longest wait for a call a request may ask for.
constexpr int kMaxWait = 600;
constexpr unsigned kMaxConnections = 1000;
constexpr std::size_t kMaxStreams = 256;
// Per connection: request line and headers must fit (431 beyond).
constexpr std::size_t kConnectionMemory = 32 * 1024;
// A steering request's body (a state document for load); 413 beyond.
constexpr std::size_t kMaxBody = 4 << 20;
// Bytes a stream hands the server at a time.
constexpr std::size_t kStreamBlock = 16 * 1024;

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

// The bytes a request's text field stands for (the byte-string form the
// panel is shown).
std::string bytes(const Json &field)
{
    std::string out;
    if (!tools::from_json_text(field.get<std::string>(), out))
        throw std::invalid_argument("a text beginning with U+0000 holds a character above U+00FF");
    return out;
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
    std::string port;
    if (!host.empty() && host.front() == '[') {  // [IPv6]:port, the address itself hex digits and colons
        std::size_t close = host.find(']');
        if (close == std::string::npos || close < 3 ||
            host.find_first_not_of("0123456789abcdefABCDEF:.", 1) != close)
            return false;
        port = host.substr(close + 1);
        return port.empty() || (port[0] == ':' && all_digits(port.substr(1)));
    }
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

namespace {

using Text = std::shared_ptr<const std::string>;
Text text(std::string s) { return std::make_shared<const std::string>(std::move(s)); }

const Text &piece(const char *what)
{
    static const std::map<std::string, Text> pieces = {{"call", text("event: call\ndata: ")},
                                                       {"state", text("event: state\ndata: ")},
                                                       {"end", text("\n\n")},
                                                       {"keep-alive", text(": keep-alive\n\n")}};
    return pieces.at(what);
}

using Steady = std::chrono::steady_clock;

}  // namespace

struct PanelServer::Impl {
    Control &control;
    Simulator &simulator;
    tools::Publisher &publisher;
    std::string token = random_token();
    MHD_Daemon *daemon = nullptr;
    int port = 0;

    // One page's event stream: what it has been sent, and what is on its
    // way (shared with the other streams, never copied per page).
    struct Stream {
        Impl *impl;
        MHD_Connection *connection;
        bool first = true;
        bool suspended = false;  // nothing to send; resumed when there is
        bool keep_alive = false;
        uint64_t seen_call = 0;
        uint64_t seen_state = 0;
        std::deque<Text> pending;
        std::size_t offset = 0;  // into pending.front()
    };
    // One connection, for the request deadline.
    struct Connection {
        int fd;
        Steady::time_point since;  // connected, or the last request completed
        bool streaming = false;
    };
    // An answer made off the server's thread, sent once its connection is
    // taken up again.
    struct Answer {
        unsigned status = MHD_HTTP_OK;
        std::string body;
    };
    // One steering request's body as it arrives.
    struct Upload {
        std::string body;
        bool too_large = false;
        bool held = false;  // a wait or a scenario runs for it
        Answer answer;      // once it has ended
    };

    std::mutex mutex;
    std::condition_variable wake;
    std::deque<Text> recent;  // the calls' JSON texts, oldest first
    std::size_t recent_bytes = 0;
    uint64_t next_call = 0;  // number of the call after recent.back()
    Text state;              // the last state document
    uint64_t state_seq = 0;
    bool state_dirty = true;
    bool stopping = false;
    std::set<Stream *> streams;
    std::set<Connection *> connections;
    int holding = 0;  // waits and scenarios running, their connections not taken up again yet
    // Of those, the ones not answered yet: what the limit counts, so that a
    // client answered may at once ask again.
    int places = 0;
    std::condition_variable held_ended;
    uint64_t events_dropped = 0;
    std::thread pusher;
    std::map<std::string, std::function<ControlResult(const Json &)>> steering;

    Impl(Control &c, Simulator &s, tools::Publisher &p) : control(c), simulator(s), publisher(p) {}

    // With the lock held: streams waiting for something get it.
    void wake_streams()
    {
        for (Stream *s : streams)
            if (s->suspended) {
                s->suspended = false;
                MHD_resume_connection(s->connection);
            }
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
        Text shown;
        if (call) {
            Json c = *call;
            c["caller"] = tools::to_json_text(program_of(c.value("pid", 0)));
            shown = text(tools::dump_json(c));
            if (shown->size() > kMaxEvent) {
                c.erase("args");
                c.erase("reply");
                c["cut"] = shown->size();
                shown = text(tools::dump_json(c));
            }
        }
        std::lock_guard<std::mutex> hold(mutex);
        state_dirty = state_dirty || dirty;
        if (shown) {
            recent.push_back(shown);
            recent_bytes += shown->size();
            ++next_call;
            while (recent.size() > kKeptEvents || recent_bytes > kKeptBytes) {
                recent_bytes -= recent.front()->size();
                recent.pop_front();
                // Pages that fell behind are told how many they missed
                // ("lost"); the count is in the state event.
                if (events_dropped++ == 0)
                    std::fprintf(stderr,
                                 "hmisvc-devsim: panel: the oldest calls leave its history (it keeps %zu "
                                 "or %zu MiB); the state event counts them\n",
                                 kKeptEvents, kKeptBytes >> 20);
                state_dirty = true;
            }
            wake_streams();
        }
        wake.notify_all();
    }

    // With the lock held: the last kKeptCalls calls as a JSON array.
    std::string recent_calls() const
    {
        std::string out = "[";
        for (std::size_t i = recent.size() > kKeptCalls ? recent.size() - kKeptCalls : 0; i < recent.size(); ++i)
            out += (out.size() > 1 ? "," : "") + *recent[i];
        return out + "]";
    }

    // The state event: the device's state and each service's standing.
    std::string state_document()
    {
        Json doc;
        doc["state"] = Json::parse(control.dump().text);
        auto faults = simulator.faults();
        // Each service's process (none: it runs in the main process).
        std::map<std::string, Json> processes;
        for (const Json &p : Json::parse(control.processes().text))
            processes[p.at("service").get<std::string>()] = p;
        Json services = Json::array();
        for (const Service &s : simulator.services()) {
            Json entry = {{"name", s.name}, {"published", publisher.published(s.name)}, {"fault", nullptr},
                          {"process", processes.count(s.name) ? processes[s.name] : Json()}};
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
        std::lock_guard<std::mutex> hold(mutex);
        doc["events_dropped"] = events_dropped;
        return tools::dump_json(doc);
    }

    // Turns "something may have changed" into one new state when the state
    // did change, however many calls asked; pages that fall behind get the
    // latest state, not every one in between. Also keeps the streams alive
    // and ends requests that overrun their deadline.
    void run_pusher()
    {
        auto keep_alive = Steady::now() + kKeepAlive;
        std::unique_lock<std::mutex> hold(mutex);
        while (!stopping) {
            wake.wait_until(hold, std::min(Steady::now() + std::chrono::seconds(1), keep_alive),
                            [&] { return state_dirty || stopping; });
            if (stopping)
                break;
            if (state_dirty) {
                state_dirty = false;
                hold.unlock();
                std::string doc = state_document();
                hold.lock();
                if (!state || *state != doc) {
                    state = text(std::move(doc));
                    ++state_seq;
                    wake_streams();
                }
            }
            auto now = Steady::now();
            if (now >= keep_alive) {
                for (Stream *s : streams)
                    s->keep_alive = true;
                wake_streams();
                keep_alive = now + kKeepAlive;
            }
            // The server then sees the connection end and closes it.
            for (Connection *c : connections)
                if (!c->streaming && now - c->since > kRequestDeadline) {
                    shutdown(c->fd, SHUT_RDWR);
                    c->since = now;
                }
        }
    }

    // With the lock held: queues what the page has not seen yet, a bounded
    // amount at a time.
    void fill(Stream &s)
    {
        auto add = [&](const Text &head, const Text &body) {
            s.pending.push_back(head);
            s.pending.push_back(body);
            s.pending.push_back(piece("end"));
        };
        if (s.first) {
            // A page that opens gets the state and the recent calls at once.
            s.first = false;
            s.pending.push_back(text("retry: 1000\nevent: hello\ndata: " + recent_calls() + "\n\n"));
            if (state)
                add(piece("state"), state);
            s.seen_call = next_call;
            s.seen_state = state_seq;
            return;
        }
        uint64_t oldest = next_call - recent.size();
        if (s.seen_call < oldest) {
            s.pending.push_back(text("event: lost\ndata: " + std::to_string(oldest - s.seen_call) + "\n\n"));
            s.seen_call = oldest;
        }
        for (std::size_t bytes = 0; s.seen_call < next_call && bytes < kStreamBlock * 4; ++s.seen_call) {
            const Text &call = recent[s.seen_call - oldest];
            add(piece("call"), call);
            bytes += call->size();
        }
        if (s.seen_call == next_call && state && s.seen_state != state_seq) {
            add(piece("state"), state);
            s.seen_state = state_seq;
        }
        if (s.pending.empty() && s.keep_alive)
            s.pending.push_back(piece("keep-alive"));
        s.keep_alive = false;
    }

    static ssize_t read_stream(void *cls, uint64_t, char *buf, size_t max)
    {
        auto &s = *static_cast<Stream *>(cls);
        Impl &i = *s.impl;
        std::lock_guard<std::mutex> hold(i.mutex);
        if (i.stopping)
            return MHD_CONTENT_READER_END_OF_STREAM;
        if (s.pending.empty())
            i.fill(s);
        if (s.pending.empty()) {
            // Taken off the server's loop until there is something to send.
            s.suspended = true;
            MHD_suspend_connection(s.connection);
            return 0;
        }
        std::size_t n = 0;
        while (n < max && !s.pending.empty()) {
            const std::string &front = *s.pending.front();
            std::size_t take = std::min(max - n, front.size() - s.offset);
            std::memcpy(buf + n, front.data() + s.offset, take);
            n += take;
            s.offset += take;
            if (s.offset == front.size())
                s.pending.pop_front(), s.offset = 0;
        }
        return static_cast<ssize_t>(n);
    }

    static void end_stream(void *cls)
    {
        auto *s = static_cast<Stream *>(cls);
        {
            std::lock_guard<std::mutex> hold(s->impl->mutex);
            s->impl->streams.erase(s);
        }
        delete s;
    }

    static MHD_Result send(MHD_Connection *c, unsigned status, MHD_Response *res, const char *type)
    {
        MHD_add_response_header(res, "Content-Type", type);
        MHD_add_response_header(res, "Cache-Control", "no-store");
        MHD_Result r = MHD_queue_response(c, status, res);
        MHD_destroy_response(res);
        return r;
    }

    static MHD_Result reply(MHD_Connection *c, unsigned status, const std::string &body,
                            const char *type = "application/json")
    {
        return send(c, status,
                    MHD_create_response_from_buffer(body.size(), const_cast<char *>(body.data()), MHD_RESPMEM_MUST_COPY),
                    type);
    }

    static MHD_Result error(MHD_Connection *c, unsigned status, const std::string &why)
    {
        Answer a = failure(status, why);
        return reply(c, a.status, a.body);
    }

    MHD_Result open_stream(MHD_Connection *c)
    {
        auto *s = new Stream{this, c, true, false, false, 0, 0, {}, 0};
        {
            std::lock_guard<std::mutex> hold(mutex);
            if (streams.size() >= kMaxStreams) {
                delete s;
                return error(c, MHD_HTTP_SERVICE_UNAVAILABLE,
                             "too many open pages (" + std::to_string(kMaxStreams) + "); close some");
            }
            streams.insert(s);
            auto *info = MHD_get_connection_info(c, MHD_CONNECTION_INFO_SOCKET_CONTEXT);
            if (info && info->socket_context)
                static_cast<Connection *>(info->socket_context)->streaming = true;
        }
        return send(c, MHD_HTTP_OK, MHD_create_response_from_callback(MHD_SIZE_UNKNOWN, kStreamBlock, read_stream, s, end_stream),
                    "text/event-stream");
    }

    MHD_Result get(MHD_Connection *c, const std::string &url)
    {
        for (std::size_t i = 0; i < kPanelAssetCount; ++i) {
            const PanelAsset &a = kPanelAssets[i];
            if (url != a.path)
                continue;
            MHD_Response *res = MHD_create_response_from_buffer(a.size, const_cast<unsigned char *>(a.data),
                                                                MHD_RESPMEM_PERSISTENT);
            MHD_add_response_header(res, "Content-Security-Policy",
                                    "default-src 'self'; img-src 'self' data:; frame-ancestors 'none'");
            MHD_add_response_header(res, "X-Content-Type-Options", "nosniff");
            return send(c, MHD_HTTP_OK, res, a.type);
        }
        if (url == "/events")
            return open_stream(c);
        if (url == "/api/state")
            return reply(c, MHD_HTTP_OK, state_document());
        if (url == "/api/calls") {
            std::lock_guard<std::mutex> hold(mutex);
            return reply(c, MHD_HTTP_OK, recent_calls());
        }
        if (url == "/api/mark")
            return reply(c, MHD_HTTP_OK, control.mark().text);
        if (url == "/api/log") {
            // The filter from the query: ?service=&method=&program=&since=&args=
            Json filter = Json::object();
            for (const char *key : {"service", "method", "program", "since", "args"})
                if (const char *v = MHD_lookup_connection_value(c, MHD_GET_ARGUMENT_KIND, key)) {
                    std::string text = v;
                    if (std::strcmp(key, "since") != 0 && std::strcmp(key, "args") != 0)
                        filter[key] = tools::to_json_text(text);
                    else if (!tools::parse_json(text, filter[key]).empty())
                        return error(c, MHD_HTTP_BAD_REQUEST, std::string(key) + ": expected JSON, got " + text);
                }
            ControlResult r = control.calls(filter);
            return r.code == ControlResult::kDone ? reply(c, MHD_HTTP_OK, r.text) : error(c, MHD_HTTP_BAD_REQUEST, r.text);
        }
        return error(c, MHD_HTTP_NOT_FOUND, "no such page: " + url);
    }

    static Answer failure(unsigned status, const std::string &why)
    {
        // What the client sent may be quoted in `why`: any bytes.
        return {status, tools::dump_json(Json{{"error", tools::printable(why)}})};
    }

    // A steering request: answered from the control code's result.
    Answer steer(const std::string &url, const std::string &text)
    {
        Json body;
        if (std::string why = tools::parse_json(text, body); !why.empty())
            return failure(MHD_HTTP_BAD_REQUEST, "the request body is " + why);
        if (!body.is_object())
            return failure(MHD_HTTP_BAD_REQUEST, "the request body must be a JSON object");
        ControlResult r;
        try {
            r = steering.at(url)(body);
        } catch (const std::exception &e) {  // a missing field, a wrong type, a bad text
            return failure(MHD_HTTP_BAD_REQUEST, std::string("bad request: ") + e.what());
        }
        observed(nullptr);
        if (url == "/api/wait-call" && r.code != ControlResult::kRefused) {
            Json calls;
            if (tools::parse_json(r.text, calls).empty() && calls.is_array()) {
                Json answer = {{"met", r.code == ControlResult::kDone}, {"calls", std::move(calls)}};
                unsigned status = r.code == ControlResult::kDone ? MHD_HTTP_OK : MHD_HTTP_CONFLICT;
                return {status, tools::dump_json(answer)};
            }
        }
        if (r.code == ControlResult::kDone)
            return {MHD_HTTP_OK, tools::dump_json(Json{{"ok", true}, {"text", tools::to_json_text(r.text)}})};
        return failure(r.code == ControlResult::kRefused ? MHD_HTTP_BAD_REQUEST : MHD_HTTP_CONFLICT, r.text);
    }

    // A wait or a scenario: run on a thread of its own while the server
    // sets the connection aside, answered when it ends. It ends early when
    // the client closes the connection (see Holds).
    MHD_Result hold(MHD_Connection *c, const std::string &url, Upload &upload)
    {
        int fd = -1;
        {
            std::lock_guard<std::mutex> lock(mutex);
            if (places >= Control::kMaxHeld || stopping)
                return error(c, MHD_HTTP_CONFLICT,
                             "too many waits and scenarios held at once (" + std::to_string(Control::kMaxHeld) + ")");
            ++holding, ++places;
            // Held as long as the wait or the scenario lasts, not cut at the
            // request deadline.
            auto *info = MHD_get_connection_info(c, MHD_CONNECTION_INFO_SOCKET_CONTEXT);
            if (info && info->socket_context) {
                auto *conn = static_cast<Connection *>(info->socket_context);
                conn->streaming = true;
                fd = conn->fd;
            }
        }
        upload.held = true;
        MHD_suspend_connection(c);
        std::thread([this, c, url, &upload, fd] {
            Holds::client() = {0, fd};
            Answer answer = steer(url, upload.body);
            {
                std::lock_guard<std::mutex> lock(mutex);
                upload.answer = std::move(answer);
                --places;
            }
            // Not under the lock: the server's thread takes it in its callbacks.
            MHD_resume_connection(c);
            std::lock_guard<std::mutex> lock(mutex);
            --holding;
            held_ended.notify_all();
        }).detach();
        return MHD_YES;
    }

    // Everything about a request that its headers decide, before any of
    // its body is read: an answer, or null to take the body.
    MHD_Result first_look(MHD_Connection *c, const std::string &url, const std::string &method, void **upload)
    {
        auto header = [c](const char *name) {
            const char *v = MHD_lookup_connection_value(c, MHD_HEADER_KIND, name);
            return std::string(v ? v : "");
        };
        std::string host = header("Host");
        if (!panel_host_allowed(host))
            return error(c, MHD_HTTP_FORBIDDEN, "Host must be localhost or an address");
        // A page of another origin (a browser sends its origin with a POST).
        if (std::string origin = header("Origin"); !origin.empty() && origin != "http://" + host)
            return error(c, MHD_HTTP_FORBIDDEN, "Origin " + origin + " is not this panel's");
        if (method == "GET" || method == "HEAD")
            return get(c, url);
        if (method != "POST")
            return error(c, MHD_HTTP_METHOD_NOT_ALLOWED, method + " is not taken here (GET or POST)");
        if (!steering.count(url))
            return error(c, MHD_HTTP_NOT_FOUND, "no such request: " + url);
        if (!same_secret(header("X-Hmisvc-Token"), token))
            return error(c, MHD_HTTP_FORBIDDEN, "missing or wrong token (X-Hmisvc-Token)");
        std::string length = header("Content-Length");
        if (!length.empty() && (!all_digits(length) || length.size() > 12 || std::stoull(length) > kMaxBody))
            return too_large(c);
        *upload = new Upload;
        return MHD_YES;
    }

    static MHD_Result too_large(MHD_Connection *c)
    {
        return error(c, MHD_HTTP_CONTENT_TOO_LARGE,
                     "request body larger than " + std::to_string(kMaxBody >> 20) + " MiB");
    }

    static MHD_Result on_request(void *cls, MHD_Connection *c, const char *url, const char *method, const char *,
                                 const char *data, size_t *size, void **request)
    {
        Impl &i = *static_cast<Impl *>(cls);
        if (!*request)
            return i.first_look(c, url, method, request);
        auto &upload = *static_cast<Upload *>(*request);
        if (*size) {
            // A body without a length that grows past the limit: the rest
            // is read and dropped (the request deadline bounds how long),
            // as the answer can only go out once it is in.
            upload.too_large = upload.too_large || upload.body.size() + *size > kMaxBody;
            if (upload.too_large)
                std::string().swap(upload.body);
            else
                upload.body.append(data, *size);
            *size = 0;
            return MHD_YES;
        }
        if (upload.held) {  // taken up again: the wait or the scenario has ended
            std::lock_guard<std::mutex> lock(i.mutex);
            return reply(c, upload.answer.status, upload.answer.body);
        }
        if (upload.too_large)
            return too_large(c);
        if (std::strcmp(url, "/api/wait-call") == 0 || std::strcmp(url, "/api/play") == 0)
            return i.hold(c, url, upload);
        Answer a = i.steer(url, upload.body);
        return reply(c, a.status, a.body);
    }

    static void on_completed(void *cls, MHD_Connection *c, void **request, MHD_RequestTerminationCode)
    {
        delete static_cast<Upload *>(*request);
        *request = nullptr;
        auto *info = MHD_get_connection_info(c, MHD_CONNECTION_INFO_SOCKET_CONTEXT);
        if (info && info->socket_context) {
            Impl &i = *static_cast<Impl *>(cls);
            std::lock_guard<std::mutex> hold(i.mutex);
            auto *conn = static_cast<Connection *>(info->socket_context);
            conn->since = Steady::now();
            conn->streaming = false;
        }
    }

    static void on_connection(void *cls, MHD_Connection *c, void **context, MHD_ConnectionNotificationCode code)
    {
        Impl &i = *static_cast<Impl *>(cls);
        std::lock_guard<std::mutex> hold(i.mutex);
        if (code == MHD_CONNECTION_NOTIFY_STARTED) {
            auto *info = MHD_get_connection_info(c, MHD_CONNECTION_INFO_CONNECTION_FD);
            auto *conn = new Connection{info ? info->connect_fd : -1, Steady::now()};
            i.connections.insert(conn);
            *context = conn;
        } else if (auto *conn = static_cast<Connection *>(*context)) {
            i.connections.erase(conn);
            delete conn;
            *context = nullptr;
        }
    }

    void routes()
    {
        using S = std::string;
        steering["/api/set"] = [this](const Json &b) {
            // As JSON always, so that the string "12" stays a string.
            return control.set(bytes(b.at("key")), tools::dump_json(b.at("value")));
        };
        steering["/api/load"] = [this](const Json &b) { return control.load_state(bytes(b.at("state"))); };
        steering["/api/fail"] = [this](const Json &b) {
            return control.fail(bytes(b.at("service")),
                                {b.value("status", 0), b.value("calls", -1), b.value("delay_ms", 0)});
        };
        steering["/api/heal"] = [this](const Json &b) { return control.heal(bytes(b.at("service"))); };
        steering["/api/publish"] = [this](const Json &b) { return control.publish(bytes(b.at("service"))); };
        steering["/api/unpublish"] = [this](const Json &b) { return control.unpublish(bytes(b.at("service"))); };
        steering["/api/crash"] = [this](const Json &b) {
            return control.crash(bytes(b.at("service")), b.value("restart_after_ms", -1));
        };
        steering["/api/restart"] = [this](const Json &b) { return control.restart(bytes(b.at("service"))); };
        steering["/api/broadcast"] = [this](const Json &b) {
            std::map<S, int> ints;
            std::map<S, S> strings;
            const Json given_ints = b.value("ints", Json::object()), given_strings = b.value("strings", Json::object());
            for (auto it = given_ints.begin(); it != given_ints.end(); ++it)
                ints[bytes(Json(it.key()))] = it.value().get<int>();
            for (auto it = given_strings.begin(); it != given_strings.end(); ++it)
                strings[bytes(Json(it.key()))] = bytes(it.value());
            return control.broadcast(bytes(b.at("action")), ints, strings);
        };
        steering["/api/wait-call"] = [this](const Json &b) {
            // A wait from here holds a connection, not a serving thread;
            // still bounded, as a page left waiting would be.
            if (b.contains("timeout") && b["timeout"].is_number() && b["timeout"].get<double>() > kMaxWait)
                return ControlResult{ControlResult::kRefused,
                                     "timeout: at most " + std::to_string(kMaxWait) + " s from the panel"};
            return control.wait_call(b);
        };
        steering["/api/clear-calls"] = [this](const Json &) { return control.clear_calls(); };
        steering["/api/reset"] = [this](const Json &) { return control.reset(); };
        steering["/api/reply"] = [this](const Json &b) {
            std::vector<S> answers;
            for (const Json &a : b.value("answers", Json::array()))
                answers.push_back(a.is_string() ? bytes(a) : tools::dump_json(a));
            if (b.value("clear", false) != answers.empty())
                return ControlResult{ControlResult::kRefused, "give \"answers\" or \"clear\": true"};
            return control.reply(bytes(b.at("method")), answers);
        };
        steering["/api/play"] = [this](const Json &b) { return control.play(tools::dump_json(b.at("scenario"))); };
    }

    // The listening socket, bound here so that a failure can be told.
    int listen_on(const HttpAddress &address, bool &ipv6)
    {
        addrinfo hints{}, *found = nullptr;
        hints.ai_family = AF_UNSPEC;
        hints.ai_socktype = SOCK_STREAM;
        hints.ai_flags = AI_PASSIVE;
        if (getaddrinfo(address.host.c_str(), std::to_string(address.port).c_str(), &hints, &found) != 0)
            return -1;
        int fd = -1;
        for (addrinfo *a = found; a && fd < 0; a = a->ai_next) {
            fd = socket(a->ai_family, a->ai_socktype | SOCK_CLOEXEC, a->ai_protocol);
            int on = 1;
            setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
            if (fd >= 0 && (bind(fd, a->ai_addr, a->ai_addrlen) != 0 || listen(fd, 511) != 0))
                close(fd), fd = -1;
            ipv6 = a->ai_family == AF_INET6;
        }
        freeaddrinfo(found);
        sockaddr_storage bound{};
        socklen_t len = sizeof bound;
        if (fd >= 0 && getsockname(fd, reinterpret_cast<sockaddr *>(&bound), &len) == 0)
            port = ntohs(bound.ss_family == AF_INET6 ? reinterpret_cast<sockaddr_in6 *>(&bound)->sin6_port
                                                     : reinterpret_cast<sockaddr_in *>(&bound)->sin_port);
        return fd;
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
        impl_->wake_streams();
        impl_->wake.notify_all();
    }
    if (impl_->pusher.joinable())
        impl_->pusher.join();
    // The connections set aside must be taken up again before the server
    // stops: their waits and scenarios are ended.
    {
        std::unique_lock<std::mutex> hold(impl_->mutex);
        while (impl_->holding > 0) {
            hold.unlock();
            impl_->control.holds().end_all("the panel stops");
            hold.lock();
            impl_->held_ended.wait_for(hold, std::chrono::milliseconds(100));
        }
    }
    if (impl_->daemon)
        MHD_stop_daemon(impl_->daemon);
}

std::string PanelServer::start(const HttpAddress &address)
{
    Impl &i = *impl_;
    i.routes();
    bool ipv6 = false;
    int fd = i.listen_on(address, ipv6);
    if (fd < 0)
        return "--http: cannot serve the panel on " + address.host + ":" + std::to_string(address.port) +
               " (port in use, or not an address of this machine)";
    // Room for the connections beside the program's other descriptors.
    rlimit files{};
    getrlimit(RLIMIT_NOFILE, &files);
    if (files.rlim_cur < kMaxConnections + 100 && files.rlim_cur < files.rlim_max) {
        files.rlim_cur = std::min<rlim_t>(files.rlim_max, kMaxConnections + 100);
        setrlimit(RLIMIT_NOFILE, &files);
    }
    unsigned limit = files.rlim_cur > 200 ? std::min<unsigned>(kMaxConnections, files.rlim_cur - 100) : 100;
    unsigned flags = MHD_USE_EPOLL_INTERNAL_THREAD | MHD_ALLOW_SUSPEND_RESUME | (ipv6 ? MHD_USE_IPv6 : 0);
    i.daemon = MHD_start_daemon(flags, 0, nullptr, nullptr, &Impl::on_request, &i,
                                MHD_OPTION_LISTEN_SOCKET, fd,
                                MHD_OPTION_CONNECTION_LIMIT, limit,
                                MHD_OPTION_CONNECTION_TIMEOUT, kIdleSeconds,
                                MHD_OPTION_CONNECTION_MEMORY_LIMIT, kConnectionMemory,
                                MHD_OPTION_NOTIFY_COMPLETED, &Impl::on_completed, &i,
                                MHD_OPTION_NOTIFY_CONNECTION, &Impl::on_connection, &i,
                                MHD_OPTION_END);
    if (!i.daemon) {
        close(fd);
        return "--http: the panel's server did not start";
    }
    i.pusher = std::thread([&i] { i.run_pusher(); });
    return {};
}

int PanelServer::port() const { return impl_->port; }
const std::string &PanelServer::token() const { return impl_->token; }

}  // namespace hmisvc::devsim
