#include "scenario.h"

#include "names.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <sstream>

namespace hmisvc::devsim {

namespace {

struct Refusal {
    std::string why;
};

bool is_seconds(const Json &j)
{
    return j.is_number() && std::isfinite(j.get<double>()) && j.get<double>() >= 0 &&
           j.get<double>() <= Scenario::kMaxSeconds;
}

double seconds(const Json &step, const char *field)
{
    const Json &j = step.at(field);
    if (!is_seconds(j))
        throw Refusal{std::string(field) + ": expected seconds (a number, 0 to " +
                      std::to_string(static_cast<long>(Scenario::kMaxSeconds)) + "), got " + shown(j)};
    return j.get<double>();
}

// A call as "after" and "expect" name it.
CallFilter call_of(const Json &j, const char *field, std::size_t *count, const Scenario::Checks &checks)
{
    if (!j.is_object())
        throw Refusal{std::string(field) + ": expected an object with \"method\", got " + shown(j)};
    std::vector<std::string> known = {"method", "args", "program", "service"};
    if (count)
        known.push_back("count");
    CallFilter f;
    for (auto it = j.begin(); it != j.end(); ++it) {
        const std::string &key = it.key();
        if (std::find(known.begin(), known.end(), key) == known.end())
            throw Refusal{std::string(field) + ": " + unknown_name("field", key, known)};
        if (key == "args") {
            if (!it->is_array())
                throw Refusal{std::string(field) + ".args: expected an array, got " + shown(*it)};
            f.args = *it;
        } else if (key == "count") {
            if (!it->is_number_unsigned() || it->get<uint64_t>() == 0)
                throw Refusal{std::string(field) + ".count: expected a whole number, 1 or more, got " + shown(*it)};
            *count = it->get<std::size_t>();
        } else if (!it->is_string()) {
            throw Refusal{std::string(field) + "." + key + ": expected a string, got " + shown(*it)};
        } else {
            (key == "method" ? f.method : key == "program" ? f.program : f.service) = it->get<std::string>();
        }
    }
    if (f.method.empty())
        throw Refusal{std::string(field) + ": \"method\" is missing"};
    if (std::string why = checks.call(f); !why.empty())
        throw Refusal{std::string(field) + ": " + why};
    return f;
}

Step step_of(const Json &j, const Scenario::Checks &checks)
{
    if (!j.is_object())
        throw Refusal{"expected an object, got " + shown(j)};
    std::vector<std::string> known = {"at", "after", "delay", "before"};
    Step step;
    for (auto it = j.begin(); it != j.end(); ++it) {
        const auto &actions = Scenario::actions();
        if (std::find(actions.begin(), actions.end(), it.key()) != actions.end()) {
            if (!step.action.empty())
                throw Refusal{"two actions (\"" + step.action + "\" and \"" + it.key() + "\"); one step does one"};
            step.action = it.key();
            step.arg = *it;
        } else if (std::find(known.begin(), known.end(), it.key()) == known.end()) {
            std::vector<std::string> all = known;
            all.insert(all.end(), actions.begin(), actions.end());
            throw Refusal{unknown_name("field", it.key(), all)};
        }
    }
    if (step.action.empty())
        throw Refusal{"no action (one of set, load, fail, heal, publish, unpublish, crash, restart, broadcast, reply, reset, "
                      "expect)"};
    if (step.action == "expect") {
        for (const char *f : {"at", "after", "delay"})
            if (j.contains(f))
                throw Refusal{std::string(f) + ": an expectation has \"before\" only"};
        if (!j.contains("before"))
            throw Refusal{"before: an expectation needs the time it must be met by"};
        step.at = seconds(j, "before");
        step.call = call_of(step.arg, "expect", &step.count, checks);
        return step;
    }
    if (j.contains("before"))
        throw Refusal{"before: only an expectation has it"};
    if (j.contains("at") == j.contains("after"))
        throw Refusal{"at/after: a step runs either \"at\" a time or \"after\" a call"};
    if (j.contains("at")) {
        if (j.contains("delay"))
            throw Refusal{"delay: only a step \"after\" a call has it"};
        step.at = seconds(j, "at");
    } else {
        step.after_call = true;
        step.call = call_of(j.at("after"), "after", nullptr, checks);
        step.at = j.contains("delay") ? seconds(j, "delay") : 0;
    }
    if (std::string why = checks.action(step.action, step.arg); !why.empty())
        throw Refusal{step.action + ": " + why};
    return step;
}

std::string seconds_text(double s)
{
    std::ostringstream out;
    out << s;
    return out.str();
}

std::string shown_call(const Step &s)
{
    std::string out = s.call.method + (s.call.args ? tools::dump_json(*s.call.args) : std::string("(any arguments)"));
    if (!s.call.program.empty())
        out += " from " + s.call.program;
    return out;
}

}  // namespace

const std::vector<std::string> &Scenario::actions()
{
    static const std::vector<std::string> names = {"set",   "load",    "fail",      "heal",  "publish", "unpublish",
                                                   "crash", "restart", "broadcast", "reply", "reset",   "expect"};
    return names;
}

std::vector<Step> Scenario::parse(const Json &doc, const Checks &checks, double &end, std::string &why)
{
    std::vector<Step> steps;
    const Json *list = &doc;
    bool end_given = false;
    try {
        if (doc.is_object()) {
            for (auto it = doc.begin(); it != doc.end(); ++it)
                if (it.key() != "steps" && it.key() != "end")
                    throw Refusal{unknown_name("field", it.key(), {"steps", "end"})};
            if (!doc.contains("steps"))
                throw Refusal{"steps: missing"};
            list = &doc["steps"];
            if ((end_given = doc.contains("end")))
                end = seconds(doc, "end");
        }
        if (!list->is_array())
            throw Refusal{"steps: expected an array of steps, got " + shown(*list)};
        if (list->size() > kMaxSteps)
            throw Refusal{"steps: " + std::to_string(list->size()) + " steps; a scenario has at most " +
                          std::to_string(kMaxSteps)};
    } catch (const Refusal &r) {
        why = "scenario: " + r.why;
        return {};
    }
    double latest = 0;
    bool waits = false;
    for (std::size_t i = 0; i < list->size(); ++i) {
        try {
            Step s = step_of((*list)[i], checks);
            s.number = i + 1;
            if (s.after_call)
                waits = true;
            else
                latest = std::max(latest, s.at);
            steps.push_back(std::move(s));
        } catch (const Refusal &r) {
            why = "step " + std::to_string(i + 1) + ": " + r.why;
            return {};
        } catch (const std::exception &e) {  // a value of the wrong JSON type deep inside
            why = "step " + std::to_string(i + 1) + ": " + e.what();
            return {};
        }
    }
    if (steps.empty()) {
        why = "scenario: no steps";
        return {};
    }
    // Without an end, a scenario lasts until its last timed step, and ten
    // seconds more when a step waits for a call.
    if (!end_given)
        end = std::min(latest + (waits ? 10 : 0), kMaxSeconds);
    return steps;
}

std::string Scenario::too_large(std::size_t bytes)
{
    if (bytes <= kMaxBytes)
        return {};
    return "the scenario is " + std::to_string(bytes) + " bytes; a scenario document has at most " +
           std::to_string(kMaxBytes) + " (" + std::to_string(kMaxBytes >> 20) + " MiB)";
}

std::string Scenario::run(const std::vector<Step> &steps, double end, CallLog &log,
                          const std::function<std::string(const Step &)> &act,
                          const std::function<void(const Step &, double, const std::string &)> &note,
                          const std::atomic<bool> *ended)
{
    using Clock = std::chrono::steady_clock;
    const Clock::time_point start = Clock::now();
    const uint64_t since = log.mark();
    auto elapsed = [&] { return std::chrono::duration<double>(Clock::now() - start).count(); };
    struct Progress {
        bool done = false, triggered = false, met = false;
        double due = 0;
        std::string error;
    };
    std::vector<Progress> progress(steps.size());
    for (std::size_t i = 0; i < steps.size(); ++i)
        progress[i].due = steps[i].at;
    for (;;) {
        uint64_t seen = log.mark();
        double now = elapsed();
        bool all_done = true;
        double next = end;
        for (std::size_t i = 0; i < steps.size(); ++i) {
            const Step &s = steps[i];
            Progress &p = progress[i];
            if (p.done)
                continue;
            CallFilter f = s.call;
            f.since = since;
            if (s.action == "expect") {
                if (log.find(f).size() >= s.count)
                    p.done = p.met = true;
                else if (now >= s.at)
                    p.done = true;
            } else {
                if (s.after_call && !p.triggered && !log.find(f).empty())
                    p.triggered = true, p.due = now + s.at;
                if ((!s.after_call || p.triggered) && now >= p.due) {
                    p.error = act(s);
                    p.done = true;
                    note(s, (elapsed() - p.due) * 1000, p.error);
                }
            }
            if (!p.done) {
                all_done = false;
                if (!s.after_call || p.triggered)
                    next = std::min(next, p.due);
            }
        }
        if (all_done || now >= end || (ended && *ended))
            break;
        log.wait_after(seen, start + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(next)),
                       ended);
    }

    std::string report;
    for (std::size_t i = 0; i < steps.size(); ++i) {
        const Step &s = steps[i];
        const Progress &p = progress[i];
        std::string head = "step " + std::to_string(s.number) + ": ";
        if (s.action == "expect" && !p.met) {
            CallFilter same;
            same.since = since;
            same.method = s.call.method;
            std::vector<std::string> came = log.find(same);
            report += head + "expected " + std::to_string(s.count) + " call(s) of " + shown_call(s) + " before " +
                      seconds_text(s.at) + " s; calls of " + s.call.method + " that came: " +
                      std::to_string(came.size()) + "\n";
            for (const std::string &c : came)
                report += "  " + c + "\n";
        } else if (!p.done) {
            report += head + s.action + " did not run: " +
                      (s.after_call && !p.triggered ? "no call of " + shown_call(s) + " came" : "the scenario ended") +
                      "\n";
        } else if (!p.error.empty()) {
            report += head + s.action + " failed: " + p.error + "\n";
        }
    }
    return report;
}

}  // namespace hmisvc::devsim
