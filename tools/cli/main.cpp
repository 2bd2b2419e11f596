// hmisvc: the device's system services from the shell. The service commands
// come from the table in commands.cpp; broadcasts and playback, which take
// options or wait for events, are built here.
#include <condition_variable>
#include <cstdio>
#include <deque>
#include <exception>
#include <iostream>
#include <memory>
#include <mutex>

#include <CLI/CLI.hpp>

#include <hmisvc/broadcast.h>
#include <hmisvc/context.h>
#include <hmisvc/media.h>

#include "commands.h"
#include "sim.h"

namespace {

// Counts deliveries and wakes the main thread when the wanted number is in.
class Printer : public BroadcastReceiver {
public:
    explicit Printer(int wanted) : wanted_(wanted) {}
    void onReceive(BroadcastService *, std::shared_ptr<Intent> intent) override
    {
        std::lock_guard<std::mutex> lock(mutex_);
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
    int seen_ = 0;
};

void addBroadcast(CLI::App &app, int &status)
{
    CLI::App *group = app.get_subcommand("broadcast");

    struct Send {
        std::string action;
        std::vector<std::string> ints, strings; // KEY=VALUE each
    };
    auto send = std::make_shared<Send>();
    auto keyValue = CLI::Validator(
        [](std::string &s) { return s.find('=') == std::string::npos ? "expected KEY=VALUE" : ""; },
        "KEY=VALUE");
    CLI::App *cmd = group->add_subcommand("send", "Send a broadcast (no result to check)");
    cmd->add_option("ACTION", send->action, "Action of the intent")->required();
    cmd->add_option("--int", send->ints, "Integer extra KEY=VALUE (repeatable)")
        ->check(keyValue)
        ->allow_extra_args(false);
    cmd->add_option("--string", send->strings, "String extra KEY=VALUE (repeatable)")
        ->check(keyValue)
        ->allow_extra_args(false);
    cmd->callback([send, &status] {
        Intent intent(send->action);
        auto split = [](const std::string &kv) {
            size_t eq = kv.find('=');
            return std::make_pair(kv.substr(0, eq), kv.substr(eq + 1));
        };
        for (auto &kv : send->ints) {
            auto [k, v] = split(kv);
            size_t used = 0;
            int n = std::stoi(v, &used);
            if (used != v.size())
                throw std::invalid_argument("not an integer: " + v);
            intent.putExtra(k, n);
        }
        for (auto &kv : send->strings) {
            auto [k, v] = split(kv);
            intent.putExtra(k, v);
        }
        Context::SendBroadcast(intent);
        status = 0;
    });

    auto listen = std::make_shared<std::pair<std::vector<std::string>, int>>();
    cmd = group->add_subcommand("listen", "Print each broadcast of these actions as it arrives");
    cmd->add_option("ACTION", listen->first, "Actions to receive")->required();
    cmd->add_option("--count", listen->second, "Exit after N deliveries (default: run until interrupted)")
        ->check(CLI::PositiveNumber);
    cmd->callback([listen, &status] {
        // Filter and receiver stay registered for the rest of the process.
        auto *filter = new IntentFilter;
        for (auto &a : listen->first)
            filter->addAction(a);
        auto *printer = new Printer(listen->second);
        Context::CreateBroadcastService()->registerReceiver(printer, filter);
        std::cerr << "hmisvc: listening" << std::endl;
        printer->wait();
        status = 0;
    });
}

void addPlay(CLI::App &app, int &status)
{
    auto file = std::make_shared<std::string>();
    CLI::App *cmd = app.add_subcommand("play", "Play a WAV file and wait for the end");
    cmd->add_option("FILE", *file, "PCM WAV file")->required()->check(CLI::ExistingFile);
    cmd->callback([file, &status] {
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
        status = 0;
    });
}

} // namespace

int main(int argc, char **argv)
{
    CLI::App app{"Call the device's system services"};
    app.require_subcommand(1);
    app.footer("Exit status 1 when a call returned its failure value. Void calls, flags and\n"
               "`settings get` cannot tell a failure: look for \"Fail binder call\" on stdout.");
    int status = 0;

    // Storage for the parsed arguments: one Values per command, kept stable.
    std::deque<cli::Values> values;
    for (const cli::Group &g : cli::groups())
        app.add_subcommand(g.name, g.help)->require_subcommand(1);
    for (const cli::Command &c : cli::commands()) {
        CLI::App *cmd = app.get_subcommand(c.service)->add_subcommand(c.name, c.help);
        cli::Values &v = values.emplace_back();
        v.slots.resize(c.args.size());
        for (size_t i = 0; i < c.args.size(); ++i) {
            auto &slot = v.slots[i];
            CLI::Option *opt = nullptr;
            switch (c.args[i].type) {
            case cli::Type::Int: opt = cmd->add_option(c.args[i].name, slot.emplace<long>()); break;
            case cli::Type::Text: opt = cmd->add_option(c.args[i].name, slot.emplace<std::string>()); break;
            case cli::Type::Bool: opt = cmd->add_option(c.args[i].name, slot.emplace<bool>()); break;
            }
            opt->required();
        }
        cmd->callback([&c, &v, &status] { status = c.invoke(v); });
    }
    addBroadcast(app, status);
    addPlay(app, status);
    cli::addSim(app, status);

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError &e) {
        return app.exit(e);
    } catch (const std::exception &e) {
        std::cout << std::flush;
        std::cerr << "hmisvc: " << e.what() << std::endl;
        return 1;
    }
    std::cout << std::flush;
    return status;
}
