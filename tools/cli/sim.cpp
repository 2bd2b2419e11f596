#include "sim.h"

#include "json_text.h"
#include "svcmgr_client.h"

#include <hmisvc/binder.h>

#include <cerrno>
#include <climits>
#include <fstream>
#include <iostream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

namespace cli {

namespace {

// The simulator's control service and its codes (its method table's order).
constexpr const char *kControl = "devsim.control";
enum Code : uint32_t { kDump, kSet, kFail, kHeal, kPublish, kUnpublish, kLoadState };

// Room for the largest answer, a dump of the state.
constexpr uint32_t kMapSize = 1024 * 1024;

struct Connection {
    binder_connection *bs = binder_open(kMapSize);
    ~Connection()
    {
        if (bs)
            binder_close(bs);
    }
};

// One word argument or one string argument, in request order.
struct Arg {
    bool text;
    std::string s;
    int32_t n;
};

// Calls the control service; prints its answer (to stdout when it did what
// was asked, else to stderr) and returns the exit status it gives.
int control(uint32_t code, const std::vector<Arg> &args)
{
    Connection c;
    if (!c.bs)
        return 1;
    uint32_t handle = svcmgr_lookup(c.bs, SVCMGR_HANDLE, kControl);
    if (!handle) {
        std::cerr << "hmisvc: no simulator is running (\"" << kControl << "\" is not registered)" << std::endl;
        return 1;
    }
    std::size_t size = 64;
    for (const Arg &a : args)
        size += a.s.size() + 8;
    std::vector<char> area(size);
    binder_io msg, reply;
    bio_init(&msg, area.data(), static_cast<uint32_t>(area.size()), 4);
    bio_put_uint32(&msg, 0);
    for (const Arg &a : args)
        a.text ? bio_put_string(&msg, a.s.c_str()) : bio_put_uint32(&msg, static_cast<uint32_t>(a.n));
    if (binder_call(c.bs, &msg, &reply, handle, code) != 0) {
        std::cerr << "hmisvc: the simulator did not answer" << std::endl;
        return 1;
    }
    bool status_only = reply.data_left == sizeof(uint32_t);
    int32_t result = static_cast<int32_t>(bio_get_uint32(&reply));
    uint32_t len = 0;
    const char *text = status_only ? nullptr : bio_get_string(&reply, &len);
    std::string answer = text ? std::string(text, len) : std::string();
    binder_done(c.bs, &msg, &reply);
    if (!text) {
        if (result == -EMSGSIZE)
            std::cerr << "hmisvc: the answer is larger than the simulator's reply area" << std::endl;
        else
            std::cerr << "hmisvc: the simulator refused the request (status " << result << ")" << std::endl;
        return 1;
    }
    if (result == 0) {
        if (code == kDump)
            std::cout << answer << std::endl;
        return 0;
    }
    std::cerr << "hmisvc: " << answer << std::endl;
    return result == 2 ? 2 : 1;
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

    cmd = sim.add_subcommand("load", "Load a state file (JSON, whole or partial) into the running simulator");
    cmd->add_option("FILE", *value, "State file")->required()->check(CLI::ExistingFile);
    cmd->callback([value, &status] {
        std::ifstream in(*value);
        std::stringstream text;
        text << in.rdbuf();
        if (!in) {
            std::cerr << "hmisvc: " << *value << ": cannot read" << std::endl;
            status = 1;
            return;
        }
        status = tooLarge(*value, text.str()) ? 2 : control(kLoadState, {{true, text.str(), 0}});
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
