// The simulator's control commands (`hmisvc sim ...`) and the service
// manager's list (`hmisvc list`, `hmisvc check NAME`).
#ifndef HMISVC_CLI_SIM_H
#define HMISVC_CLI_SIM_H

#include <CLI/CLI.hpp>

namespace cli {

void addSim(CLI::App &app, int &status);

} // namespace cli

#endif
