// The command table of the hmisvc tool: one row per proxy method.
#ifndef HMISVC_CLI_COMMANDS_H
#define HMISVC_CLI_COMMANDS_H

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "output.h"

namespace cli {

// Int is any 32-bit signed number: `int` and `long` alike cross the wire as
// one 32-bit word. Bool is true/false/1/0.
enum class Type { Int, Text, Bool };

struct Arg {
    const char *name;
    Type type;
    const char *help;
};

// The arguments of one command as given, in the order of its Arg list;
// checked against their types before the command runs.
struct Values {
    std::vector<std::string> slots;
    int32_t num(size_t i) const { return int32_t(std::stol(slots.at(i))); }
    const std::string &text(size_t i) const { return slots.at(i); }
    bool flag(size_t i) const { return slots.at(i) == "true" || slots.at(i) == "1"; }
};

// Runs the call and says what to print.
using Invoke = std::function<Reply(const Values &)>;

struct Command {
    const char *group; // the subcommand group ("settings", "wifi", ...)
    const char *name;
    const char *help;
    std::vector<Arg> args;
    Invoke invoke;
};

// A subcommand group: one service.
struct Group {
    const char *name;
    const char *help;
};

const std::vector<Group> &groups();
const std::vector<Command> &commands();

} // namespace cli

#endif
