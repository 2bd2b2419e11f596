// The command table of the hmisvc tool: one row per proxy method.
#ifndef HMISVC_CLI_COMMANDS_H
#define HMISVC_CLI_COMMANDS_H

#include <functional>
#include <string>
#include <variant>
#include <vector>

namespace cli {

enum class Type { Int, Text, Bool };

struct Arg {
    const char *name;
    Type type;
};

// The parsed arguments of one command, in the order of its Arg list.
struct Values {
    std::vector<std::variant<long, std::string, bool>> slots;
    long num(size_t i) const { return std::get<long>(slots.at(i)); }
    const std::string &text(size_t i) const { return std::get<std::string>(slots.at(i)); }
    bool flag(size_t i) const { return std::get<bool>(slots.at(i)); }
};

// Runs the call, prints its result, returns the exit status.
using Invoke = std::function<int(const Values &)>;

struct Command {
    const char *service; // the subcommand group ("settings", "wifi", ...)
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
