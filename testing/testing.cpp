#include <hmisvc/testing.h>

#include "exec.h"

#include <nlohmann/json.hpp>

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <sstream>

namespace hmisvc::testing {

namespace {

std::string from_env(const char *variable, const char *fallback)
{
    const char *v = std::getenv(variable);
    return v && *v ? v : fallback;
}

// Starts ARGV with its standard output (and error) on pipes when asked;
// the child gets SIGKILL should this process die first.
pid_t start(const std::vector<std::string> &argv, int *out, int *err)
{
    int o[2] = {-1, -1}, e[2] = {-1, -1};
    if ((out && pipe2(o, O_CLOEXEC) != 0) || (err && pipe2(e, O_CLOEXEC) != 0))
        throw Refused(std::string("pipe: ") + std::strerror(errno));
    pid_t pid = fork();
    if (pid == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        int null = open("/dev/null", O_RDWR);
        dup2(null, 0);
        dup2(out ? o[1] : null, 1);
        dup2(err ? e[1] : null, 2);
        detail::exec_argv(argv);
    }
    for (int fd : {o[1], e[1]})
        if (fd >= 0)
            close(fd);
    if (out)
        *out = o[0];
    if (err)
        *err = e[0];
    return pid;
}

// Runs ARGV to its end: its status (128+N for signal N), output and errors.
int run(const std::vector<std::string> &argv, std::string &out, std::string &err)
{
    int fds[2];
    pid_t pid = start(argv, &fds[0], &fds[1]);
    std::string *into[2] = {&out, &err};
    pollfd polled[2] = {{fds[0], POLLIN, 0}, {fds[1], POLLIN, 0}};
    for (int open = 2; open > 0;) {
        if (poll(polled, 2, -1) < 0 && errno != EINTR)
            break;
        for (int i = 0; i < 2; ++i) {
            if (polled[i].fd < 0 || !polled[i].revents)
                continue;
            char buf[4096];
            ssize_t n = read(polled[i].fd, buf, sizeof buf);
            if (n > 0) {
                into[i]->append(buf, n);
            } else if (n == 0 || errno != EINTR) {
                close(polled[i].fd);
                polled[i].fd = -1;
                --open;
            }
        }
    }
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

// The service manager and simulator the test program started, stopped
// when it ends: the program, not a process it forked that calls exit() (a
// death test, a helper), whose exit runs this too.
struct Started {
    std::vector<pid_t> pids;
    pid_t owner = getpid();
    std::string driver_dir; // the private driver's socket directory, if one was started
    ~Started()
    {
        if (getpid() != owner)
            return;
        for (auto p = pids.rbegin(); p != pids.rend(); ++p) {
            kill(*p, SIGTERM);
            waitpid(*p, nullptr, 0);
        }
        std::error_code ignored; // its socket, and the service manager's names beside it
        if (!driver_dir.empty())
            std::filesystem::remove_all(driver_dir, ignored);
    }
};

// No driver here (no /dev/binder, no userspace driver named): a private
// hmisvc-binderd for the program, as hmisvc-run would start, named to this
// process and everything it starts.
void start_driver(Started &started)
{
    std::string dir = from_env("TMPDIR", "/tmp") + "/hmisvc-driver.XXXXXX";
    if (!mkdtemp(dir.data()))
        throw Refused("cannot make a directory for the binder driver's socket: " + dir + ": " + std::strerror(errno));
    started.driver_dir = dir;
    const std::string socket = dir + "/binder", binderd = from_env("HMISVC_BINDERD", "hmisvc-binderd");
    int fd = -1;
    started.pids.push_back(start({binderd, "--socket", socket}, &fd, nullptr));
    // It says its socket once it listens there; its output stays open.
    std::string said;
    char c;
    while (read(fd, &c, 1) == 1 && c != '\n')
        said += c;
    if (said != socket)
        throw Refused(binderd + " did not serve on " + socket +
                      " (install hmisvc-tools, or set HMISVC_BINDERD to the driver)");
    setenv("HMISVC_BINDER_SOCKET", socket.c_str(), 1);
}

void start_simulator(const std::string &hmisvc)
{
    static Started started;
    std::string out, err;
    if (run({hmisvc, "check", "devsim.control"}, out, err) == 0)
        return;  // one serves already
    // A userspace binder driver (HMISVC_BINDER_SOCKET) serves in its stead.
    const char *userspace = std::getenv("HMISVC_BINDER_SOCKET");
    if ((!userspace || !*userspace) && access("/dev/binder", R_OK | W_OK) != 0)
        start_driver(started);
    started.pids.push_back(start({from_env("HMISVC_SERVICEMANAGER", "hmisvc-servicemanager")}, nullptr, nullptr));
    // The simulator gives up at once while the service manager does not
    // serve yet: a few tries, each ending on its "ready" or its end.
    for (int attempt = 0; attempt < 50; ++attempt) {
        int fd = -1;
        pid_t sim = start({from_env("HMISVC_DEVSIM", "hmisvc-devsim")}, &fd, nullptr);
        std::string said;
        char buf[256];
        for (ssize_t n; said.find("ready") == std::string::npos && (n = read(fd, buf, sizeof buf)) > 0;)
            said.append(buf, n);
        close(fd);
        if (said.find("ready") != std::string::npos) {
            started.pids.push_back(sim);
            return;
        }
        waitpid(sim, nullptr, 0);
        run({hmisvc, "list"}, out, err);  // a moment for the service manager
    }
    throw Refused("the simulator did not come up");
}

// A document written for a request into a directory of its own (mode
// 0700, an unguessable name, under $TMPDIR or /tmp), removed after it; a
// path is used as it is.
struct Written {
    std::string dir, path;
    Written(const std::string &document_or_path, const char *name);
    ~Written()
    {
        if (!path.empty())
            unlink(path.c_str());
        if (!dir.empty())
            rmdir(dir.c_str());
    }
    Written(const Written &) = delete;
    Written &operator=(const Written &) = delete;
};

Written::Written(const std::string &document_or_path, const char *name)
{
    std::size_t first = document_or_path.find_first_not_of(" \t\r\n");
    if (first == std::string::npos || (document_or_path[first] != '{' && document_or_path[first] != '[')) {
        path = document_or_path;
        return;
    }
    auto refuse = [&](const std::string &what) {
        std::string message = "cannot write the " + std::string(name) + " document: " + what + ": " +
                              std::strerror(errno);
        if (!dir.empty())
            rmdir(dir.c_str());
        ADD_FAILURE() << message;
        throw Refused(message);
    };
    std::string tmp = from_env("TMPDIR", "/tmp") + "/hmisvc-testing.XXXXXX";
    if (!mkdtemp(tmp.data()))
        refuse(tmp);
    dir = tmp;
    std::string file = dir + "/" + name + ".XXXXXX.json";
    int fd = mkstemps(file.data(), 5);
    if (fd < 0)
        refuse(file);
    const std::string written = file;
    for (std::size_t done = 0; done < document_or_path.size();) {
        ssize_t n = write(fd, document_or_path.data() + done, document_or_path.size() - done);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0) {
            close(fd);
            unlink(written.c_str());
            refuse(written);
        }
        done += n;
    }
    if (close(fd) != 0) {
        unlink(written.c_str());
        refuse(written);
    }
    path = written;
}

}  // namespace

Device::Device() : Device(from_env("HMISVC_CLI", "hmisvc")) {}
Device::Device(std::string hmisvc) : hmisvc_(std::move(hmisvc)) {}

Device::Result Device::sim(std::vector<std::string> args, std::vector<int> allowed)
{
    args.insert(args.begin(), {hmisvc_, "sim"});
    Result r;
    r.status = run(args, r.out, r.err);
    for (int ok : allowed)
        if (r.status == ok)
            return r;
    std::string message = "hmisvc sim " + args[2] + ": " + (r.err.empty() ? r.out : r.err);
    if (r.status == 2)
        ADD_FAILURE() << message;
    throw Refused(message);
}

void Device::set(const std::string &key, const std::string &json) { sim({"set", key, json}); }

void Device::load(const std::string &document_or_path)
{
    Written document(document_or_path, "state");
    sim({"load", document.path});
}

void Device::fail(const std::string &service, int calls, int status, int delay_ms)
{
    std::vector<std::string> args = {"fail", service, "--status", std::to_string(status)};
    if (calls >= 0)
        args.insert(args.end(), {"--calls", std::to_string(calls)});
    if (delay_ms > 0)
        args.insert(args.end(), {"--delay-ms", std::to_string(delay_ms)});
    sim(args);
}

void Device::heal(const std::string &service) { sim({"heal", service}); }
void Device::publish(const std::string &service) { sim({"publish", service}); }
void Device::unpublish(const std::string &service) { sim({"unpublish", service}); }
void Device::crash(const std::string &service, int restart_after_ms)
{
    std::vector<std::string> args{"crash", service};
    if (restart_after_ms >= 0)
        args.insert(args.end(), {"--restart-after", std::to_string(restart_after_ms)});
    sim(args);
}
void Device::restart(const std::string &service) { sim({"restart", service}); }

void Device::broadcast(const std::string &action, const std::map<std::string, int> &ints,
                       const std::map<std::string, std::string> &strings)
{
    std::vector<std::string> args = {"broadcast", action};
    for (const auto &[k, v] : ints)
        args.insert(args.end(), {"--int", k + "=" + std::to_string(v)});
    for (const auto &[k, v] : strings)
        args.insert(args.end(), {"--string", k + "=" + v});
    sim(args);
}

void Device::reply(const std::string &method, const std::vector<std::string> &answers)
{
    std::vector<std::string> args = {"reply", method};
    if (answers.empty())
        args.push_back("--clear");
    args.insert(args.end(), answers.begin(), answers.end());
    sim(args);
}

void Device::reset()
{
    Result r = sim({"reset"}, {0, 2});
    if (r.status == 0)
        return;
    // A simulator without `sim reset`: the services that fail or are
    // unpublished (the dump lists them) healed and published, then the state
    // it had when the program first saw it.
    static const std::string start = state();
    if (r.err.find("reset") == std::string::npos)
        sim({"reset"});
    nlohmann::json now = nlohmann::json::parse(state());
    if (now.contains("services"))
        for (const auto &[name, how] : now["services"].items())
            sim({how == "failed" ? "heal" : "publish", name});
    load(start);
}

bool Device::play(const std::string &scenario_or_path)
{
    Written document(scenario_or_path, "scenario");
    Result r = sim({"play", document.path}, {0, 1});
    if (r.status == 1)
        ADD_FAILURE() << "scenario not met:\n" << r.out << r.err;
    return r.status == 0;
}

std::string Device::state() { return sim({"dump"}).out; }

namespace {
std::vector<std::string> filters(const CallFilter &f)
{
    std::vector<std::string> args;
    for (const auto &[option, value] : {std::pair<const char *, std::string>{"--service", f.service},
                                        {"--method", f.method}, {"--program", f.program}})
        if (!value.empty())
            args.insert(args.end(), {option, value});
    if (f.since)
        args.insert(args.end(), {"--since", std::to_string(f.since)});
    return args;
}
}  // namespace

std::string Device::calls(const CallFilter &filter)
{
    std::vector<std::string> args = {"calls", "--json"};
    for (std::string &a : filters(filter))
        args.push_back(std::move(a));
    return sim(args).out;
}

uint64_t Device::mark() { return std::stoull(sim({"mark"}).out); }

std::string Device::waitForCall(const std::string &method, const std::string &args_json, int count,
                                const CallFilter &filter, double timeout_seconds)
{
    std::vector<std::string> args = {"wait-call", method, "--json", "--count", std::to_string(count),
                                     "--timeout", std::to_string(timeout_seconds)};
    if (!args_json.empty())
        args.insert(args.end(), {"--args", args_json});
    CallFilter rest = filter;
    rest.method.clear();
    for (std::string &a : filters(rest))
        args.push_back(std::move(a));
    Result r = sim(args, {0, 1});
    if (r.status == 0)
        return r.out;
    ADD_FAILURE() << count << " call(s) of " << method << (args_json.empty() ? "" : " with arguments " + args_json)
                  << " expected within " << timeout_seconds << " s; the calls that came: " << r.out;
    return {};
}

void DeviceTest::SetUpTestSuite()
{
    start_simulator(from_env("HMISVC_CLI", "hmisvc"));
    Device().reset();  // the device as it started, before any test changed it
}

void DeviceTest::SetUp() { device.reset(); }

}  // namespace hmisvc::testing
