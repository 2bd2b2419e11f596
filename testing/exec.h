// In a forked child: runs ARGV, or says why not and ends with 127.
#ifndef HMISVC_TESTING_EXEC_H
#define HMISVC_TESTING_EXEC_H

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

namespace hmisvc::testing::detail {

[[noreturn]] inline void exec_argv(const std::vector<std::string> &argv)
{
    std::vector<char *> args;
    for (const std::string &a : argv)
        args.push_back(const_cast<char *>(a.c_str()));
    args.push_back(nullptr);
    execvp(args[0], args.data());
    dprintf(2, "%s: %s\n", args[0], std::strerror(errno));
    _exit(127);
}

}  // namespace hmisvc::testing::detail

#endif
