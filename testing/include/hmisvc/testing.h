// GoogleTest fixtures for testing an HMI application against the simulated
// device (hmisvc-devsim): a Device to steer it and read its call log, and
// DeviceTest, whose program starts the service manager and the simulator
// once (or uses the simulator already serving) and resets the device before
// each test.
//
// The verbs are the `hmisvc sim` commands. One the simulator refuses (an
// unknown service, method or key; the message names the nearest known
// names) fails the test at once: a failure is added with the simulator's
// words and Refused is thrown, which ends the test.
#ifndef HMISVC_TESTING_H
#define HMISVC_TESTING_H

#include <hmisvc/testing_page.h>

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <sys/types.h>
#include <thread>
#include <vector>

namespace hmisvc::testing {

// The simulator refused a request, or could not be reached.
class Refused : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// Filters of calls() and waitForCall(); empty ones, and since 0, filter nothing.
struct CallFilter {
    std::string service, method, program;
    uint64_t since = 0;
};

class Device {
public:
    // `hmisvc` as found: $HMISVC_CLI, else on PATH.
    Device();
    explicit Device(std::string hmisvc);

    // KEY is a dotted path into state(); VALUE is JSON ("40", "\"text\"").
    void set(const std::string &key, const std::string &json);
    // A whole or partial state document: JSON text, or the path of a file.
    void load(const std::string &document_or_path);
    // status 0 fails the transaction, another is the status reply; calls -1: until healed.
    void fail(const std::string &service, int calls = -1, int status = 0, int delay_ms = 0);
    void heal(const std::string &service);
    void publish(const std::string &service);
    void unpublish(const std::string &service);
    // The service's process dies at once (holders get its death
    // notification); back after restart_after_ms, or at restart() when below 0.
    void crash(const std::string &service, int restart_after_ms = -1);
    void restart(const std::string &service);
    void broadcast(const std::string &action, const std::map<std::string, int> &ints = {},
                   const std::map<std::string, std::string> &strings = {});
    // Answers as `hmisvc sim reply` takes them: JSON values, "fail", "status:N",
    // "delay:MS"; none empties the method's queue.
    void reply(const std::string &method, const std::vector<std::string> &answers);
    void reset();
    // A scenario (JSON text or a file's path); true when every expectation was
    // met, else false with a failure that lists the unmet ones.
    bool play(const std::string &scenario_or_path);
    // The dump, as JSON text.
    std::string state();
    // The call log (a JSON array of call objects).
    std::string calls(const CallFilter &filter = {});
    uint64_t mark();
    // The matching calls (a JSON array) once COUNT came; at the timeout a test
    // failure listing the calls that did come, and an empty string.
    std::string waitForCall(const std::string &method, const std::string &args_json = "", int count = 1,
                            const CallFilter &filter = {}, double timeout_seconds = 5.0);

private:
    struct Result {
        int status;
        std::string out, err;
    };
    // `hmisvc sim ARGS...`; statuses in `allowed` are returned, 2 fails the
    // test (Refused), any other throws Refused.
    Result sim(std::vector<std::string> args, std::vector<int> allowed = {0});

    std::string hmisvc_;
};

// The application under test: started with its standard output and error on
// one pipe, read as it prints (each line with its time, kept whole for the
// failure message). A small supervising process of its own (a child
// subreaper, with a parent-death signal on the thread that made the App)
// starts it in a process group of its own and, when the App stops or the
// test program dies however it died, kills every process it started, those
// that called setsid included. Make and end an App in the same thread. A Qt
// Quick application's page is page() (see hmisvc/testing_page.h).
class App {
public:
    explicit App(const std::vector<std::string> &argv);
    ~App();
    App(const App &) = delete;
    App &operator=(const App &) = delete;

    // Waits for PATTERN (an RE2 regular expression, matched within one line
    // at a time, in time linear in the output) in what it printed after the
    // last match: true; at the timeout, or when it ended without printing
    // it, a test failure with all it printed, and false.
    bool expect(const std::string &pattern, double timeout_seconds = 5.0);
    // Writes TEXT to its standard input.
    void send(const std::string &text);
    // Everything printed so far, one line each with its time.
    std::string output();
    // Ends it (SIGTERM to its group, 5 s later SIGKILL to every process it
    // started) and all it started; its exit status (128+N for signal N).
    // In a process the test program forked, it does nothing.
    int stop();
    pid_t pid() const { return pid_; }
    // Its Qt Quick page, reached on first use (waiting up to 10 s for it).
    Page &page();

private:
    friend class Page;
    void read_output(int fd);
    bool await_status(int timeout_ms);

    std::string command_;
    pid_t owner_ = -1, supervisor_ = -1, pid_ = -1;
    int input_ = -1, reports_ = -1;
    int status_ = -1;
    std::chrono::steady_clock::time_point started_;
    std::mutex mutex_;
    std::condition_variable changed_;
    std::string text_, timed_;
    std::size_t pos_ = 0;
    bool open_ = true, idle_ = false;
    std::thread reader_;
    int inspect_ = -1;
    std::string inspect_dir_;
    std::unique_ptr<Page> page_;
};

// A test of the application against the device: the device is reset before
// each test; the service manager and the simulator are started once for the
// program where no simulator serves yet (and stopped at its end).
class DeviceTest : public ::testing::Test {
public:
    static void SetUpTestSuite();

protected:
    void SetUp() override;
    Device device;
};

}  // namespace hmisvc::testing

#endif
