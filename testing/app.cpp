// The application under test, for hmisvc::testing: started under a
// supervising process, read, matched, stopped with all it started.
#include <hmisvc/testing.h>

#include "inspect.h"

#include <re2/re2.h>

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

namespace hmisvc::testing {

namespace {

// The supervisor is a fork of a test program that may have many threads: it
// makes only async-signal-safe calls, on what was prepared before the fork.
constexpr int kReports = 3;  // its pipe to the App: the application's pid, then its status

void say(const char *text) { (void)!write(2, text, std::strlen(text)); }

int exit_status(int code, int signal_number) { return signal_number ? 128 + signal_number : code; }

// Its children as the kernel lists them (zombies included); at most MAX.
std::size_t children(pid_t *out, std::size_t max)
{
    static char buf[65536];
    int fd = open("/proc/thread-self/children", O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return 0;
    ssize_t n = read(fd, buf, sizeof buf - 1);
    close(fd);
    std::size_t count = 0;
    pid_t pid = 0;
    for (ssize_t i = 0; i < n && count < max; ++i) {
        if (buf[i] >= '0' && buf[i] <= '9') {
            pid = pid * 10 + (buf[i] - '0');
        } else if (pid > 0) {
            out[count++] = pid;
            pid = 0;
        }
    }
    return count;
}

[[noreturn]] void supervise(pid_t runner, char *const *argv, char *const *envp, int in, int out, int reports)
{
    // The fds it keeps at 0-3, every other one of the test program closed.
    int keep[3] = {fcntl(in, F_DUPFD, 10), fcntl(out, F_DUPFD, 10), fcntl(reports, F_DUPFD, 10)};
    dup2(keep[0], 0);
    dup2(keep[1], 1);
    dup2(keep[1], 2);
    dup2(keep[2], kReports);
    if (close_range(kReports + 1, ~0U, 0) != 0)
        for (int fd = kReports + 1; fd < 1024; ++fd)
            close(fd);
    // A group of its own: a terminal's Ctrl-C to the test program's group
    // ends the program, whose death then ends this one's work.
    setpgid(0, 0);
    sigset_t handled, before;
    sigemptyset(&handled);
    for (int s : {SIGCHLD, SIGTERM, SIGINT, SIGHUP})
        sigaddset(&handled, s);
    sigprocmask(SIG_BLOCK, &handled, &before);
    signal(SIGCHLD, SIG_DFL);  // ignored, the kernel would reap for it
    // Whatever becomes of what the application starts comes back to it.
    prctl(PR_SET_CHILD_SUBREAPER, 1);
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    if (getppid() != runner)
        _exit(1);  // the program died already
    const pid_t app = fork();
    if (app == 0) {
        setpgid(0, 0);
        sigprocmask(SIG_SETMASK, &before, nullptr);
        signal(SIGPIPE, SIG_DFL);
        close(kReports);
        execvpe(argv[0], argv, envp);
        int error = errno;
        say(argv[0]);
        say(": ");
        say(strerrordesc_np(error));
        say("\n");
        _exit(127);
    }
    if (app < 0)
        _exit(1);
    (void)!write(kReports, &app, sizeof app);
    int null = open("/dev/null", O_RDWR);
    for (int fd = 0; fd < 3; ++fd)
        dup2(null, fd);
    close(null);

    bool reported = false;
    auto report = [&](int status) {
        if (!reported)
            (void)!write(kReports, &status, sizeof status);
        reported = true;
    };
    pid_t listed[4096];
    for (;;) {
        siginfo_t info;
        int s = sigwaitinfo(&handled, &info);
        if (s < 0)
            continue;
        if (s != SIGCHLD)
            break;
        // The application is left unreaped, so that its pid and group stay
        // its own while the App may signal them; orphans are reaped.
        siginfo_t ended{};
        if (!reported && waitid(P_PID, app, &ended, WEXITED | WNOHANG | WNOWAIT) == 0 && ended.si_pid == app)
            report(ended.si_code == CLD_EXITED ? ended.si_status : exit_status(0, ended.si_status));
        for (std::size_t i = 0, n = children(listed, 4096); i < n; ++i)
            if (listed[i] != app)
                waitpid(listed[i], nullptr, WNOHANG);
    }
    // The end: every process left, each layer as it comes back to it.
    for (;;) {
        for (std::size_t i = 0, n = children(listed, 4096); i < n; ++i)
            kill(listed[i], SIGKILL);
        int status;
        pid_t gone = waitpid(-1, &status, 0);
        if (gone < 0 && errno == EINTR)
            continue;
        if (gone < 0)
            break;
        if (gone == app)
            report(WIFEXITED(status) ? WEXITSTATUS(status) : exit_status(0, WTERMSIG(status)));
    }
    _exit(0);
}

}  // namespace

App::App(const std::vector<std::string> &argv) : owner_(getpid()), started_(std::chrono::steady_clock::now())
{
    std::vector<char *> args;
    for (const std::string &a : argv) {
        command_ += (command_.empty() ? "" : " ") + a;
        args.push_back(const_cast<char *>(a.c_str()));
    }
    args.push_back(nullptr);
    inspect_ = detail::inspect_listener(inspect_dir_);
    const std::vector<std::string> environment = detail::inspect_environment(inspect_dir_);
    std::vector<char *> envp;
    for (const std::string &e : environment)
        envp.push_back(const_cast<char *>(e.c_str()));
    envp.push_back(nullptr);
    int in[2], out[2], reports[2];
    if (pipe2(in, O_CLOEXEC) != 0 || pipe2(out, O_CLOEXEC) != 0 || pipe2(reports, O_CLOEXEC) != 0)
        throw Refused(std::string("pipe: ") + std::strerror(errno));
    // Writing to an application that ended fails the write, not the test program.
    signal(SIGPIPE, SIG_IGN);
    supervisor_ = fork();
    if (supervisor_ == 0)
        supervise(owner_, args.data(), envp.data(), in[0], out[1], reports[1]);
    for (int fd : {in[0], out[1], reports[1]})
        close(fd);
    input_ = in[1];
    reports_ = reports[0];
    ssize_t n;
    while ((n = read(reports_, &pid_, sizeof pid_)) < 0 && errno == EINTR) {
    }
    if (supervisor_ < 0 || n != sizeof pid_) {
        int error = errno;
        if (supervisor_ > 0)
            waitpid(supervisor_, nullptr, 0);
        for (int fd : {in[1], out[0], reports[0]})
            close(fd);
        detail::inspect_close(inspect_, inspect_dir_);
        throw Refused("'" + command_ + "' could not be started (" + std::strerror(error) + ")");
    }
    reader_ = std::thread(&App::read_output, this, out[0]);
}

App::~App() { stop(); }

void App::read_output(int fd)
{
    std::string partial;
    static constexpr std::size_t kChunk = 65536;
    std::vector<char> buf(kChunk);
    for (;;) {
        ssize_t n = read(fd, buf.data(), buf.size());
        if (n < 0 && errno == EINTR)
            continue;
        double at = std::chrono::duration<double>(std::chrono::steady_clock::now() - started_).count();
        std::lock_guard<std::mutex> lock(mutex_);
        if (n > 0)
            text_.append(buf.data(), n), partial.append(buf.data(), n);
        // Less than a full read: the pipe is empty for now.
        idle_ = n < static_cast<ssize_t>(kChunk);
        std::size_t from = 0;
        for (std::size_t eol; (eol = partial.find('\n', from)) != std::string::npos; from = eol + 1) {
            char stamp[32];
            std::snprintf(stamp, sizeof stamp, "  %8.3f | ", at);
            timed_.append(stamp).append(partial, from, eol - from).append("\n");
        }
        partial.erase(0, from);
        if (n <= 0 && !partial.empty()) {
            char stamp[32];
            std::snprintf(stamp, sizeof stamp, "  %8.3f | ", at);
            timed_.append(stamp).append(partial).append("\n");
        }
        if (n <= 0)
            open_ = false;
        changed_.notify_all();
        if (n <= 0)
            break;
    }
    close(fd);
}

bool App::expect(const std::string &pattern, double timeout_seconds)
{
    const RE2 regex(pattern, RE2::Quiet);
    if (!regex.ok()) {
        ADD_FAILURE() << "expect: /" << pattern << "/ is not a regular expression: " << regex.error();
        return false;
    }
    // Each line is searched once, when it is whole; the unfinished last one
    // when the application paused, or when it has doubled since it was last
    // searched: each byte is looked at a bounded number of times.
    auto found = [&](std::size_t from, std::size_t to) {
        re2::StringPiece line(text_.data() + from, to - from), match;
        if (!regex.Match(line, 0, line.size(), RE2::UNANCHORED, &match, 1))
            return false;
        pos_ = from + (match.data() - line.data()) + match.size();
        return true;
    };
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(timeout_seconds);
    std::unique_lock<std::mutex> lock(mutex_);
    std::size_t line = pos_, unfinished = 0;
    for (;;) {
        for (std::size_t eol; (eol = text_.find('\n', line)) != std::string::npos; line = eol + 1, unfinished = 0)
            if (found(line, eol))
                return true;
        const std::size_t tail = text_.size() - line;
        if (tail > unfinished && (idle_ || !open_ || tail >= 2 * unfinished)) {
            unfinished = tail;
            if (found(line, text_.size()))
                return true;
        }
        if (!open_ || changed_.wait_until(lock, deadline) == std::cv_status::timeout)
            break;
    }
    ADD_FAILURE() << "'" << command_ << "' (pid " << pid_ << ") did not print /" << pattern << "/ ("
                  << (open_ ? "not within " + std::to_string(timeout_seconds) + " s" : std::string("it ended"))
                  << "); it printed:\n"
                  << (timed_.empty() ? "  (nothing)\n" : timed_);
    return false;
}

void App::send(const std::string &text)
{
    for (std::size_t done = 0; done < text.size();) {
        ssize_t n = write(input_, text.data() + done, text.size() - done);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0) {
            ADD_FAILURE() << "'" << command_ << "': its input is closed (" << std::strerror(errno) << ")";
            return;
        }
        done += n;
    }
}

std::string App::output()
{
    std::lock_guard<std::mutex> lock(mutex_);
    return timed_;
}

bool App::await_status(int timeout_ms)
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    for (;;) {
        int left = static_cast<int>(
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now()).count());
        pollfd p = {reports_, POLLIN, 0};
        int ready = poll(&p, 1, timeout_ms < 0 ? -1 : std::max(left, 0));
        if (ready < 0 && errno == EINTR)
            continue;
        if (ready <= 0)
            return false;
        int status;
        ssize_t n = read(reports_, &status, sizeof status);
        if (n < 0 && errno == EINTR)
            continue;
        if (n == sizeof status)
            status_ = status;
        return n == sizeof status;
    }
}

int App::stop()
{
    // A process the test program forked (a death test, a helper that exits)
    // leaves what the program started alone.
    if (getpid() != owner_ || supervisor_ <= 0)
        return status_;
    if (status_ < 0) {
        // The application stays unreaped until the supervisor ends, so its
        // pid and group are still its own.
        kill(-pid_, SIGTERM);
        kill(pid_, SIGTERM);
        await_status(5000);
    }
    kill(supervisor_, SIGTERM);
    if (status_ < 0)
        await_status(-1);
    while (waitpid(supervisor_, nullptr, 0) < 0 && errno == EINTR) {
    }
    supervisor_ = -1;
    page_.reset();
    detail::inspect_close(inspect_, inspect_dir_);
    close(reports_);
    close(input_);
    reader_.join();
    return status_;
}

}  // namespace hmisvc::testing
