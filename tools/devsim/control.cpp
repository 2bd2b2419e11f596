#include "control.h"

#include "state.h"

#include <hmisvc/broadcast.h>

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
        return Method{name, serve(*this, f), detail::signature<decltype(f)>::arg_types(), false, nullptr, {}};
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
                 on("load_state", [](Control &c, S json) { return c.load_state(json); })}};
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
    std::lock_guard<std::mutex> hold(simulator_.lock());
    Json state = StateJson::dump(device_);
    state["services"] = std::move(services);
    return {Result::kDone, tools::dump_json(state, 2)};
}

Result Control::set(const std::string &key, const std::string &value)
{
    // Messages show the key as text, whatever its bytes.
    const std::string shown_key = tools::printable(key);
    if (read_only(key))
        return refused(shown_key + ": read-only (it follows from other values)");
    Json parsed;
    if (std::string why = tools::parse_json(value, parsed); why == tools::kNotJson)
        parsed = tools::to_json_text(value);
    else if (!why.empty())
        return refused(shown_key + ": the value is " + why);
    std::lock_guard<std::mutex> hold(simulator_.lock());
    Json state = StateJson::dump(device_);
    Json *at = &state;
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
        if (step.empty() || !at->is_object() || (!creating && !at->contains(step)))
            return refused(shown_key + ": no such key (see `hmisvc sim dump`)");
        at = &(*at)[step];
        if (settings_key || dot == std::string::npos)
            break;
        from = dot + 1;
    }
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
    std::string names;
    for (const Service &s : simulator_.services())
        names += names.empty() ? s.name : std::string(", ") + s.name;
    why = refused("no service \"" + name + "\" (services: " + names + ")");
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
    device_.broadcasts.send(intent.toString());
    return {Result::kDone, std::to_string(device_.broadcasts.endpoints()) + " endpoint(s)"};
}

}  // namespace hmisvc::devsim
