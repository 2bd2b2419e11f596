// The commands that take options or wait for events: broadcast send and
// listen, and playback.
#include <condition_variable>
#include <dlfcn.h>
#include <iostream>
#include <map>
#include <memory>
#include <mutex>
#include <sstream>

#include <cereal/archives/binary.hpp>
#include <cereal/types/map.hpp>
#include <cereal/types/string.hpp>

#include <hmisvc/broadcast.h>
#include <hmisvc/context.h>
#include <hmisvc/media.h>
#include <hmisvc/proxies.h>

#include "app.h"
#include "json_text.h"

namespace cli {
namespace {

// An intent as JSON, read back from its encoding: the class has no way to
// list its extras.
Json intentJson(Intent &intent)
{
    std::string action;
    std::map<std::string, int> ints;
    std::map<std::string, std::string> strings;
    std::istringstream in(intent.toString());
    cereal::BinaryInputArchive archive(in);
    archive(action, ints, strings);
    return {{"action", action}, {"ints", ints}, {"strings", strings}};
}

// Prints each delivery and wakes the main thread when the wanted number is in.
class Printer : public BroadcastReceiver {
public:
    Printer(int wanted, bool json) : wanted_(wanted), json_(json) {}
    void onReceive(BroadcastService *, std::shared_ptr<Intent> intent) override
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (json_)
            std::cout << hmisvc::tools::dump_json(hmisvc::tools::encode_strings(intentJson(*intent))) << '\n';
        else
            intent->printExtras();
        std::cout << std::flush;
        ++seen_;
        done_.notify_all();
    }
    void wait()
    {
        std::unique_lock<std::mutex> lock(mutex_);
        done_.wait(lock, [this] { return wanted_ > 0 && seen_ >= wanted_; });
    }

private:
    std::mutex mutex_;
    std::condition_variable done_;
    int wanted_;
    bool json_;
    int seen_ = 0;
};

// KEY=VALUE with a name; for --int the value a 32-bit number.
CLI::Validator extra(bool number)
{
    return CLI::Validator(
        [number](std::string &kv) -> std::string {
            size_t eq = kv.find('=');
            if (eq == std::string::npos || eq == 0)
                return "'" + kv + "' is not KEY=VALUE";
            if (!number)
                return "";
            std::string wrong = checkNumber(kv.substr(eq + 1), INT32_MIN, INT32_MAX);
            return wrong.empty() ? "" : "extra '" + kv.substr(0, eq) + "': " + wrong;
        },
        number ? "KEY=NUMBER" : "KEY=TEXT");
}

} // namespace

void addBroadcastCommands(CLI::App &app, Session &session)
{
    CLI::App *group = app.get_subcommand("broadcast");

    struct Send {
        std::string action;
        std::vector<std::string> ints, strings; // KEY=VALUE each
    };
    auto send = std::make_shared<Send>();
    CLI::App *cmd = group->add_subcommand("send", "Send a broadcast to every listening endpoint");
    cmd->add_option("ACTION", send->action, "Action of the intent")->required();
    cmd->add_option("--int", send->ints, "Integer extra KEY=VALUE, 32-bit (repeatable)")
        ->check(extra(true))
        ->allow_extra_args(false);
    cmd->add_option("--string", send->strings, "String extra KEY=VALUE (repeatable)")
        ->check(extra(false))
        ->allow_extra_args(false);
    cmd->callback([send, &session] {
        Intent intent(send->action);
        for (auto &kv : send->ints) {
            size_t eq = kv.find('=');
            intent.putExtra(kv.substr(0, eq), int(std::stol(kv.substr(eq + 1))));
        }
        for (auto &kv : send->strings) {
            size_t eq = kv.find('=');
            intent.putExtra(kv.substr(0, eq), kv.substr(eq + 1));
        }
        session.finish(callService(BroadcastManager::SERVICE_NAME, [&] {
            Context::SendBroadcast(intent);
            return done();
        }));
    });

    auto listen = std::make_shared<std::pair<std::vector<std::string>, int>>();
    cmd = group->add_subcommand("listen", "Print each broadcast of these actions as it arrives "
                                          "(with --json one object a line)");
    cmd->add_option("ACTION", listen->first, "Actions to receive (one or more)")->required();
    cmd->add_option("--count", listen->second, "Exit after N deliveries (default: run until interrupted)")
        ->check(numberIn(1, INT32_MAX));
    cmd->callback([listen, &session] {
        // Without the driver or the broadcast service nothing would ever come.
        if (Reply r = reachable(BroadcastManager::SERVICE_NAME); r.status != kOk)
            return session.finish(r);
        // Filter and receiver stay registered for the rest of the process.
        auto *filter = new IntentFilter;
        for (auto &a : listen->first)
            filter->addAction(a);
        auto *printer = new Printer(listen->second, session.json);
        Context::CreateBroadcastService()->registerReceiver(printer, filter);
        std::cerr << "hmisvc: listening" << std::endl;
        printer->wait();
        session.status = kOk;
    });
}

void addPlayCommand(CLI::App &app, Session &session)
{
    auto file = std::make_shared<std::string>();
    CLI::App *cmd = app.add_subcommand("play", "Play a WAV file and wait for the end");
    cmd->add_option("FILE", *file, "PCM WAV file")->required()->check(CLI::ExistingFile);
    cmd->callback([file, &session] {
        // The player's design ends the process when libasound cannot be
        // opened; the tool tries it first and says so instead.
        void *alsa = dlopen(HMISVC_ALSA_LIBRARY, RTLD_NOW | RTLD_LOCAL);
        if (!alsa) {
            const char *why = dlerror();
            std::cerr << "hmisvc: failed: cannot play: " << (why ? why : HMISVC_ALSA_LIBRARY) << '\n';
            session.status = kFailed;
            return;
        }
        dlclose(alsa);
        MediaPlayer player;
        std::mutex mutex;
        std::condition_variable cv;
        bool finished = false;
        player.SetDataSource(*file);
        player.SetOnCompletionCallback([&](int, MediaPlayer *) {
            std::lock_guard<std::mutex> lock(mutex);
            finished = true;
            cv.notify_all();
        });
        player.Start();
        std::unique_lock<std::mutex> lock(mutex);
        cv.wait(lock, [&] { return finished; });
        session.status = kOk;
    });
}

} // namespace cli
