// The application under test, for hmisvc::testing: started, read, stopped.
#include <hmisvc/testing.h>

#include "exec.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <regex>

namespace hmisvc::testing {

App::App(const std::vector<std::string> &argv) : started_(std::chrono::steady_clock::now())
{
    for (const std::string &a : argv)
        command_ += (command_.empty() ? "" : " ") + a;
    int in[2], out[2];
    if (pipe2(in, O_CLOEXEC) != 0 || pipe2(out, O_CLOEXEC) != 0)
        throw Refused(std::string("pipe: ") + std::strerror(errno));
    // Writing to an application that ended fails the write, not the test program.
    signal(SIGPIPE, SIG_IGN);
    pid_ = fork();
    if (pid_ == 0) {
        setpgid(0, 0);
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        dup2(in[0], 0);
        dup2(out[1], 1);
        dup2(out[1], 2);
        detail::exec_argv(argv);
    }
    close(in[0]);
    close(out[1]);
    input_ = in[1];
    reader_ = std::thread(&App::read_output, this, out[0]);
}

App::~App() { stop(); }

void App::read_output(int fd)
{
    std::string partial;
    char buf[4096];
    for (;;) {
        ssize_t n = read(fd, buf, sizeof buf);
        if (n < 0 && errno == EINTR)
            continue;
        double at = std::chrono::duration<double>(std::chrono::steady_clock::now() - started_).count();
        std::lock_guard<std::mutex> lock(mutex_);
        if (n > 0)
            text_.append(buf, n), partial.append(buf, n);
        for (std::size_t eol; (eol = partial.find('\n')) != std::string::npos || (n <= 0 && !partial.empty());) {
            char stamp[32];
            std::snprintf(stamp, sizeof stamp, "  %8.3f | ", at);
            timed_ += stamp + partial.substr(0, eol) + "\n";
            partial.erase(0, eol == std::string::npos ? eol : eol + 1);
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
    const std::regex regex(pattern, std::regex::ECMAScript);
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(timeout_seconds);
    std::unique_lock<std::mutex> lock(mutex_);
    for (;;) {
        std::smatch m;
        auto from = text_.cbegin() + pos_;
        if (std::regex_search(from, text_.cend(), m, regex)) {
            pos_ += m.position(0) + m.length(0);
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

int App::stop()
{
    if (status_ < 0 && pid_ > 0) {
        int status = 0;
        kill(-pid_, SIGTERM);
        for (int tenths = 0; waitpid(pid_, &status, WNOHANG) == 0; ++tenths) {
            if (tenths == 50)
                kill(-pid_, SIGKILL);
            usleep(100000);
        }
        status_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        kill(-pid_, SIGKILL);  // what it started, keeping the output open
        close(input_);
        reader_.join();
    }
    return status_;
}

}  // namespace hmisvc::testing
