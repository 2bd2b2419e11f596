// hmisvc-devsim: the device's system services simulated on a PC, so that an
// HMI application can run against the library without the device.
#include "control.h"
#include "looper.h"
#ifdef HMISVC_PANEL
#include "panel_server.h"
#endif
#include "publisher.h"
#include "service_process.h"
#include "services.h"
#include "state.h"
#include "svcmgr_client.h"

#include <hmisvc/binder.h>

#include <CLI/CLI.hpp>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <unistd.h>

namespace {

using hmisvc::devsim::Control;
using hmisvc::devsim::Json;
using hmisvc::devsim::Service;
using hmisvc::devsim::Simulator;

// Threads serving the services. A call that `sim fail --delay-ms` holds up
// keeps its thread (its reply must go out on it), so each delayed call gets
// a thread of its own beside these, and these always serve, the control
// service included.
constexpr int kLoopers = 4;

int fail(const std::string &what)
{
    std::fprintf(stderr, "hmisvc-devsim: %s\n", what.c_str());
    return 1;
}

#ifdef HMISVC_PANEL
// The panel's address for programs: written beside FILE, synced (a host
// reading a guest's shared filesystem sees only what reached it) and
// renamed onto it, so that a reader sees the whole document or none.
std::string write_http_info(const std::string &file, const std::string &url, int port, const std::string &token)
{
    if (file.empty())
        return {};
    std::string text = Json{{"url", url}, {"port", port}, {"token", token}}.dump() + "\n";
    std::string partial = file + ".partial";
    std::FILE *out = std::fopen(partial.c_str(), "w");
    bool written = out && std::fputs(text.c_str(), out) >= 0 && std::fflush(out) == 0 && fsync(fileno(out)) == 0;
    int why_not = errno;
    if (out && std::fclose(out) != 0 && written)
        written = false, why_not = errno;
    if (!written) {
        std::remove(partial.c_str());
        return "--http-info: cannot write " + partial + ": " + std::strerror(why_not);
    }
    if (std::rename(partial.c_str(), file.c_str()) != 0) {
        std::string why = std::strerror(errno);
        std::remove(partial.c_str());
        return "--http-info: cannot write " + file + ": " + why;
    }
    return {};
}
#endif

}  // namespace

