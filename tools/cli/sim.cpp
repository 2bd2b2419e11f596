#include "sim.h"

#include "control_client.h"
#include "json_text.h"
#include "svcmgr_client.h"

#include <hmisvc/binder.h>

#include <nlohmann/json.hpp>

#include <climits>
#include <fstream>
#include <iomanip>
#include <iostream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

namespace cli {

namespace {

using namespace hmisvc::tools::control;
using Arg = hmisvc::tools::ControlArg;

struct Connection {
    binder_connection *bs = binder_open(hmisvc::tools::kControlMapSize);
    ~Connection()
    {
        if (bs)
            binder_close(bs);
    }
};

// Calls the control service: its result (0 done, 1 failed, 2 refused) with
// its answer text, or -1 after saying why there is none.
int ask(uint32_t code, const std::vector<Arg> &args, std::string &answer)
{
    int result = hmisvc::tools::control_call(code, args, answer);
    if (result < 0)
        std::cerr << "hmisvc: " << answer << std::endl;
    return result;
}

// Calls the control service; prints its answer (to stdout when it did what
// was asked and `shown`, else to stderr) and returns the exit status it
// gives.
int control(uint32_t code, const std::vector<Arg> &args, bool shown = false)
{
    std::string answer;
    int result = ask(code, args, answer);
    if (result < 0)
        return 1;
    if (result == 0) {
        if (shown || code == kDump)
            std::cout << answer << std::endl;
        return 0;
    }
    std::cerr << "hmisvc: " << answer << std::endl;
    return result;
}

// JSON beyond what the simulator takes is refused here, before it is sent
// (a request that large would not even fit the simulator's mapping).
bool tooLarge(const std::string &what, const std::string &json)
{
    if (json.size() <= hmisvc::tools::kMaxJsonBytes)
        return false;
    std::cerr << "hmisvc: " << what << ": " << json.size() << " bytes; the simulator takes at most "
              << hmisvc::tools::kMaxJsonBytes << std::endl;
    return true;
}

// A JSON file the command sends whole: false (status 1 or 2 said) when it
// cannot be read, is not a regular file or is over the limit.
bool readDocument(const std::string &path, std::string &text, int &status)
{
    bool refused = false;
    if (std::string why = hmisvc::tools::read_json_file(path, text, refused); !why.empty()) {
        std::cerr << "hmisvc: " << why << std::endl;
        status = refused ? 2 : 1;
        return false;
    }
    return true;
}

void addControl(CLI::App &sim, int &status)
{
    auto name = std::make_shared<std::string>();
    auto value = std::make_shared<std::string>();
    auto fault = std::make_shared<std::vector<int32_t>>(std::vector<int32_t>{0, -1, 0});

    sim.add_subcommand("dump", "Print the whole simulated state as JSON")->callback([&status] {
        status = control(kDump, {});
    });

    CLI::App *cmd = sim.add_subcommand("set", "Change one value: KEY is its dotted path in the dump");
    cmd->add_option("KEY", *name, "e.g. backlight.brightness, wifi.scan, settings.SECTION.KEY")->required();
    cmd->add_option("VALUE", *value, "JSON (a text that is not JSON is taken as a string)")->required();
    cmd->callback([name, value, &status] {
        status = tooLarge("VALUE", *value) ? 2 : control(kSet, {{true, *name, 0}, {true, *value, 0}});
    });

    cmd = sim.add_subcommand("fail", "Make a service fail its next calls (default: all, until healed)");
    cmd->add_option("SERVICE", *name, "Service name (or one of its methods)")->required();
    cmd->add_option("--status", (*fault)[0],
                    "Answer a status reply with this word (the proxy decodes it as its answer) "
                    "instead of failing the call");
    cmd->add_option("--calls", (*fault)[1], "Only the next N calls")->check(CLI::Range(1, INT32_MAX));
    cmd->add_option("--delay-ms", (*fault)[2], "Answer normally, but N ms late")->check(CLI::Range(0, INT32_MAX));
    cmd->callback([name, fault, &status] {
        status = control(kFail, {{true, *name, 0}, {false, {}, (*fault)[0]}, {false, {}, (*fault)[1]},
                                 {false, {}, (*fault)[2]}});
    });

    struct Simple {
        const char *name, *help;
        Code code;
    };
    for (const Simple &s : {Simple{"heal", "End `sim fail` for a service", kHeal},
                            Simple{"publish", "Publish a service with the service manager again", kPublish},
                            Simple{"unpublish", "Remove a service from the service manager", kUnpublish}}) {
        cmd = sim.add_subcommand(s.name, s.help);
        cmd->add_option("SERVICE", *name, "Service name")->required();
        cmd->callback([name, code = s.code, &status] { status = control(code, {{true, *name, 0}}); });
    }

    auto after = std::make_shared<int32_t>(-1);
    cmd = sim.add_subcommand("crash", "Kill a service's process at once, as when it crashes on the device");
    cmd->add_option("SERVICE", *name, "Service name")->required();
    cmd->add_option("--restart-after", *after, "Start it again after MS ms (default: at `sim restart`)")
        ->check(CLI::Range(0, INT32_MAX));
    cmd->callback([name, after, &status] { status = control(kCrash, {{true, *name, 0}, {false, {}, *after}}); });
    cmd = sim.add_subcommand("restart", "Start a crashed service's process again");
    cmd->add_option("SERVICE", *name, "Service name")->required();
    cmd->callback([name, &status] { status = control(kRestart, {{true, *name, 0}}); });
    sim.add_subcommand("status", "List each service's process: state, pid, restarts and calls in progress")->callback([&status] {
        std::string answer;
        int result = ask(kProcesses, {}, answer);
        nlohmann::json list;
        if (result != 0 || (list = nlohmann::json::parse(answer, nullptr, false)).is_discarded()) {
            status = result < 0 ? 1 : control(kProcesses, {});
            return;
        }
        for (const auto &p : list)
            std::cout << std::left << std::setw(12) << p.value("service", "") << ' ' << std::setw(10)
                      << p.value("state", "") << " pid " << std::setw(7) << p.value("pid", 0) << " restarts "
                      << std::setw(3) << p.value("restarts", 0) << " calls " << p.value("calls", 0) << '\n';
        std::cout << std::flush;
        status = 0;
    });

    cmd = sim.add_subcommand("load", "Load a state file (JSON, whole or partial) into the running simulator");
    cmd->add_option("FILE", *value, "State file")->required()->check(CLI::ExistingFile);
    cmd->callback([value, &status] {
        if (std::string text; readDocument(*value, text, status))
            status = control(kLoadState, {{true, text, 0}});
    });
}

using Json = nlohmann::ordered_json;

// One call of the log a line: seq, time, program[pid], service.Method(args)
// and its answer.
void printCalls(const Json &calls, bool json)
{
    if (json) {
        std::cout << hmisvc::tools::dump_json(calls) << std::endl;
        return;
    }
    for (const Json &c : calls) {
        std::string args = c.contains("args") ? hmisvc::tools::dump_json(c["args"]) : "[]";
        std::cout << c.value("seq", 0) << ' ' << std::fixed << std::setprecision(3) << c.value("time", 0.0) << ' '
                  << c.value("program", "?") << '[' << c.value("pid", 0) << "] " << c.value("service", "?") << '.'
                  << (c["method"].is_string() ? c["method"].get<std::string>() : "?") << '('
                  << args.substr(1, args.size() - 2) << ')';
        if (c.contains("reply"))
            std::cout << " -> " << hmisvc::tools::dump_json(c["reply"]);
        else
            std::cout << " -> " << hmisvc::tools::dump_json(c.value("status", Json())) << " ("
                      << c.value("error", "") << ')';
        std::cout << (c.value("scripted", false) ? " [scripted]" : "") << '\n';
    }
    std::cout << std::flush;
}

// A JSON text of an option, or the exit status 2 after saying why not.
bool parsed(const std::string &what, const std::string &text, Json &out)
{
    if (std::string why = hmisvc::tools::parse_json(text, out); !why.empty()) {
        std::cerr << "hmisvc: " << what << ": " << why << std::endl;
        return false;
    }
    return true;
}

// The call log, waits, scripted answers, reset, scenarios and broadcasts.
void addDouble(CLI::App &sim, Session &session)
{
    int &status = session.status;
    bool &json = session.json;
    struct Filter {
        std::string service, method, program, args;
        uint64_t since = 0;
        std::size_t count = 1;
        double timeout = 5;
        Json json() const
        {
            Json f = Json::object();
            if (!service.empty())
                f["service"] = service;
            if (!method.empty())
                f["method"] = method;
            if (!program.empty())
                f["program"] = program;
            if (since)
                f["since"] = since;
            return f;
        }
    };
    auto f = std::make_shared<Filter>();
    auto since = [f](CLI::App *cmd) {
        cmd->add_option("--since", f->since, "Only calls after this mark (see `sim mark`)");
        cmd->add_option("--program", f->program, "Only calls from this program (its name, as ps shows it)");
    };

    CLI::App *cmd = sim.add_subcommand("calls", "Print the calls the simulator served (its call log), oldest first");
    cmd->add_option("--service", f->service, "Only calls to this service");
    cmd->add_option("--method", f->method, "Only calls of this method");
    since(cmd);
    cmd->callback([f, &status, &json] {
        Json all = Json::array(), filter = f->json();
        for (;;) {
            std::string answer;
            Json page;
            if ((status = ask(kCalls, {{true, hmisvc::tools::dump_json(filter), 0}}, answer)) != 0) {
                if (status > 0)
                    std::cerr << "hmisvc: " << answer << std::endl;
                status = status < 0 ? 1 : status;
                return;
            }
            if (!parsed("the simulator's answer", answer, page))
                return void(status = 1);
            if (!page["calls"].is_array() || (page.value("more", false) && page["calls"].empty())) {
                // A page without a call would be asked for again and again.
                std::cerr << "hmisvc: the simulator's answer has more calls but none on its page" << std::endl;
                return void(status = 1);
            }
            for (Json &c : page["calls"])
                all.push_back(std::move(c));
            if (!page.value("more", false))
                break;
            filter["since"] = all.back()["seq"];  // the next page
        }
        printCalls(all, json);
    });

    sim.add_subcommand("mark", "Print the sequence number of the last call so far (0 when none), for --since")
        ->callback([&status] { status = control(kMark, {}, true); });
    sim.add_subcommand("clear-calls", "Empty the call log")->callback([&status] { status = control(kClearCalls, {}); });
    sim.add_subcommand("reset", "Put the device back as it started: values, failures, replies, services, call log")
        ->callback([&status] { status = control(kReset, {}); });

    cmd = sim.add_subcommand("wait-call",
                             "Wait until METHOD was called (COUNT times, with ARGS) after MARK; print those calls. "
                             "At the timeout exit 1 printing the calls that came instead");
    cmd->add_option("METHOD", f->method, "Method name (or SERVICE.METHOD)")->required();
    cmd->add_option("--args", f->args, "Only calls with exactly these arguments (a JSON array, e.g. [10])");
    cmd->add_option("--count", f->count, "How many calls (default 1)")->check(CLI::Range(1, 1000000));
    cmd->add_option("--timeout", f->timeout, "Seconds (default 5)")->check(CLI::Range(0.0, 86400.0));
    since(cmd);
    cmd->callback([f, &status, &json] {
        Json request = f->json();
        if (!f->args.empty() && !parsed("--args", f->args, request["args"]))
            return void(status = 2);
        request["count"] = f->count;
        request["timeout"] = f->timeout;
        std::string answer;
        Json calls;
        int result = ask(kWaitCall, {{true, hmisvc::tools::dump_json(request), 0}}, answer);
        bool listed = result >= 0 && !hmisvc::tools::parse_json(answer, calls).size() && calls.is_array();
        if (result < 0 || !listed) {
            if (result > 0)
                std::cerr << "hmisvc: " << answer << std::endl;
            return void(status = result < 0 ? 1 : result);
        }
        if (result == 1)
            std::cerr << "hmisvc: no " << f->count << " call(s) of " << f->method
                      << (f->args.empty() ? "" : " with " + f->args) << " within " << f->timeout
                      << " s; the calls after mark " << f->since << " (" << calls.size() << "):" << std::endl;
        printCalls(calls, json);
        status = result;
    });

    auto answers = std::make_shared<std::vector<std::string>>();
    auto clear = std::make_shared<bool>(false);
    cmd = sim.add_subcommand("reply", "Queue the next answers of METHOD: JSON values of its result type "
                                      "(records as objects with the field names of `sim dump`), fail, "
                                      "status:N or delay:MS; then its state answers again");
    cmd->add_option("METHOD", f->method, "Method name (or SERVICE.METHOD)")->required();
    cmd->add_option("ANSWER", *answers, "One answer per call, in order");
    cmd->add_flag("--clear", *clear, "Empty the method's queue");
    cmd->callback([f, answers, clear, &status] {
        if (*clear == !answers->empty()) {
            std::cerr << "hmisvc: sim reply: give ANSWERs or --clear" << std::endl;
            return void(status = 2);
        }
        Json list = *answers;
        status = control(kReply, {{true, f->method, 0}, {true, hmisvc::tools::dump_json(list), 0}});
    });

    auto file = std::make_shared<std::string>();
    cmd = sim.add_subcommand("play", "Run a scenario (JSON steps on a timeline) in the running simulator; "
                                     "exit 0 when all went as expected, 1 listing what did not");
    cmd->add_option("FILE", *file, "Scenario file")->required()->check(CLI::ExistingFile);
    cmd->callback([file, &status] {
        std::string text;
        if (!readDocument(*file, text, status))
            return;
        std::string answer;
        int result = ask(kPlay, {{true, text, 0}}, answer);
        if (result < 0)
            return void(status = 1);
        (result == 0 ? std::cout : std::cerr) << (result == 0 ? "" : "hmisvc: " + *file + ": ") << answer
                                              << (answer.empty() || answer.back() != '\n' ? "\n" : "") << std::flush;
        status = result;
    });

    auto ints = std::make_shared<std::vector<std::string>>();
    auto strings = std::make_shared<std::vector<std::string>>();
    cmd = sim.add_subcommand("broadcast", "Send a broadcast from the simulator to every registered endpoint");
    cmd->add_option("ACTION", *file, "The intent's action")->required();
    cmd->add_option("--int", *ints, "An integer extra KEY=VALUE (repeatable)");
    cmd->add_option("--string", *strings, "A string extra KEY=VALUE (repeatable)");
    cmd->callback([file, ints, strings, &status] {
        Json extras = {{"ints", Json::object()}, {"strings", Json::object()}};
        for (const auto &[given, kind] : {std::pair{ints, "ints"}, std::pair{strings, "strings"}})
            for (const std::string &kv : *given) {
                std::size_t eq = kv.find('=');
                std::string key = kv.substr(0, eq), value = eq == std::string::npos ? "" : kv.substr(eq + 1);
                if (eq == std::string::npos || key.empty() ||
                    (std::string(kind) == "ints" && !checkNumber(value, INT32_MIN, INT32_MAX).empty())) {
                    std::cerr << "hmisvc: --" << (std::string(kind) == "ints" ? "int" : "string") << " " << kv
                              << ": expected KEY=VALUE"
                              << (std::string(kind) == "ints" ? " with a 32-bit whole number" : "") << std::endl;
                    return void(status = 2);
                }
                extras[kind][key] = std::string(kind) == "ints" ? Json(std::stol(value)) : Json(hmisvc::tools::to_json_text(value));
            }
        status = control(kBroadcast, {{true, *file, 0}, {true, hmisvc::tools::dump_json(extras), 0}}, true);
    });
}

// The names registered, or the exit status when they cannot be had.
int listNames(std::vector<std::string> &names)
{
    Connection c;
    if (!c.bs)
        return 1;
    switch (hmisvc::tools::svcmgr_list(c.bs, names)) {
    case hmisvc::tools::ListResult::kListed:
        return 0;
    case hmisvc::tools::ListResult::kCannotList:
        std::cerr << "hmisvc: the service manager cannot list its services" << std::endl;
        return 1;
    default:
        std::cerr << "hmisvc: no service manager answered" << std::endl;
        return 1;
    }
}

} // namespace

void addSimCommands(CLI::App &app, Session &session)
{
    int &status = session.status;
    CLI::App *sim = app.add_subcommand("sim", "Steer the simulated device (hmisvc-devsim)");
    sim->require_subcommand(1);
    addControl(*sim, status);
    addDouble(*sim, session);

    app.add_subcommand("list", "Print the names registered with the service manager")->callback([&status] {
        std::vector<std::string> names;
        if ((status = listNames(names)) == 0)
            for (const std::string &n : names)
                std::cout << n << '\n';
    });
    auto name = std::make_shared<std::string>();
    CLI::App *check = app.add_subcommand("check", "Exit 0 when NAME is registered, 1 when not");
    check->add_option("NAME", *name, "Service name")->required();
    check->callback([name, &status] {
        Connection c;
        if (!c.bs) {
            status = 1;
            return;
        }
        // A lookup answers this with any service manager.
        status = svcmgr_lookup(c.bs, SVCMGR_HANDLE, name->c_str()) ? 0 : 1;
    });
}

} // namespace cli
