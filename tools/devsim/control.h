// Steering the simulated device while applications run: the one piece of
// code behind `hmisvc sim ...` (reached through the control service over
// binder) and any other front end (a browser panel), so that every front end
// sees and changes the same state the same way.
//
// Every operation is safe to call from any thread while the device serves
// and answers a Result: code 0 done, 1 failed (e.g. the service manager
// refused), 2 refused input (unknown key or service, wrong type); text is
// the answer (a JSON document for dump) or what was wrong.
#ifndef HMISVC_DEVSIM_CONTROL_H
#define HMISVC_DEVSIM_CONTROL_H

#include "holds.h"
#include "publisher.h"
#include "services.h"

#include "scenario.h"

#include <atomic>
#include <map>
#include <set>
#include <string>
#include <vector>

namespace hmisvc::devsim {

struct ControlResult {
    enum Code : int32_t { kDone = 0, kFailed = 1, kRefused = 2 };
    int32_t code = kDone;
    std::string text;
};
template <class V> void fields(ControlResult &r, V &&v) { v("code", r.code), v("text", r.text); }
void put(binder_io &reply, const ControlResult &r);  // the code word, then the text

class Control {
public:
    using Result = ControlResult;

    // The name the control service is published under.
    static constexpr const char *kServiceName = "devsim.control";

    Control(Device &device, Simulator &simulator, tools::Publisher &publisher);

    // The whole state as JSON (see StateJson), pretty-printed.
    Result dump() const;
    // KEY is a dotted path into dump()'s document ("backlight.brightness",
    // "settings.SECTION.KEY"); VALUE is JSON, or else taken as a string.
    // The next call of any application sees the change.
    Result set(const std::string &key, const std::string &value);
    // A whole or partial state document, as --state reads it; its
    // "services" section unpublishes and fails services as it says.
    Result load_state(const std::string &json);
    // SERVICE is a name of the method table (or the name of one of its
    // methods, for the service that has it).
    Result fail(const std::string &service, Fault fault);
    Result heal(const std::string &service);
    Result publish(const std::string &service);
    Result unpublish(const std::string &service);
    // A service's process: killed at once (restarted after restart_after_ms,
    // below 0: at restart), started again, and each one's pid and restarts.
    Result crash(const std::string &service, int32_t restart_after_ms);
    Result restart(const std::string &service);
    Result processes();
    // Sends an intent to every registered endpoint, as an application's
    // SendBroadcast does.
    Result broadcast(const std::string &action, const std::map<std::string, int> &ints,
                     const std::map<std::string, std::string> &strings);

    // The same, the extras as {"ints": {K: V...}, "strings": {K: V...}}.
    Result broadcast_json(const std::string &action, const Json &extras);

    // ---- the device as a test double ----

    // The calls logged that match FILTER, a JSON object with any of
    // "service", "method", "program", "since" (a mark), "args" (an array):
    // a JSON array of call objects, oldest first. With max_bytes, at most
    // that much (one call at least): then {"calls": [...], "more":
    // true|false, "dropped": N}, the rest to ask for with "since" the last
    // seq; N calls made room in the log so far.
    Result calls(const Json &filter, std::size_t max_bytes = 0);
    // The sequence number of the last call logged (0 when none).
    Result mark();
    // REQUEST: a filter as calls() takes it with "method" required, and
    // "count" (default 1) and "timeout" (seconds, default 5). Done with
    // the matching calls (a JSON array) as soon as there are enough; at
    // the timeout failed with the calls that came after the mark instead.
    // The wait holds the calling thread, woken by the calls themselves.
    Result wait_call(const Json &request, std::size_t max_bytes = 0);
    Result clear_calls();
    // Queues answers for METHOD's next calls: JSON values of its result
    // type (a text that is not JSON taken as a string), "fail",
    // "status:N", "delay:MS"; none at all empties its queue. All or none.
    Result reply(const std::string &method, const std::vector<std::string> &answers);
    // The device back as it started: values, faults, queued answers,
    // publications; the call log emptied. No call sees the values half
    // done; publications and crashed services follow them.
    Result reset();
    // Runs a scenario document (see scenario.h) to its end; done when all
    // went as it says, failed with the report of what did not.
    Result play(const std::string &document);
    // Only checks a scenario document, as play() does before it runs it.
    Result check_scenario(const std::string &document);
    // Remembers the device as it is now as the state reset() goes back to,
    // with these services published; call before serving.
    void remember_start(const std::set<std::string> &published);

    // Waits and scenarios held at once; more are refused. Each ends when
    // its client goes away, and reset() ends all of them.
    static constexpr int kMaxHeld = Holds::kMax;
    Holds &holds() { return holds_; }

    // The control service's method table, in code order: dump, set, fail,
    // heal, publish, unpublish, load_state, calls, mark, wait_call,
    // clear_calls, reply, reset, play, broadcast, crash, restart, processes.
    const Service &service() const { return service_; }

private:
    // The named service, or null with `why` set.
    const Service *lookup(const std::string &name, Result &why) const;
    // f(service) for the named service, or lookup's refusal.
    template <class F> Result on_service(const std::string &name, F f)
    {
        Result why;
        const Service *s = lookup(name, why);
        return s ? f(*s) : why;
    }

    // With the dump's document: where KEY points in it (refused when
    // nowhere or read-only).
    Result at_key(Json &state, const std::string &key, Json *&at) const;
    // A filter from its JSON form; names checked.
    Result filter_of(const Json &j, CallFilter &f, const std::vector<std::string> &extra_keys) const;
    // The method named, or null with `why` set.
    const Method *method_named(const std::string &name, Result &why) const;
    Result parse_answers(const Method &m, const std::vector<std::string> &texts, std::vector<Answer> &out) const;
    Scenario::Checks scenario_checks();
    std::string act(const Step &step);
    // Holds a thread for a wait or a scenario: null when too many are.
    Holds::Ticket hold_thread();
    void release_thread(const Holds::Ticket &hold);

    Device &device_;
    Simulator &simulator_;
    Json start_;
    std::set<std::string> start_published_;
    std::map<std::string, Fault> start_faults_;
    tools::Publisher &publisher_;
    Service service_;
    Holds holds_{simulator_.calls()};
};

}  // namespace hmisvc::devsim

#endif