int main(int argc, char **argv)
{
    // A service's process, started by the main process (see ServiceProcesses).
    if (argc == 3 && std::strcmp(argv[1], hmisvc::devsim::kServiceProcessOption) == 0) {
        std::string arg = argv[2];
        std::size_t comma = arg.rfind(',');
        if (comma == std::string::npos) {
            std::fprintf(stderr, "hmisvc-devsim: %s NAME,FD is how the simulator starts a service's process\n",
                         argv[1]);
            return 2;
        }
        return hmisvc::devsim::run_service_process(arg.substr(0, comma), std::atoi(arg.c_str() + comma + 1));
    }
    CLI::App app{"Simulates the device's system services over the binder driver."};
    std::string settings_file, record_file, trace_file, state_file;
    std::vector<std::string> only;
    std::string http, http_info;
    bool verbose = false;
    app.add_option("--settings", settings_file, "INI file the settings are loaded from and saved to");
    app.add_option("--state", state_file, "Start from this state (JSON, as `hmisvc sim dump` prints it)");
    app.add_option("--record", record_file,
                   "Append one line per request: <service> <code> <request bytes in hex>");
    app.add_option("--trace", trace_file,
                   "Write one JSON line per call (time, pid, service, method, args, reply or status, "
                   "duration in us) to FILE, or to standard error for -");
    app.add_option("--services", only, "Publish only these services (comma-separated)")->delimiter(',');
    app.add_flag("-v,--verbose", verbose, "Same as --trace -");
    app.add_option("--http", http,
                   "Serve the browser panel on [ADDR:]PORT (address 127.0.0.1 unless given; port 0 picks one)");
    app.add_option("--http-info", http_info,
                   "Once the panel serves, write its address to FILE as JSON: "
                   "{\"url\": ..., \"port\": ..., \"token\": ...} (needs --http)");
    std::size_t keep_calls = hmisvc::devsim::CallLog::kDefaultKeep;
    app.add_option("--keep-calls", keep_calls, "Keep the last N calls for `hmisvc sim calls` and waits")
        ->check(CLI::Range(std::size_t{1}, std::size_t{10000000}));
    std::string scenario_file;
    app.add_option("--scenario", scenario_file,
                   "Run this scenario (JSON steps on a timeline, as `hmisvc sim play` takes) from the start");
    CLI11_PARSE(app, argc, argv);
    if (!http_info.empty() && http.empty()) {
        std::fprintf(stderr, "hmisvc-devsim: --http-info needs --http (there is no panel to describe)\n");
        return 2;
    }
    std::string scenario;
    if (!scenario_file.empty()) {
        bool refused = false;
        if (std::string why = hmisvc::tools::read_json_file(scenario_file, scenario, refused); !why.empty()) {
            std::fprintf(stderr, "hmisvc-devsim: %s\n", why.c_str());
            return 2;
        }
    }
#ifdef HMISVC_PANEL
    hmisvc::devsim::HttpAddress http_address;
    if (std::string why; !http.empty() && !hmisvc::devsim::HttpAddress::parse(http, http_address, why)) {
        std::fprintf(stderr, "hmisvc-devsim: %s\n", why.c_str());
        return 2;
    }
#else
    if (!http.empty()) {
        std::fprintf(stderr, "hmisvc-devsim: --http: this build has no browser panel (built without libmicrohttpd)\n");
        return 2;
    }
#endif

    hmisvc::devsim::Device device(settings_file);
    if (std::string err = device.settings.load(); !err.empty())
        return fail(err);
    Json state;
    if (!state_file.empty()) {
        std::string text;
        bool refused = false;
        if (std::string why = hmisvc::tools::read_json_file(state_file, text, refused); !why.empty())
            return refused ? (fail(why), 2) : fail(why);
        if (std::string why = hmisvc::tools::parse_json(text, state); !why.empty())
            return fail(state_file + ": " + why);
        try {
            hmisvc::devsim::StateJson::load(device, state);
        } catch (const hmisvc::devsim::JsonError &e) {
            return fail(state_file + ": " + e.what());
        }
    }
    std::FILE *record = nullptr;
    if (!record_file.empty() && !(record = std::fopen(record_file.c_str(), "a")))
        return fail(record_file + ": " + std::strerror(errno));
    std::FILE *trace = verbose ? stderr : nullptr;
    if (trace_file == "-")
        trace = stderr;
    else if (!trace_file.empty() && !(trace = std::fopen(trace_file.c_str(), "w")))
        return fail(trace_file + ": " + std::strerror(errno));
    Simulator simulator(device, record, trace);
    simulator.calls().keep(keep_calls);

    std::map<std::string, std::string> states;
    try {
        std::vector<std::string> names;
        for (const Service &s : simulator.services())
            names.push_back(s.name);
        states = hmisvc::devsim::StateJson::service_states(state, names);
    } catch (const hmisvc::devsim::JsonError &e) {
        return fail(state_file + ": " + e.what());
    }
    std::vector<const Service *> published;
    for (const Service &s : simulator.services()) {
        if (states[s.name] == "failed")
            simulator.fail(s, {});
        if ((only.empty() || std::find(only.begin(), only.end(), s.name) != only.end()) && states[s.name] != "absent")
            published.push_back(&s);
    }
    for (const std::string &name : only)
        if (!simulator.find(name))
            return fail("no service named \"" + name + "\"");

    binder_connection *bs = binder_open(1024 * 1024);
    if (!bs)
        return 1;
    char exe[4096];
    ssize_t exe_length = readlink("/proc/self/exe", exe, sizeof exe - 1);
    if (exe_length <= 0)
        return fail(std::string("cannot find the program to start the services' processes: ") + std::strerror(errno));
    hmisvc::devsim::ServiceProcesses publisher(bs, simulator, std::string(exe, static_cast<std::size_t>(exe_length)));
    // The endpoints registered are the broadcast service's memory: lost
    // with its process.
    publisher.on_end([&device](const std::string &name) {
        if (name == "broadcast")
            device.broadcasts.clear("the broadcast service's process ended");
    });
    // Before any service is published: registrations may come at once.
    device.broadcasts.attach(bs);
    std::set<std::string> names;
    for (const Service *s : published)
        names.insert(s->name);
    // A scenario that cannot run refuses the start before any service's
    // process runs.
    Control control(device, simulator, publisher);
    if (!scenario.empty())
        if (auto r = control.check_scenario(scenario); r.code != Control::Result::kDone) {
            std::fprintf(stderr, "hmisvc-devsim: %s: %s\n", scenario_file.c_str(), r.text.c_str());
            return 2;
        }
    // From here the services' processes may run: leave without the
    // destructors of what watches them (their threads run on), the
    // processes ended first.
    auto leave = [](int status) {
        hmisvc::devsim::ServiceProcesses::end_all();
        std::fflush(nullptr);
        std::_Exit(status);
    };
    if (std::string why = publisher.start(names); !why.empty())
        leave(fail(why));
    simulator.add_extra(&control.service());
    control.remember_start(names);

#ifdef HMISVC_PANEL
    std::unique_ptr<hmisvc::devsim::PanelServer> panel;
    if (!http.empty()) {
        panel = std::make_unique<hmisvc::devsim::PanelServer>(control, simulator, publisher);
        if (std::string err = panel->start(http_address); !err.empty())
            leave(fail(err));
        std::string shown = http_address.host == "0.0.0.0" || http_address.host == "::" ? "127.0.0.1"
                            : http_address.host.find(':') != std::string::npos ? "[" + http_address.host + "]"
                                                                               : http_address.host;
        std::string url = "http://" + shown + ":" + std::to_string(panel->port()) + "/";
        std::printf("hmisvc-devsim: panel at %s#token=%s\n", url.c_str(), panel->token().c_str());
        if (std::string err = write_http_info(http_info, url, panel->port(), panel->token()); !err.empty())
            leave(fail(err));
    }
#endif

    published.push_back(&control.service());
    for (const Service *s : published) {
        // The services' processes published theirs as they started.
        int status = publisher.separate(s->name) ? publisher.start_status(s->name)
                                                 : publisher.publish(s->name, const_cast<Service *>(s));
        if (status == -1)
            leave(fail(std::string("cannot publish \"") + s->name + "\" (is a service manager running?)"));
        // Someone else's name: a squatter, or another simulator. Which
        // process, so that it can be found; exit 2 as for any unusable
        // start-up setting.
        if (status != 0) {
            int holder = hmisvc::tools::svcmgr_holder(bs, s->name);
            std::string who = holder > 0 ? "pid " + std::to_string(holder) : "another process";
            // An exited holder's name is kept for its program's restart.
            if (holder > 0 && kill(holder, 0) != 0 && errno == ESRCH)
                who += " (exited; kept a while for its program to restart)";
            std::fprintf(stderr, "hmisvc-devsim: cannot publish \"%s\": held by %s\n", s->name, who.c_str());
            leave(2);
        }
    }
    // Only once all are ours: kept for the next simulator when this one
    // ends, so that nothing else takes them before it.
    if (std::string refused = publisher.claim_names(); !refused.empty())
        leave(fail("cannot claim \"" + refused + "\""));
    publisher.watch();
    std::printf("hmisvc-devsim: ready\n");
    std::fflush(stdout);

    auto handler = [&](const binder_transaction_data &txn, binder_io &msg, binder_io &reply) {
        return simulator.handle(txn, msg, reply);
    };
    auto serve_more = [&] {
        std::thread([&] { hmisvc::tools::serve(bs, handler, hmisvc::devsim::kReplyArea, false); }).detach();
    };
    // Threads serving, and how many of them wait out a delay (under the
    // simulator's lock, which the hook is called with).
    int serving = kLoopers, waiting = 0;
    simulator.on_delay([&](bool starts) {
        if (hmisvc::devsim::ServiceProcesses::delaying(starts))
            return;
        waiting += starts ? 1 : -1;
        if (starts && serving - waiting < kLoopers) {
            ++serving;
            serve_more();
        }
    });
    for (int i = 1; i < kLoopers; ++i)
        serve_more();
    if (!scenario.empty())
        std::thread([&] {
            auto r = control.play(scenario);
            std::fprintf(stderr, "hmisvc-devsim: scenario %s: %s%s", scenario_file.c_str(),
                         r.code == Control::Result::kDone ? "" : "not as expected:\n", r.text.c_str());
            if (r.text.empty() || r.text.back() != '\n')
                std::fputc('\n', stderr);
        }).detach();
    hmisvc::tools::serve(bs, handler, hmisvc::devsim::kReplyArea, true);
    // The loop returns only when the driver failed; it has said why.
    leave(1);
}
