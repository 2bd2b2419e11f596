// A copy of the test program run as a child with one flag set in its
// environment, for cases that need a process of their own.
#ifndef HMISVC_TESTS_SUPERVISE_SELF_CHILD_H
#define HMISVC_TESTS_SUPERVISE_SELF_CHILD_H

#include <spawn.h>
#include <sys/types.h>
#include <unistd.h> // environ

#include <string>
#include <vector>

// Starts this program again with `flag`=1 added to the environment; the
// child's pid, or -1.
inline pid_t spawn_self(const char *flag)
{
    std::vector<char *> env;
    for (char **e = environ; *e != nullptr; ++e)
        env.push_back(*e);
    std::string set = std::string(flag) + "=1";
    env.push_back(set.data());
    env.push_back(nullptr);
    char self[] = "/proc/self/exe";
    char *argv[] = {self, nullptr};
    pid_t pid = -1;
    return posix_spawn(&pid, self, nullptr, nullptr, argv, env.data()) == 0 ? pid : -1;
}

#endif
