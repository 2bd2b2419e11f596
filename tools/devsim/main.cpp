// hmisvc-devsim: the device's system services simulated on a PC, so that an
// HMI application can run against the library without the device.
#include "services.h"

#include <hmisvc/binder.h>

#include <CLI/CLI.hpp>

#include <cstdio>
#include <string>
#include <vector>

namespace {

using hmisvc::devsim::Service;
using hmisvc::devsim::Simulator;

// binder_loop, unlike binder_loop2, gives each reply a 40 KB area, which the
// Wi-Fi scan list needs; its handler takes no argument of ours.
Simulator *g_simulator = nullptr;

int serve(binder_connection *, binder_transaction_data *txn, binder_io *msg, binder_io *reply)
{
    return g_simulator->handle(*txn, *msg, *reply);
}

}  // namespace

int main(int argc, char **argv)
{
    CLI::App app{"Simulates the device's system services over the binder driver."};
    std::string settings_file;
    std::string record_file;
    std::vector<std::string> only;
    bool verbose = false;
    app.add_option("--settings", settings_file, "INI file the settings are loaded from and saved to");
    app.add_option("--record", record_file,
                   "Append one line per request: <service> <code> <request bytes in hex>");
    app.add_option("--services", only, "Publish only these services (comma-separated)")->delimiter(',');
    app.add_flag("-v,--verbose", verbose, "Trace every request on stderr");
    CLI11_PARSE(app, argc, argv);

    hmisvc::devsim::Device device(settings_file);
    if (std::string err = device.settings.load(); !err.empty()) {
        std::fprintf(stderr, "hmisvc-devsim: %s\n", err.c_str());
        return 1;
    }
    std::FILE *record = nullptr;
    if (!record_file.empty() && !(record = std::fopen(record_file.c_str(), "a"))) {
        std::perror(record_file.c_str());
        return 1;
    }
    Simulator simulator(device, record, verbose ? stderr : nullptr);

    std::vector<const Service *> published;
    for (const Service &s : simulator.services())
        published.push_back(&s);
    if (!only.empty()) {
        published.clear();
        for (const std::string &name : only) {
            const Service *s = simulator.find(name);
            if (!s) {
                std::fprintf(stderr, "hmisvc-devsim: no service named \"%s\"\n", name.c_str());
                return 1;
            }
            published.push_back(s);
        }
    }

    binder_connection *bs = binder_open(128 * 1024);
    if (!bs)
        return 1;
    device.broadcasts.attach(bs);
    for (const Service *s : published) {
        if (svcmgr_publish(bs, SVCMGR_HANDLE, s->name, const_cast<Service *>(s)) != 0) {
            std::fprintf(stderr, "hmisvc-devsim: cannot publish \"%s\" (is a service manager running?)\n",
                         s->name);
            binder_close(bs);
            return 1;
        }
    }
    std::printf("hmisvc-devsim: ready\n");
    std::fflush(stdout);

    g_simulator = &simulator;
    binder_loop(bs, serve);
    // The loop returns only when the driver failed; it has said why.
    binder_close(bs);
    return 1;
}
