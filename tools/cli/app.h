// How command groups join the hmisvc tool: main.cpp calls one AddCommands
// function per group (see its table); each adds its subcommands to the app
// and reports through the Session.
#ifndef HMISVC_CLI_APP_H
#define HMISVC_CLI_APP_H

#include <string>

#include <CLI/CLI.hpp>

#include "output.h"

namespace cli {

// State of one run: the output form chosen and the exit status so far.
struct Session {
    bool json = false;
    int status = kOk;
    void finish(const Reply &reply) { status = print(reply, json); }
};

using AddCommands = void (*)(CLI::App &app, Session &session);

void addServiceCommands(CLI::App &app, Session &session); // the proxy table
void addBroadcastCommands(CLI::App &app, Session &session);
void addPlayCommand(CLI::App &app, Session &session);
void addSnapshotCommand(CLI::App &app, Session &session); // needs the simulator's library

// "" when `text` is a whole number within [min, max], else what is wrong
// with it (the range included).
std::string checkNumber(const std::string &text, long long min, long long max);
// Argument checks for CLI11: a 32-bit signed number (the wire's width for
// `int` and `long`), a number within [min, max], a boolean (true/false/1/0).
CLI::Validator int32();
CLI::Validator numberIn(long long min, long long max);
CLI::Validator boolean();

// A usage message for the first word of argv that names no group or command
// of `app` (with the closest names), or for a group given without its
// command (with the list); "" when the words lead to a command.
std::string checkWords(CLI::App &app, int argc, const char *const *argv);

} // namespace cli

#endif
