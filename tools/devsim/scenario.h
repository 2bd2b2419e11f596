// Scenarios on a timeline: a JSON document of steps that the simulator runs
// itself, each at a time from the start ("at") or after a call came
// ("after", with an optional "delay"), doing one action on the device, or
// expecting a call before a time ("expect" ... "before"). A document is
// checked whole before anything runs.
//
//   {"steps": [{"at": 1, "unpublish": "wifiinfo"},
//              {"after": {"method": "SetBrightness", "args": [10]}, "delay": 0.2, "fail": "backlight"},
//              {"expect": {"method": "SetBrightness", "args": [10], "count": 1}, "before": 2}],
//    "end": 10}
#ifndef HMISVC_DEVSIM_SCENARIO_H
#define HMISVC_DEVSIM_SCENARIO_H

#include "call_log.h"
#include "json_values.h"

#include <atomic>
#include <functional>
#include <string>
#include <vector>

namespace hmisvc::devsim {

struct Step {
    std::size_t number = 0;  // 1-based, as messages name it
    double at = 0;           // seconds from the start (or after the call)
    bool after_call = false;
    CallFilter call;         // "after" or "expect": which call
    std::size_t count = 1;   // "expect": how many
    std::string action;      // set, load, fail, ..., expect
    Json arg;                // the action's value
};

struct Scenario {
    // What the actions a scenario may name are: "" when `arg` is a valid
    // value for `action`, else why not. `call` checks a call's method name
    // and arguments the same way.
    struct Checks {
        std::function<std::string(const std::string &action, const Json &arg)> action;
        std::function<std::string(const CallFilter &call)> call;
    };
    // Bounds of a document: its bytes, its steps, and any time in it
    // (seconds from the start, or after a call): a day, so that every
    // deadline is a time the clock can hold.
    static constexpr std::size_t kMaxBytes = 1 << 20;
    static constexpr std::size_t kMaxSteps = 1000;
    static constexpr double kMaxSeconds = 86400;
    // Why a document of this many bytes is refused, "" when it is not.
    static std::string too_large(std::size_t bytes);

    // The steps of a document, or an empty list and `why` ("step 2: ...").
    static std::vector<Step> parse(const Json &doc, const Checks &checks, double &end, std::string &why);

    // Runs the steps (act() does one), from now; answers "" when every
    // expectation was met and every step ran, else the report of what was
    // not, with the calls that did come. `note` is told each step as it
    // runs (its lateness in ms included). Once `ended` is set (its client
    // went away, the device was reset) it stops at once; the report then
    // names the steps that did not run.
    static std::string run(const std::vector<Step> &steps, double end, CallLog &log,
                           const std::function<std::string(const Step &)> &act,
                           const std::function<void(const Step &, double late_ms, const std::string &error)> &note,
                           const std::atomic<bool> *ended = nullptr);

    static const std::vector<std::string> &actions();
};

}  // namespace hmisvc::devsim

#endif
