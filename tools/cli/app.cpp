#include "app.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <deque>

#include "commands.h"
#include "edit_distance.h"

namespace cli {

std::string checkNumber(const std::string &text, long long min, long long max)
{
    const std::string range = "; expected " + std::to_string(min) + " to " + std::to_string(max);
    if (text.empty())
        return "a number is required, got an empty argument" + range;
    char *end = nullptr;
    errno = 0;
    long long n = std::strtoll(text.c_str(), &end, 10);
    if (std::isspace(static_cast<unsigned char>(text[0])) || *end != '\0')
        return "'" + text + "' is not a whole number" + range;
    if (errno == ERANGE || n < min || n > max)
        return "'" + text + "' is out of range" + range;
    return "";
}

CLI::Validator numberIn(long long min, long long max)
{
    return CLI::Validator([min, max](std::string &s) { return checkNumber(s, min, max); },
                          "NUMBER " + std::to_string(min) + ".." + std::to_string(max));
}

CLI::Validator int32() { return numberIn(INT32_MIN, INT32_MAX); }

CLI::Validator boolean()
{
    return CLI::Validator(
        [](std::string &s) {
            return s == "true" || s == "false" || s == "1" || s == "0"
                       ? std::string()
                       : "'" + s + "' is not a boolean; expected true, false, 1 or 0";
        },
        "true|false|1|0");
}

void addServiceCommands(CLI::App &app, Session &session)
{
    for (const Group &g : groups())
        app.add_subcommand(g.name, g.help)->require_subcommand(1);
    // Storage for the given arguments, one Values per command, kept stable.
    static std::deque<Values> values;
    for (const Command &c : commands()) {
        CLI::App *cmd = app.get_subcommand(c.group)->add_subcommand(c.name, c.help);
        Values &v = values.emplace_back();
        v.slots.resize(c.args.size());
        for (size_t i = 0; i < c.args.size(); ++i) {
            const Arg &a = c.args[i];
            CLI::Option *opt = cmd->add_option(a.name, v.slots[i], a.help)->required();
            if (a.type == Type::Int)
                opt->check(int32());
            else if (a.type == Type::Bool)
                opt->check(boolean());
        }
        cmd->callback([&c, &v, &session] { session.finish(c.invoke(v)); });
    }
}

namespace {

// Names within two edits of `word`, or that it begins, closest first.
std::string closest(const std::string &word, const std::vector<CLI::App *> &subs)
{
    std::vector<std::pair<size_t, std::string>> near;
    for (CLI::App *s : subs) {
        const std::string &name = s->get_name();
        size_t d = name.rfind(word, 0) == 0 ? 0 : hmisvc::tools::edit_distance(word, name);
        if (d <= 2)
            near.emplace_back(d, name);
    }
    std::sort(near.begin(), near.end());
    std::string list;
    for (size_t i = 0; i < near.size() && i < 3; ++i)
        list += (i ? ", '" : "'") + near[i].second + "'";
    return list.empty() ? "" : "; did you mean " + list + "?";
}

} // namespace

std::string checkWords(CLI::App &app, int argc, const char *const *argv)
{
    CLI::App *at = &app;
    std::string path = app.get_name();
    bool asksHelp = false;
    for (int i = 1; i < argc; ++i) {
        std::string word = argv[i];
        asksHelp = asksHelp || word == "-h" || word == "--help" || word == "--version";
        if (word.empty() || word[0] == '-')
            continue;
        auto subs = at->get_subcommands([](CLI::App *) { return true; });
        if (subs.empty())
            return "";
        auto found = std::find_if(subs.begin(), subs.end(), [&](CLI::App *s) { return s->check_name(word); });
        if (found == subs.end())
            return path + ": unknown " + (at == &app ? "command group" : "command") + " '" + word + "'" +
                   closest(word, subs);
        at = *found;
        path += " " + word;
    }
    auto subs = at->get_subcommands([](CLI::App *) { return true; });
    if (subs.empty() || asksHelp)
        return "";
    std::string names;
    for (CLI::App *s : subs)
        names += (names.empty() ? "" : ", ") + s->get_name();
    return path + ": a " + (at == &app ? "command group" : "command") + " is required, one of: " + names;
}

} // namespace cli
