#include "control.h"

#include "service_process.h"

#include "names.h"
#include "state.h"

#include <hmisvc/broadcast.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstring>
#include <climits>

namespace hmisvc::devsim {

namespace {

using Result = ControlResult;

Result refused(std::string why) { return {Result::kRefused, std::move(why)}; }

// Values a dump shows but that follow from others.
bool read_only(const std::string &key)
{
    for (const char *k : {"broadcast", "wifi.current", "network.current", "network.level"})
        if (key == k || key.rfind(std::string(k) + ".", 0) == 0)
            return true;
    return false;
}

// Scripted answers as `sim reply` takes them: texts, and JSON values as
// their text.
std::vector<std::string> answer_texts(const Json &answers)
{
    std::vector<std::string> out;
    for (const Json &a : answers)
        out.push_back(a.is_string() && (a == "fail" || a.get<std::string>().rfind("status:", 0) == 0 ||
                                        a.get<std::string>().rfind("delay:", 0) == 0)
                          ? a.get<std::string>()
                          : tools::dump_json(a));
    return out;
}

// What a reply of the control service takes of text: room for the rest of
// its reply area.
constexpr std::size_t kBinderText = kReplyArea - 4096;

template <class F> Result with_json(const std::string &text, F f)
{
    Json j;
    if (std::string why = tools::parse_json(text, j); !why.empty())
        return refused("the request is " + why);
    return f(j);
}

// Call texts as a JSON array, at most max_bytes of them (0: all); the
// newest are kept when some must go, `left_out` says how many did.
std::string array_of(const std::vector<std::string> &calls, std::size_t max_bytes, std::size_t &left_out,
                     bool newest = false)
{
    std::size_t bytes = 2, n = 0;
    for (; n < calls.size(); ++n) {
        const std::string &c = calls[newest ? calls.size() - 1 - n : n];
        if (max_bytes && bytes + c.size() + 1 > max_bytes)
            break;
        bytes += c.size() + 1;
    }
    left_out = calls.size() - n;
    std::string out = "[";
    for (std::size_t i = newest ? calls.size() - n : 0, e = i + n; i < e; ++i)
        out += (out.size() > 1 ? "," : "") + calls[i];
    return out + "]";
}

}  // namespace

void put(binder_io &reply, const ControlResult &r)
{
    bio_put_uint32(&reply, static_cast<uint32_t>(r.code));
    bio_put_string(&reply, r.text.c_str());
}

Control::Control(Device &device, Simulator &simulator, tools::Publisher &publisher)
    : device_(device), simulator_(simulator), publisher_(publisher)
{
    using S = std::string;
    auto on = [this](const char *name, auto f) {
        return method_of(*this, name, f);
    };
    service_ = {kServiceName,
                {on("dump", [](Control &c) { return c.dump(); }),
                 on("set", [](Control &c, S key, S value) { return c.set(key, value); }),
                 on("fail",
                    [](Control &c, S name, int32_t status, int32_t calls, int32_t delay_ms) {
                        return c.fail(name, {status, calls, delay_ms});
                    }),
                 on("heal", [](Control &c, S name) { return c.heal(name); }),
                 on("publish", [](Control &c, S name) { return c.publish(name); }),
                 on("unpublish", [](Control &c, S name) { return c.unpublish(name); }),
                 on("load_state", [](Control &c, S json) { return c.load_state(json); }),
                 on("calls", [](Control &c, S filter) { return with_json(filter, [&](const Json &f) {
                        return c.calls(f, kBinderText); }); }),
                 on("mark", [](Control &c) { return c.mark(); }),
                 on("wait_call", [](Control &c, S request) { return with_json(request, [&](const Json &r) {
                        return c.wait_call(r, kBinderText); }); }),
                 on("clear_calls", [](Control &c) { return c.clear_calls(); }),
                 on("reply",
                    [](Control &c, S method, S answers) {
                        return with_json(answers, [&](const Json &a) {
                            return a.is_array() && std::all_of(a.begin(), a.end(), [](const Json &x) { return x.is_string(); })
                                       ? c.reply(method, a.get<std::vector<std::string>>())
                                       : refused("answers: expected an array of texts");
                        });
                    }),
                 on("reset", [](Control &c) { return c.reset(); }),
                 on("play", [](Control &c, S document) { return c.play(document); }),
                 on("broadcast", [](Control &c, S action, S extras) {
                        return with_json(extras, [&](const Json &e) { return c.broadcast_json(action, e); }); }),
                 on("crash", [](Control &c, S name, int32_t after_ms) { return c.crash(name, after_ms); }),
                 on("restart", [](Control &c, S name) { return c.restart(name); }),
                 on("processes", [](Control &c) { return c.processes(); })}};
}

Result Control::dump() const
{
    // Absent (unpublished) and failing services too, as a snapshot records
    // them, so that --state of a dump answers the same.
    Json services = Json::object();
    const auto faults = simulator_.faults();
    for (const Service &s : simulator_.services()) {
        auto f = faults.find(s.name);
        if (!publisher_.published(s.name))
            services[s.name] = "absent";
        else if (f != faults.end() && f->second.status == Fault::kFailCall && f->second.calls < 0 &&
                 f->second.delay_ms == 0)
            services[s.name] = "failed";
    }
    Json replies = Json::object();
    for (const auto &[method, answers] : simulator_.queued())
        replies[method] = answers;
    std::lock_guard<std::mutex> hold(simulator_.lock());
    Json state = StateJson::dump(device_);
    state["services"] = std::move(services);
    // Answers queued by `sim reply`, as it takes them; not part of a state.
    if (!replies.empty())
        state["replies"] = std::move(replies);
    return {Result::kDone, tools::dump_json(state, 2)};
}

Result Control::at_key(Json &state, const std::string &key, Json *&at) const
{
    // Messages show the key as text, whatever its bytes.
    const std::string shown_key = tools::printable(key);
    if (read_only(key))
        return refused(shown_key + ": read-only (it follows from other values)");
    at = &state;
    std::size_t from = 0;
    for (int depth = 0;; ++depth) {
        std::size_t dot = key.find('.', from);
        // Settings keys are the rest of the path, dots included, and may be
        // new; everywhere else every step must exist.
        bool settings_key = depth == 2 && key.rfind("settings.", 0) == 0;
        // The document holds names in its byte-string form.
        std::string step = tools::to_json_text(key.substr(from, settings_key ? std::string::npos : dot - from));
        bool creating = depth >= 1 && key.rfind("settings.", 0) == 0;
        if (creating && at->is_null())
            *at = Json::object();  // a new settings section
        if (step.empty() || !at->is_object() || (!creating && !at->contains(step))) {
            std::vector<std::string> near;
            if (at->is_object())
                for (auto it = at->begin(); it != at->end(); ++it)
                    near.push_back(key.substr(0, from) + it.key());
            return refused(shown_key + ": no such key (see `hmisvc sim dump`)" +
                           (near.empty() || key.size() > kNameBytes ? "" : "; nearest: " + nearest_names(shown_key, near)));
        }
        at = &(*at)[step];
        if (settings_key || dot == std::string::npos)
            return {};
        from = dot + 1;
    }
}

Result Control::set(const std::string &key, const std::string &value)
{
    Json parsed;
    if (std::string why = tools::parse_json(value, parsed); why == tools::kNotJson)
        parsed = tools::to_json_text(value);
    else if (!why.empty())
        return refused(tools::printable(key) + ": the value is " + why);
    std::lock_guard<std::mutex> hold(simulator_.lock());
    Json state = StateJson::dump(device_);
    Json *at = nullptr;
    if (Result r = at_key(state, key, at); r.code != Result::kDone)
        return r;
    *at = parsed;
    try {
        StateJson::load(device_, state);
    } catch (const JsonError &e) {
        return refused(e.what());
    }
    return {};
}

Result Control::load_state(const std::string &json)
{
    Json parsed;
    if (std::string why = tools::parse_json(json, parsed); !why.empty())
        return refused("state is " + why);
    std::map<std::string, std::string> services;
    {
        std::lock_guard<std::mutex> hold(simulator_.lock());
        try {
            std::vector<std::string> names;
            for (const Service &s : simulator_.services())
                names.push_back(s.name);
            services = StateJson::service_states(parsed, names);
            StateJson::load(device_, parsed);
        } catch (const JsonError &e) {
            return refused(e.what());
        }
    }
    // Absent and failing services, as a snapshot records them.
    for (const auto &[name, how] : services)
        if (Result r = how == "absent" ? unpublish(name) : fail(name, Fault{}); r.code != Result::kDone)
            return r;
    return {};
}

const Service *Control::lookup(const std::string &name, Result &why) const
{
    if (const Service *s = simulator_.find(name))
        return s;
    if (const Service *s = simulator_.find_method(name))
        return s;
    std::vector<std::string> names;
    for (const Service &s : simulator_.services())
        names.push_back(s.name);
    why = refused(unknown_name("service", name, names));
    return nullptr;
}

Result Control::fail(const std::string &name, Fault fault)
{
    return on_service(name, [&](const Service &s) -> Result {
        if (fault.delay_ms < 0)
            return refused("delay must not be negative");
        if (fault.calls == 0)
            return refused("calls must be 1 or more (leave it out for all calls)");
        simulator_.fail(s, fault);
        return {Result::kDone, s.name};
    });
}

Result Control::heal(const std::string &name)
{
    return on_service(name, [&](const Service &s) -> Result {
        simulator_.heal(s);
        return {Result::kDone, s.name};
    });
}

Result Control::publish(const std::string &name)
{
    return on_service(name, [&](const Service &s) -> Result {
        if (publisher_.publish(s.name, const_cast<Service *>(&s)) != 0)
            return {Result::kFailed, std::string("the service manager refused \"") + s.name + "\""};
        return {Result::kDone, s.name};
    });
}

Result Control::unpublish(const std::string &name)
{
    return on_service(name, [&](const Service &s) -> Result {
        if (publisher_.unpublish(s.name, const_cast<Service *>(&s)) != 0)
            return {Result::kFailed, std::string("the service manager does not take unpublish requests")};
        return {Result::kDone, s.name};
    });
}

namespace {

// f(processes, service) for a service that runs in a process of its own.
template <class F> Result on_process(tools::Publisher &publisher, const Service &s, F f)
{
    auto *processes = dynamic_cast<ServiceProcesses *>(&publisher);
    if (!processes || !processes->separate(s.name))
        return refused(std::string(s.name) + " runs in the simulator's main process: it cannot crash alone");
    std::string why = f(*processes, s.name);
    return why.empty() ? Result{Result::kDone, s.name} : Result{Result::kFailed, why};
}

}  // namespace

Result Control::crash(const std::string &name, int32_t restart_after_ms)
{
    if (name == kServiceName)
        return refused(std::string(kServiceName) +
                       " is the simulator's control service and cannot crash alone; to stop every service, "
                       "stop the simulator (Ctrl-C, or kill hmisvc-devsim's pid)");
    return on_service(name, [&](const Service &s) {
        return on_process(publisher_, s, [&](ServiceProcesses &p, const std::string &n) {
            return p.crash(n, restart_after_ms);
        });
    });
}

Result Control::restart(const std::string &name)
{
    return on_service(name, [&](const Service &s) {
        return on_process(publisher_, s, [](ServiceProcesses &p, const std::string &n) { return p.restart(n); });
    });
}

Result Control::processes()
{
    Json out = Json::array();
    if (auto *p = dynamic_cast<ServiceProcesses *>(&publisher_))
        for (const ServiceProcesses::Status &st : p->status())
            out.push_back({{"service", st.name},
                           {"pid", st.pid},
                           {"restarts", st.restarts},
                           {"calls", st.calls},
                           {"state", st.crashed ? "crashed" : st.pid ? "up" : "restarting"}});
    return {Result::kDone, out.dump()};
}

Result Control::broadcast(const std::string &action, const std::map<std::string, int> &ints,
                          const std::map<std::string, std::string> &strings)
{
    if (action.empty())
        return refused("a broadcast needs an action");
    Intent intent(action);
    for (const auto &[key, value] : ints)
        intent.putExtra(key, value);
    for (const auto &[key, value] : strings)
        intent.putExtra(key, value);
    // As on the device: nobody can send while the broadcast service is down.
    if (auto *processes = dynamic_cast<ServiceProcesses *>(&publisher_))
        if (std::string why = processes->down("broadcast"); !why.empty())
            return {Result::kFailed, "broadcast is down (" + why + "): the intent is not sent"};
    std::string bytes = intent.toString();
    if (!device_.broadcasts.send(bytes))
        return refused("the intent is " + std::to_string(bytes.size()) + " bytes; one takes at most " +
                       std::to_string(BroadcastHub::kMaxIntentBytes));
    simulator_.note({{"simulator", "broadcast"}, {"args", Json::array({intent_json(bytes)})}});
    return {Result::kDone, std::to_string(device_.broadcasts.endpoints()) + " endpoint(s)"};
}

Result Control::broadcast_json(const std::string &action, const Json &extras)
{
    if (!extras.is_object())
        return refused("extras: expected an object with \"ints\" and \"strings\"");
    std::map<std::string, int> ints;
    std::map<std::string, std::string> strings;
    for (auto it = extras.begin(); it != extras.end(); ++it)
        if (it.key() != "ints" && it.key() != "strings")
            return refused("extras: " + unknown_name("field", it.key(), {"ints", "strings"}));
    try {
        from_json_value(extras.value("ints", Json::object()), ints, "ints");
        from_json_value(extras.value("strings", Json::object()), strings, "strings");
    } catch (const JsonError &e) {
        return refused(e.what());
    }
    return broadcast(action, ints, strings);
}

// ---- the device as a test double ----

const Method *Control::method_named(const std::string &name, Result &why) const
{
    // "METHOD" or "SERVICE.METHOD".
    std::size_t dot = name.find('.');
    std::vector<std::string> known;
    for (const Service &s : simulator_.services())
        for (const Method &m : s.methods) {
            if (!m.run)
                continue;
            if (dot == std::string::npos ? name == m.name
                                         : name.compare(0, dot, s.name) == 0 && dot == std::strlen(s.name) &&
                                               name.compare(dot + 1, std::string::npos, m.name) == 0)
                return &m;
            known.push_back(dot == std::string::npos ? m.name : std::string(s.name) + "." + m.name);
        }
    why = refused(unknown_name("method", tools::printable(name), known));
    return nullptr;
}

Result Control::filter_of(const Json &j, CallFilter &f, const std::vector<std::string> &extra_keys) const
{
    if (!j.is_object())
        return refused("a filter is a JSON object");
    std::vector<std::string> keys = {"service", "method", "program", "since", "args"};
    keys.insert(keys.end(), extra_keys.begin(), extra_keys.end());
    for (auto it = j.begin(); it != j.end(); ++it) {
        const std::string &key = it.key();
        if (std::find(keys.begin(), keys.end(), key) == keys.end())
            return refused(unknown_name("filter", key, keys));
        if (key == "since") {
            if (!it->is_number_unsigned())
                return refused("since: expected a mark (a whole number), got " + shown(*it));
            f.since = it->get<uint64_t>();
        } else if (key == "args") {
            if (!it->is_array())
                return refused("args: expected a JSON array, got " + shown(*it));
            f.args = *it;
        } else if (std::find(extra_keys.begin(), extra_keys.end(), key) != extra_keys.end()) {
            continue;
        } else if (!it->is_string()) {
            return refused(key + ": expected a text, got " + shown(*it));
        } else {
            (key == "service" ? f.service : key == "method" ? f.method : f.program) = it->get<std::string>();
        }
    }
    Result why;
    if (!f.service.empty() && !simulator_.find(f.service)) {
        std::vector<std::string> names;
        for (const Service &s : simulator_.services())
            names.push_back(s.name);
        return refused(unknown_name("service", f.service, names));
    }
    if (!f.method.empty()) {
        const Method *m = method_named(f.method, why);
        if (!m)
            return why;
        f.method = m->name;  // the log keeps the name alone
    }
    return {};
}

Result Control::calls(const Json &filter, std::size_t max_bytes)
{
    CallFilter f;
    if (Result r = filter_of(filter, f, {}); r.code != Result::kDone)
        return r;
    // A page of calls, each smaller than a page: every page brings one at
    // least, so that paging with "since" ends.
    std::size_t left_out = 0;
    bool more = false;
    std::vector<std::string> page = simulator_.calls().find(f, max_bytes ? max_bytes - 64 : 0, &more);
    std::string list = array_of(page, 0, left_out);
    if (!max_bytes)
        return {Result::kDone, list};
    return {Result::kDone, "{\"calls\":" + list + ",\"more\":" + (more ? "true" : "false") +
                               ",\"dropped\":" + std::to_string(simulator_.calls().dropped()) + "}"};
}

Result Control::mark() { return {Result::kDone, std::to_string(simulator_.calls().mark())}; }

Result Control::clear_calls()
{
    simulator_.calls().clear();
    return {};
}

Holds::Ticket Control::hold_thread()
{
    Holds::Ticket hold = holds_.take();
    if (hold)
        simulator_.holding(true);
    return hold;
}

void Control::release_thread(const Holds::Ticket &hold)
{
    simulator_.holding(false);
    holds_.release(hold);
}

Result Control::wait_call(const Json &request, std::size_t max_bytes)
{
    CallFilter f;
    if (Result r = filter_of(request, f, {"count", "timeout"}); r.code != Result::kDone)
        return r;
    if (f.method.empty())
        return refused("method: a wait needs the method it waits for");
    std::size_t count = 1;
    if (auto c = request.find("count"); c != request.end()) {
        if (!c->is_number_unsigned() || c->get<uint64_t>() == 0 || c->get<uint64_t>() > CallLog::kDefaultKeep * 100)
            return refused("count: expected a whole number, 1 or more, got " + shown(*c));
        count = c->get<std::size_t>();
    }
    double timeout = 5;
    if (auto t = request.find("timeout"); t != request.end()) {
        if (!t->is_number() || !(t->get<double>() >= 0) || t->get<double>() > 86400)
            return refused("timeout: expected seconds (0 to 86400), got " + shown(*t));
        timeout = t->get<double>();
    }
    Holds::Ticket hold = hold_thread();
    if (!hold)
        return {Result::kFailed, "too many waits and scenarios held at once (" + std::to_string(kMaxHeld) + ")"};
    std::vector<std::string> matched;
    auto deadline = std::chrono::steady_clock::now() +
                    std::chrono::duration_cast<std::chrono::steady_clock::duration>(std::chrono::duration<double>(timeout));
    bool met = simulator_.calls().wait(f, count, deadline, matched, &hold->ended);
    release_thread(hold);
    std::size_t left_out = 0;
    if (met)
        return {Result::kDone, array_of(matched, max_bytes, left_out)};
    // What came instead: every call after the mark, the newest when not
    // all fit.
    CallFilter after;
    after.since = f.since;
    return {Result::kFailed, array_of(simulator_.calls().find(after), max_bytes, left_out, true)};
}

Result Control::parse_answers(const Method &m, const std::vector<std::string> &texts, std::vector<Answer> &out) const
{
    for (const std::string &t : texts) {
        Answer a;
        auto number = [&](const char *prefix, int32_t low) -> bool {
            std::size_t n = std::strlen(prefix);
            if (t.compare(0, n, prefix) != 0)
                return false;
            Json v;
            if (!tools::parse_json(t.substr(n), v).empty() || !v.is_number_integer() || v.get<int64_t>() < low ||
                v.get<int64_t>() > INT32_MAX)
                throw JsonError(t + ": expected " + prefix + " and a whole number" + (low ? " 0 or more" : ""));
            a.n = static_cast<int32_t>(v.get<int64_t>());
            return true;
        };
        try {
            if (t == "fail")
                a.kind = Answer::kFail;
            else if (number("status:", INT32_MIN))
                a.kind = Answer::kStatus;
            else if (number("delay:", 0))
                a.kind = Answer::kDelay;
            else {
                if (std::string why = tools::parse_json(t, a.value); why == tools::kNotJson)
                    a.value = tools::to_json_text(t);
                else if (!why.empty())
                    throw JsonError(t + ": " + why);
                std::string why;
                if (!m.answer_with(a.value, nullptr, why))
                    throw JsonError(std::string(m.name) + " answers " + m.answers + ": " + shown(a.value) +
                                    " is not one (" + why + ")");
            }
        } catch (const JsonError &e) {
            return refused(e.what());
        }
        out.push_back(std::move(a));
    }
    return {};
}

Result Control::reply(const std::string &name, const std::vector<std::string> &texts)
{
    Result why;
    const Method *m = method_named(name, why);
    if (!m)
        return why;
    std::vector<Answer> answers;
    if (Result r = parse_answers(*m, texts, answers); r.code != Result::kDone)
        return r;
    if (std::string full = simulator_.queue(*m, std::move(answers)); !full.empty())
        return {Result::kFailed, full};
    return {Result::kDone, m->name};
}

void Control::remember_start(const std::set<std::string> &published)
{
    std::lock_guard<std::mutex> hold(simulator_.lock());
    start_ = StateJson::dump(device_);
    // The host's figures stay live unless they were set.
    start_["system"]["storage_free_kib"] = device_.system.storage_free;
    start_["system"]["ram_free_kib"] = device_.system.ram_free;
    start_published_ = published;
    start_faults_.clear();
    for (const Service &s : simulator_.services())
        if (auto f = simulator_.faults_locked().find(&s); f != simulator_.faults_locked().end())
            start_faults_[s.name] = f->second;
}

Result Control::reset()
{
    holds_.end_all("the device was reset");
    {
        std::lock_guard<std::mutex> hold(simulator_.lock());
        try {
            StateJson::load(device_, start_);
        } catch (const JsonError &e) {  // the start state was taken as it was
            return {Result::kFailed, std::string("the start state does not load back: ") + e.what()};
        }
        simulator_.clear_locked();
        for (const auto &[name, fault] : start_faults_)
            simulator_.faults_locked()[simulator_.find(name)] = fault;
    }
    // Publications with the state's lock let go: a service's process is
    // told to publish over the link its calls come on, and a call that
    // comes first is answered from the state before the publication is
    // told done.
    std::string failed;
    for (const Service &s : simulator_.services()) {
        bool want = start_published_.count(s.name) != 0;
        if (want != publisher_.published(s.name) &&
            (want ? publisher_.publish(s.name, const_cast<Service *>(&s))
                  : publisher_.unpublish(s.name, const_cast<Service *>(&s))) != 0)
            failed += std::string(failed.empty() ? "" : ", ") + s.name;
    }
    // Crashed services come back, published as at the start.
    if (auto *processes = dynamic_cast<ServiceProcesses *>(&publisher_))
        for (const ServiceProcesses::Status &p : processes->status())
            if (p.crashed && !processes->restart(p.name).empty())
                failed += std::string(failed.empty() ? "" : ", ") + p.name;
    simulator_.calls().clear();
    if (!failed.empty())
        return {Result::kFailed, "reset, but the service manager refused to change " + failed};
    return {};
}

// ---- scenarios ----

Scenario::Checks Control::scenario_checks()
{
    Scenario::Checks c;
    c.call = [this](const CallFilter &f) {
        Result why;
        if (!method_named(f.method, why))
            return why.text;
        if (!f.service.empty() && !simulator_.find(f.service))
            return lookup(f.service, why), why.text;
        return std::string();
    };
    c.action = [this](const std::string &action, const Json &arg) -> std::string {
        Result why;
        auto service_arg = [&](const Json &name) {
            if (!name.is_string())
                return "expected a service name, got " + shown(name);
            return lookup(name.get<std::string>(), why) ? std::string() : why.text;
        };
        if (action == "heal" || action == "publish" || action == "unpublish" || action == "restart")
            return service_arg(arg);
        if (action == "crash" && arg.is_object()) {
            for (auto it = arg.begin(); it != arg.end(); ++it)
                if (it.key() != "service" && it.key() != "restart_after_ms")
                    return unknown_name("field", it.key(), {"service", "restart_after_ms"});
            if (arg.contains("restart_after_ms") &&
                (!arg["restart_after_ms"].is_number_integer() || arg["restart_after_ms"].get<int64_t>() < 0 ||
                 arg["restart_after_ms"].get<int64_t>() > INT32_MAX))
                return "restart_after_ms: expected an integer from 0 to 2147483647, got " + shown(arg["restart_after_ms"]);
            return service_arg(arg.value("service", Json()));
        }
        if (action == "crash")
            return service_arg(arg);
        if (action == "fail") {
            if (!arg.is_object())
                return service_arg(arg);
            for (auto it = arg.begin(); it != arg.end(); ++it) {
                if (it.key() == "service")
                    continue;
                if (it.key() != "status" && it.key() != "calls" && it.key() != "delay_ms")
                    return unknown_name("field", it.key(), {"service", "status", "calls", "delay_ms"});
                if (!it->is_number_integer())
                    return it.key() + ": expected an integer, got " + shown(*it);
            }
            return service_arg(arg.value("service", Json()));
        }
        if (action == "set") {
            if (!arg.is_object() || arg.empty())
                return "expected an object of keys and values, got " + shown(arg);
            std::lock_guard<std::mutex> hold(simulator_.lock());
            Json state = StateJson::dump(device_);
            for (auto it = arg.begin(); it != arg.end(); ++it) {
                Json copy = state, *at = nullptr;
                if (Result r = at_key(copy, it.key(), at); r.code != Result::kDone)
                    return r.text;
            }
            return "";
        }
        if (action == "load")
            return arg.is_object() ? "" : "expected a state document (an object), got " + shown(arg);
        if (action == "reset")
            return arg == true ? "" : "expected true, got " + shown(arg);
        if (action == "broadcast") {
            if (!arg.is_object() || !arg.contains("action") || !arg["action"].is_string())
                return "expected {\"action\": ..., \"ints\": {...}, \"strings\": {...}}, got " + shown(arg);
            Json extras = arg;
            extras.erase("action");
            if (!extras.is_object())
                return "";
            for (auto it = extras.begin(); it != extras.end(); ++it)
                if (it.key() != "ints" && it.key() != "strings")
                    return unknown_name("field", it.key(), {"action", "ints", "strings"});
            std::map<std::string, int> ints;
            std::map<std::string, std::string> strings;
            try {
                from_json_value(extras.value("ints", Json::object()), ints, "ints");
                from_json_value(extras.value("strings", Json::object()), strings, "strings");
            } catch (const JsonError &e) {
                return e.what();
            }
            return "";
        }
        if (action == "reply") {
            if (!arg.is_object() || !arg.contains("method") || !arg["method"].is_string() || !arg.contains("answers") ||
                !arg["answers"].is_array() || arg.size() != 2)
                return "expected {\"method\": ..., \"answers\": [...]}, got " + shown(arg);
            const Method *m = method_named(arg["method"].get<std::string>(), why);
            if (!m)
                return why.text;
            std::vector<Answer> answers;
            Result r = parse_answers(*m, answer_texts(arg["answers"]), answers);
            return r.code == Result::kDone ? "" : r.text;
        }
        return "unknown action";
    };
    return c;
}

std::string Control::act(const Step &step)
{
    const Json &arg = step.arg;
    auto name = [&](const Json &j) { return j.is_string() ? j.get<std::string>() : j.value("service", ""); };
    Result r;
    if (step.action == "set") {
        for (auto it = arg.begin(); it != arg.end() && r.code == Result::kDone; ++it)
            r = set(it.key(), tools::dump_json(it.value()));
    } else if (step.action == "load") {
        r = load_state(tools::dump_json(arg));
    } else if (step.action == "fail") {
        r = fail(name(arg), arg.is_object() ? Fault{arg.value("status", 0), arg.value("calls", -1), arg.value("delay_ms", 0)}
                                            : Fault{});
    } else if (step.action == "heal") {
        r = heal(name(arg));
    } else if (step.action == "publish") {
        r = publish(name(arg));
    } else if (step.action == "unpublish") {
        r = unpublish(name(arg));
    } else if (step.action == "crash") {
        r = crash(name(arg), arg.is_object() ? arg.value("restart_after_ms", -1) : -1);
    } else if (step.action == "restart") {
        r = restart(name(arg));
    } else if (step.action == "broadcast") {
        Json extras = arg;
        extras.erase("action");
        r = broadcast_json(arg["action"].get<std::string>(), extras);
    } else if (step.action == "reply") {
        r = reply(arg["method"].get<std::string>(), answer_texts(arg["answers"]));
    } else if (step.action == "reset") {
        r = reset();
    }
    return r.code == Result::kDone ? "" : r.text;
}

namespace {

std::vector<Step> scenario_steps(const std::string &document, const Scenario::Checks &checks, double &end,
                                 std::string &why)
{
    Json doc;
    if (why = Scenario::too_large(document.size()); !why.empty())
        return {};
    if (why = tools::parse_json(document, doc); !why.empty()) {
        why = "the scenario is " + why;
        return {};
    }
    return Scenario::parse(doc, checks, end, why);
}

}  // namespace

Result Control::check_scenario(const std::string &document)
{
    double end = 0;
    std::string why;
    if (scenario_steps(document, scenario_checks(), end, why).empty())
        return refused(why);
    return {};
}

Result Control::play(const std::string &document)
{
    double end = 0;
    std::string why;
    std::vector<Step> steps = scenario_steps(document, scenario_checks(), end, why);
    if (steps.empty())
        return refused(why);
    Holds::Ticket hold = hold_thread();
    if (!hold)
        return {Result::kFailed, "too many waits and scenarios held at once (" + std::to_string(kMaxHeld) + ")"};
    simulator_.note({{"scenario", "start"}, {"steps", steps.size()}, {"end", end}});
    std::string report = Scenario::run(
        steps, end, simulator_.calls(), [this](const Step &s) { return act(s); },
        [this](const Step &s, double late_ms, const std::string &error) {
            Json line = {{"scenario", "step"}, {"step", s.number}, {"do", s.action}, {"arg", s.arg},
                         {"late_ms", std::round(late_ms * 1000) / 1000}};
            if (!error.empty())
                line["error"] = error;
            simulator_.note(std::move(line));
        },
        &hold->ended);
    if (hold->ended)
        report = "ended early: " + hold->why + "\n" + report;
    simulator_.note({{"scenario", "end"}, {"met", report.empty()}});
    release_thread(hold);
    if (report.empty())
        return {Result::kDone, std::to_string(steps.size()) + " step(s), all as expected"};
    return {Result::kFailed, report};
}

}  // namespace hmisvc::devsim
