// hmisvc: the device's system services from the shell. Each group of
// commands joins through one entry of kGroups below.
#include <iostream>

#include <CLI/CLI.hpp>

#include "app.h"
#include "sim.h"

namespace {

// One line per group of commands; order is the order in --help.
const cli::AddCommands kGroups[] = {
    cli::addServiceCommands,
    cli::addBroadcastCommands,
    cli::addPlayCommand,
    cli::addSimCommands,
#ifdef HMISVC_SNAPSHOT
    cli::addSnapshotCommand,
#endif
};

const char kFooter[] =
    "Exit status: 0 success; 1 the call failed or the service is not reachable;\n"
    "2 usage error (nothing was sent); 3 the service refused (answered a non-zero\n"
    "status).\n"
    "\n"
    "Results go to stdout; the library's own lines (\"Fail binder call ...\") and\n"
    "failures to stderr. With --json a query prints one JSON value (records as\n"
    "objects, lists as arrays) and a command without a result prints nothing.\n"
    "Record fields are named after what the device simulator (hmisvc-devsim)\n"
    "keeps in them; the library fixes only their order (text1..text6, kind,\n"
    "value), so a real service may fill them differently.";

} // namespace

int main(int argc, char **argv)
{
    CLI::App app{"Call the device's system services over binder", "hmisvc"};
    app.require_subcommand(1);
    app.fallthrough();
    app.footer(kFooter);
    app.set_version_flag("--version", "hmisvc " HMISVC_VERSION);
    cli::Session session;
    app.add_flag("--json", session.json, "Print results as JSON");
    for (cli::AddCommands add : kGroups)
        add(app, session);

    if (std::string wrong = cli::checkWords(app, argc, argv); !wrong.empty()) {
        std::cerr << wrong << "\nRun with --help for more information." << std::endl;
        return cli::kUsage;
    }
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError &e) {
        // --help and --version end here too, with status 0.
        return app.exit(e) == 0 ? cli::kOk : cli::kUsage;
    }
    std::cout << std::flush;
    return session.status;
}
