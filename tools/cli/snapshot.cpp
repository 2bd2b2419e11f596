// hmisvc snapshot: every answer the device's services give without changing
// anything, written as the simulator's state document, so that
// `hmisvc-devsim --state FILE` answers the same on a PC.
//
// Which methods are asked, how their answers are read and where they are
// kept all come from the simulator's own method table (its query marks):
// the tool links the simulator's library and walks that table, so a method
// is described once. Only methods marked as queries are ever called.
#include "app.h"

#include "json_text.h"
#include "services.h"
#include "state.h"
#include "svcmgr_client.h"

#include <chrono>
#include <condition_variable>
#include <fstream>
#include <mutex>
#include <thread>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

namespace cli {

namespace {

using hmisvc::devsim::Method;
using hmisvc::devsim::Service;

// Room for the largest answer, a long scan list.
constexpr uint32_t kMapSize = 256 * 1024;
// What a call may take by default: a service answers in milliseconds, so
// one that takes seconds is not answering as it should.
constexpr double kCallLimitSeconds = 2;

// The argument lists a query is asked with: none, or those the settings
// keys and the known component names give.
struct Questions {
    std::vector<Json> keys;        // [section, key] pairs
    std::vector<Json> components;  // [name]

    std::vector<Json> of(const Method &m) const
    {
        if (m.arg_types.empty())
            return {Json::array()};
        std::vector<std::string> types(m.arg_types.begin(), m.arg_types.end());
        if (types == std::vector<std::string>{"string", "string", "string"}) {
            std::vector<Json> out;
            for (const Json &k : keys)
                out.push_back({k[0], k[1], ""});
            return out;
        }
        if (types == std::vector<std::string>{"string"})
            return components;
        return {};  // nothing known to ask it with
    }
};

// Reads "section/key" lines; "" or the problem, naming the line.
std::string readKeys(const std::string &file, std::vector<Json> &keys)
{
    std::ifstream in(file);
    if (!in)
        return file + ": cannot read";
    std::string line;
    for (int n = 1; std::getline(in, line); ++n) {
        if (!line.empty() && line.back() == '\r')
            line.pop_back();
        if (line.empty() || line[0] == '#')
            continue;
        std::size_t slash = line.find('/');
        if (slash == 0 || slash == std::string::npos || slash + 1 == line.size())
            return file + ":" + std::to_string(n) + ": expected SECTION/KEY, got \"" + line + "\"";
        // Kept as the document names them: the bytes in their JSON form.
        keys.push_back({hmisvc::tools::to_json_text(line.substr(0, slash)),
                        hmisvc::tools::to_json_text(line.substr(slash + 1))});
    }
    return "";
}

// Asks one question; false when the call failed or its answer did not decode.
bool ask(binder_connection *bs, uint32_t handle, uint32_t code, Json (*read)(binder_io &), const Json &args,
         Json &answer)
{
    std::vector<char> area(256 + hmisvc::tools::dump_json(args).size());
    binder_io msg, reply;
    bio_init(&msg, area.data(), static_cast<uint32_t>(area.size()), 4);
    bio_put_uint32(&msg, 0);
    for (const Json &a : args) {
        std::string bytes;
        if (a.is_string() && hmisvc::tools::from_json_text(a.get<std::string>(), bytes))
            bio_put_string(&msg, bytes.c_str());
        else
            bio_put_uint32(&msg, static_cast<uint32_t>(a.get<int32_t>()));
    }
    if (binder_call(bs, &msg, &reply, handle, code) != 0)
        return false;
    answer = read(reply);
    bool whole = !(reply.flags & BIO_FLAG_OVERFLOW) && reply.data_left == 0;
    binder_done(bs, &msg, &reply);
    return whole;
}

enum class Asked { kAnswered, kFailed, kLate };

// ask() on a thread of its own, given up after `limit`. The driver cannot
// take a call back: a late one leaves its thread waiting, on a connection
// that is then never closed, until the process ends.
Asked askWithin(binder_connection *bs, uint32_t handle, uint32_t code, Json (*read)(binder_io &), const Json &args,
                Json &answer, std::chrono::milliseconds limit)
{
    struct Call {
        std::mutex mutex;
        std::condition_variable done;
        bool finished = false, whole = false;
        Json answer;
    };
    auto call = std::make_shared<Call>();
    std::thread([=] {
        Json got;
        bool whole = ask(bs, handle, code, read, args, got);
        std::lock_guard<std::mutex> hold(call->mutex);
        call->finished = true, call->whole = whole, call->answer = std::move(got);
        call->done.notify_one();
    }).detach();
    std::unique_lock<std::mutex> hold(call->mutex);
    if (!call->done.wait_for(hold, limit, [&] { return call->finished; }))
        return Asked::kLate;
    answer = std::move(call->answer);
    return call->whole ? Asked::kAnswered : Asked::kFailed;
}

// Why the simulator would refuse `state` (its services section included),
// or "".
std::string refusal(const Json &state, const std::vector<Service> &services)
{
    hmisvc::devsim::Device scratch;
    std::vector<std::string> names;
    for (const Service &s : services)
        names.push_back(s.name);
    try {
        hmisvc::devsim::StateJson::service_states(state, names);
        hmisvc::devsim::StateJson::load(scratch, state);
    } catch (const hmisvc::devsim::JsonError &e) {
        return e.what();
    }
    return "";
}

// The state document of what the services answer, or the exit status.
int snapshot(const Questions &questions, const std::vector<Service> &services, std::chrono::milliseconds limit,
             Json &state)
{
    binder_connection *bs = binder_open(kMapSize);
    if (!bs)
        return kFailed;
    bool late = false;  // then the connection stays open for the calls still waiting
    std::unique_ptr<binder_connection, void (*)(binder_connection *)> hold(bs, binder_close);
    std::vector<std::string> names;
    if (hmisvc::tools::svcmgr_list(bs, names) == hmisvc::tools::ListResult::kCallFailed) {
        std::cerr << "hmisvc: no service manager answered" << std::endl;
        return kFailed;
    }
    state = Json::object();
    for (const Service &s : services) {
        uint32_t handle = svcmgr_lookup(bs, SVCMGR_HANDLE, s.name);
        if (!handle) {
            std::cerr << "hmisvc: " << s.name << " is not registered: recorded as absent" << std::endl;
            state["services"][s.name] = "absent";
            continue;
        }
        Json kept = Json::object();
        std::string why;  // why the service is recorded as failed
        for (uint32_t code = 0; code < s.methods.size() && why.empty(); ++code) {
            const Method &m = s.methods[code];
            if (!m.query || !m.keep)
                continue;
            for (const Json &args : questions.of(m)) {
                Json answer;
                Asked asked = askWithin(bs, handle, code, m.answer, args, answer, limit);
                if (asked == Asked::kLate) {
                    late = true;
                    why = std::string(m.name) + " did not answer within " + std::to_string(limit.count()) + " ms";
                } else if (asked == Asked::kFailed) {
                    why = std::string(m.name) + " failed";
                }
                if (!why.empty())
                    break;
                m.keep(kept, args, answer);
            }
        }
        // Answers the simulator could not hold (a status word read as a
        // value, say) are not written: the service is recorded as failing.
        if (why.empty())
            if (std::string refused = refusal(kept, services); !refused.empty())
                why = "answers the simulator cannot hold (" + refused + ")";
        if (!why.empty()) {
            std::cerr << "hmisvc: " << s.name << ": " << why << ": recorded as failed" << std::endl;
            state["services"][s.name] = "failed";  // nothing it answered is kept
        } else {
            state.update(kept, true);
        }
    }
    if (late)
        hold.release();
    // Each part loads; so must the whole, or nothing is written.
    if (std::string refused = refusal(state, services); !refused.empty()) {
        std::cerr << "hmisvc: the snapshot would not load into the simulator: " << refused << std::endl;
        return kFailed;
    }
    return kOk;
}

} // namespace

void addSnapshotCommand(CLI::App &app, Session &session)
{
    auto out = std::make_shared<std::string>();
    auto keysFile = std::make_shared<std::string>();
    CLI::App *cmd = app.add_subcommand(
        "snapshot", "Write every answer the services give without changing anything, as a state file for "
                    "hmisvc-devsim --state (absent and failing services included)");
    cmd->add_option("--out", *out, "Write to FILE instead of standard output");
    cmd->add_option("--settings-keys", *keysFile, "Settings to ask for: one SECTION/KEY per line")
        ->check(CLI::ExistingFile);
    auto callLimit = std::make_shared<double>(kCallLimitSeconds);
    cmd->add_option("--call-limit", *callLimit,
                    "Seconds each call may take; a service that answers later is recorded as failed")
        ->capture_default_str()
        ->check(CLI::Range(0.001, 3600.0));
    cmd->callback([out, keysFile, callLimit, &session] {
        Questions questions;
        if (!keysFile->empty()) {
            if (std::string why = readKeys(*keysFile, questions.keys); !why.empty()) {
                std::cerr << "hmisvc: --settings-keys " << why << std::endl;
                session.status = kUsage;
                return;
            }
        }
        // The simulator's table, over a device of its defaults: the methods
        // and the components whose versions it knows.
        hmisvc::devsim::Device defaults;
        for (const auto &[name, version] : defaults.system.versions)
            questions.components.push_back(Json::array({name}));
        std::vector<Service> services = hmisvc::devsim::make_services(defaults);
        Json state;
        auto limit = std::chrono::milliseconds(static_cast<long long>(*callLimit * 1000));
        if ((session.status = snapshot(questions, services, limit, state)) != kOk)
            return;
        std::string text = hmisvc::tools::dump_json(state, 2) + "\n";
        if (out->empty()) {
            std::cout << text;
            return;
        }
        std::ofstream file(*out);
        if (!(file << text) || !file.flush()) {
            std::cerr << "hmisvc: " << *out << ": cannot write" << std::endl;
            session.status = kFailed;
        }
    });
}

} // namespace cli
