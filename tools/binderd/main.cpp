// hmisvc-binderd: a binder driver in userspace, serving the driver's
// protocol over a Unix socket to processes whose binder layer is pointed at
// it (HMISVC_BINDER_SOCKET), where the host has no /dev/binder.
#include "engine.h"
#include "seam_wire.h"
#include "session.h"

#include <CLI/CLI.hpp>

#include <dirent.h>
#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

// A directory of our own for the socket, removed again at exit.
std::string private_dir()
{
    const char *base = std::getenv("XDG_RUNTIME_DIR");
    std::string templ = std::string(base && *base ? base : "/tmp") + "/hmisvc-binderd.XXXXXX";
    if (!mkdtemp(templ.data()))
        return {};
    return templ;
}

// The private directory and what the session left in it (the service
// manager keeps its names beside the socket).
void remove_private_dir(const std::string &dir)
{
    if (DIR *d = opendir(dir.c_str())) {
        while (const dirent *e = readdir(d))
            if (std::strcmp(e->d_name, ".") != 0 && std::strcmp(e->d_name, "..") != 0)
                unlink((dir + "/" + e->d_name).c_str());
        closedir(d);
    }
    rmdir(dir.c_str());
}

// The command's process, to whose processes an ending signal is passed on:
// the session then ends and we end with it. A shell defers its traps while
// it waits for a child, so each descendant gets it, not just the command.
volatile sig_atomic_t command_pid = 0;

// Appends `v` in decimal at `at`; the end.
char *put_number(char *at, long v)
{
    char digits[24];
    int n = 0;
    do
        digits[n++] = static_cast<char>('0' + v % 10);
    while ((v /= 10) > 0);
    while (n > 0)
        *at++ = digits[--n];
    return at;
}

char *put_text(char *at, const char *text)
{
    while (*text)
        *at++ = *text++;
    return at;
}

// Sends `sig` to `pid`'s descendants, then to `pid`: open, read and kill
// only, as a signal handler may.
void signal_tree(pid_t pid, int sig, int depth)
{
    char path[96];
    char *at = put_text(path, "/proc/");
    at = put_number(at, pid);
    at = put_text(at, "/task/");
    at = put_number(at, pid);
    *put_text(at, "/children") = 0;
    char list[512];
    ssize_t got = 0;
    const int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd >= 0) {
        got = read(fd, list, sizeof list - 1);
        close(fd);
    }
    long child = 0;
    for (ssize_t i = 0; depth < 16 && i < got; ++i) {
        if (list[i] >= '0' && list[i] <= '9') {
            child = child * 10 + (list[i] - '0');
        } else if (child > 0) {
            signal_tree(static_cast<pid_t>(child), sig, depth + 1);
            child = 0;
        }
    }
    kill(pid, sig);
}

void pass_on(int sig)
{
    if (command_pid > 0)
        signal_tree(command_pid, sig, 0);
}

int run(const std::vector<std::string> &command, const std::string &socket)
{
    setenv(hmisvc::binder::seam::kSocketEnv, socket.c_str(), 1);
    const pid_t parent = getpid();
    const pid_t pid = fork();
    if (pid == 0) {
        // Should we die however we die (SIGKILL included), the command hears.
        prctl(PR_SET_PDEATHSIG, SIGTERM);
        if (getppid() != parent)
            _exit(128 + SIGTERM);
        std::vector<char *> argv;
        for (const auto &arg : command)
            argv.push_back(const_cast<char *>(arg.c_str()));
        argv.push_back(nullptr);
        execvp(argv[0], argv.data());
        std::fprintf(stderr, "hmisvc-binderd: cannot run %s (%s)\n", argv[0], std::strerror(errno));
        _exit(127);
    }
    return pid;
}

} // namespace

int main(int argc, char **argv)
{
    CLI::App app{"A binder driver in userspace: serves the binder protocol on a Unix socket to "
                 "processes whose HMISVC_BINDER_SOCKET names it. With a command, runs it "
                 "against a private driver and exits with its status."};
    std::string socket;
    int bits = HMISVC_BINDERD_DEFAULT_BITS;
    std::vector<std::string> command;
    app.add_option("--socket", socket,
                   "Socket to listen on; its directory must be one only this user can enter "
                   "(default with a command: a private directory of its own)");
    app.add_option("--protocol", bits, "Protocol width: 64, or 32 (the device's)")
        ->check(CLI::IsMember({32, 64}));
    app.add_option("command", command, "Command to run against this driver (after --)");
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError &e) {
        // --help is no error; any other bad usage is status 2.
        return app.exit(e) == 0 ? 0 : 2;
    }
    if (socket.empty() && command.empty()) {
        std::fprintf(stderr, "hmisvc-binderd: give --socket, a command, or both\n");
        return 2;
    }

    std::string dir;
    if (socket.empty()) {
        dir = private_dir();
        if (dir.empty()) {
            std::fprintf(stderr, "hmisvc-binderd: cannot make a private directory (%s)\n",
                         std::strerror(errno));
            return 1;
        }
        socket = dir + "/binder";
    }
    std::string error;
    const int listener = binderd::listen_on(socket, error);
    if (listener < 0) {
        std::fprintf(stderr, "hmisvc-binderd: %s\n", error.c_str());
        if (!dir.empty())
            rmdir(dir.c_str());
        return 1;
    }
    std::signal(SIGPIPE, SIG_IGN);
    auto driver = binderd::make_engine(bits);

    int status = 0;
    if (command.empty()) {
        std::printf("%s\n", socket.c_str());
        std::fflush(stdout);
        binderd::serve(*driver, listener, -1);
    } else {
        // Our caller's death (SIGKILL included) ends the command, and so us.
        prctl(PR_SET_PDEATHSIG, SIGTERM);
        struct sigaction sa{};
        sa.sa_handler = pass_on;
        sigemptyset(&sa.sa_mask);
        for (const int sig : {SIGTERM, SIGINT, SIGHUP})
            sigaction(sig, &sa, nullptr);
        const pid_t pid = run(command, socket);
        command_pid = pid;
        const int pidfd = static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
        if (pid < 0 || pidfd < 0) {
            std::fprintf(stderr, "hmisvc-binderd: cannot start the command (%s)\n",
                         std::strerror(errno));
            status = 1;
        } else {
            binderd::serve(*driver, listener, pidfd);
            int ws = 0;
            waitpid(pid, &ws, 0);
            status = WIFEXITED(ws) ? WEXITSTATUS(ws) : 128 + WTERMSIG(ws);
        }
    }
    unlink(socket.c_str());
    if (!dir.empty())
        remove_private_dir(dir);
    return status;
}
