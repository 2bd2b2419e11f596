#include "process.h"

#include <dirent.h>

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <ctime>
#include <fstream>

namespace peer {

namespace {

// Boots under emulation are slow; a child that has not said it is ready
// within this time has gone wrong.
constexpr int READY_TIMEOUT_MS = 60000;

std::unique_ptr<Child> service_manager;
std::unique_ptr<Child> devsim;

// Runs `args` in place of this process; where the tests themselves run
// under a user-mode emulator (a device build on this host), through the
// program HMISVC_TEST_EMULATOR names, which runs the device's programs.
void exec_program(std::vector<std::string> args)
{
    if (const char *emulator = std::getenv("HMISVC_TEST_EMULATOR"); emulator && *emulator)
        args.insert(args.begin(), emulator);
    std::vector<char *> argv;
    for (auto &a : args)
        argv.push_back(a.data());
    argv.push_back(nullptr);
    execv(argv[0], argv.data());
}

}  // namespace

Child::Child(std::function<int(int ready_fd)> body)
{
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0)
        return;
    pid_ = fork();
    if (pid_ == 0) {
        close(fds[0]);
        _exit(body(fds[1]));
    }
    close(fds[1]);
    if (pid_ > 0) {
        pollfd p{fds[0], POLLIN, 0};
        char byte;
        ready_ = poll(&p, 1, READY_TIMEOUT_MS) == 1 && read(fds[0], &byte, 1) == 1;
    }
    close(fds[0]);
}

void Child::kill()
{
    if (pid_ <= 0)
        return;
    ::kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
    pid_ = -1;
}

bool start_service_manager(const char *path)
{
    service_manager = std::make_unique<Child>([path](int) {
        exec_program({path, "--verbose"});
        return 127;
    });
    // It answers once it is the context manager; before that a call to
    // handle 0 fails at once. Any well-formed reply will do, even a refusal.
    Connection bs(binder_open(4096));
    if (!bs)
        return false;
    return eventually([&] {
        char area[64];
        binder_io msg, reply;
        bio_init(&msg, area, sizeof area, 4);
        bio_put_uint32(&msg, 0);
        if (binder_call(bs.get(), &msg, &reply, SVCMGR_HANDLE, SVCMGR_CODE_LOOKUP) != 0)
            return false;
        binder_done(bs.get(), &msg, &reply);
        return true;
    });
}

void stop_service_manager()
{
    devsim.reset();
    service_manager.reset();
}

bool start_devsim(std::vector<std::string> argv)
{
    if (!devsim)
        devsim = start_program(std::move(argv));
    return devsim->ready();
}

bool stop_devsim(std::vector<std::string> names)
{
    devsim.reset();
    return eventually([&] {
        for (const auto &name : names)
            if (service_found(name.c_str()))
                return false;
        return true;
    });
}

std::unique_ptr<Child> start_program(std::vector<std::string> args)
{
    return std::make_unique<Child>([args](int ready_fd) {
        dup2(ready_fd, STDOUT_FILENO);
        exec_program(args);
        return 127;
    });
}

bool service_found(const char *name)
{
    Connection bs(binder_open(1024));
    return bs && svcmgr_lookup(bs.get(), SVCMGR_HANDLE, name) != 0;
}

bool eventually(const std::function<bool()> &pred, int tries)
{
    for (int i = 0; i < tries; ++i) {
        if (pred())
            return true;
        timespec pause{0, 10 * 1000 * 1000};
        nanosleep(&pause, nullptr);
    }
    return false;
}

int threads_of(const std::string &process)
{
    std::ifstream status("/proc/" + process + "/status");
    for (std::string line; std::getline(status, line);)
        if (line.rfind("Threads:", 0) == 0)
            return std::atoi(line.c_str() + 8);
    return -1;
}

int descriptors_of(const std::string &process)
{
    DIR *dir = opendir(("/proc/" + process + "/fd").c_str());
    if (dir == nullptr)
        return -1;
    int n = 0;
    while (const dirent *entry = readdir(dir))
        n += entry->d_name[0] != '.';
    closedir(dir);
    return n - (process == "self"); // the directory's own
}

bool stop_process(int pid)
{
    if (kill(pid, SIGSTOP) != 0)
        return false;
    const std::string tasks = "/proc/" + std::to_string(pid) + "/task";
    return eventually([&] {
        DIR *dir = opendir(tasks.c_str());
        if (!dir)
            return false;
        bool all = true;
        while (const dirent *entry = readdir(dir)) {
            if (entry->d_name[0] == '.')
                continue;
            // "tid (comm) S ...": the state follows the last ')'.
            std::ifstream stat(tasks + "/" + entry->d_name + "/stat");
            std::string line;
            std::getline(stat, line);
            std::size_t close = line.rfind(')');
            all = all && close != std::string::npos && close + 2 < line.size() && line[close + 2] == 'T';
        }
        closedir(dir);
        return all;
    });
}

}  // namespace peer
