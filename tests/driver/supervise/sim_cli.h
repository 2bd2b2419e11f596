// The `hmisvc sim` tool, where the build has it (HMISVC_CLI): crashes,
// restarts and failures of the simulator's services, for the supervised
// layer's tests.
#ifndef HMISVC_TESTS_SUPERVISE_SIM_CLI_H
#define HMISVC_TESTS_SUPERVISE_SIM_CLI_H

#include <cstdio>
#include <cstdlib>
#include <string>

// Runs `hmisvc sim ARGS`; its standard output, and whether it exited 0.
inline bool sim(const std::string &args, std::string *output = nullptr)
{
#ifdef HMISVC_CLI
    std::FILE *pipe = popen((std::string(HMISVC_CLI) + " sim " + args).c_str(), "r");
    if (pipe == nullptr)
        return false;
    std::string out;
    char chunk[4096];
    for (std::size_t n; (n = std::fread(chunk, 1, sizeof chunk, pipe)) > 0;)
        out.append(chunk, n);
    if (output != nullptr)
        *output = out;
    return pclose(pipe) == 0;
#else
    (void)args, (void)output;
    return false;
#endif
}

#endif
