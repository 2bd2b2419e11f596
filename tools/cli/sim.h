// The simulator's control commands (`hmisvc sim ...`) and the service
// manager's list (`hmisvc list`, `hmisvc check NAME`).
#ifndef HMISVC_CLI_SIM_H
#define HMISVC_CLI_SIM_H

#include <CLI/CLI.hpp>

#include "app.h"

namespace cli {

void addSimCommands(CLI::App &app, Session &session);

} // namespace cli

#endif
