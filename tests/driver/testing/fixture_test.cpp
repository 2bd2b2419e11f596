// libhmisvc-testing on the real driver: DeviceTest starts the service
// manager and the simulator for the program, its verbs reach applications,
// each test starts from the device as it was, and a wrong name fails the
// test with the simulator's words.
#include <hmisvc/testing.h>

#include <gtest/gtest-spi.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <memory>
#include <sstream>
#include <string>
#include <thread>

namespace {

using hmisvc::testing::Refused;

// What an application (here `hmisvc` itself) prints and its exit status.
std::pair<int, std::string> app(const std::string &args)
{
    const char *cli = std::getenv("HMISVC_CLI");
    std::string command = std::string(cli ? cli : "hmisvc") + " " + args + " 2>&1";
    std::FILE *p = popen(command.c_str(), "r");
    std::string out;
    std::array<char, 256> buf;
    for (size_t n; p && (n = fread(buf.data(), 1, buf.size(), p)) > 0;)
        out.append(buf.data(), n);
    int status = p ? pclose(p) : -1;
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, out};
}

class Fixture : public hmisvc::testing::DeviceTest {};

// Running, not a zombie waiting for its parent.
bool alive(pid_t pid)
{
    char stat[512];
    int fd = open(("/proc/" + std::to_string(pid) + "/stat").c_str(), O_RDONLY);
    ssize_t n = fd < 0 ? -1 : read(fd, stat, sizeof stat - 1);  // fails once it ended
    if (fd >= 0)
        close(fd);
    if (n <= 0)
        return false;
    const std::string text(stat, n);
    return text[text.rfind(')') + 2] != 'Z';
}

// Ends on the pid's end; the bound is a failsafe.
bool ends(pid_t pid)
{
    for (auto bound = std::chrono::steady_clock::now() + std::chrono::seconds(60);
         alive(pid) && std::chrono::steady_clock::now() < bound;)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    return !alive(pid);
}

// Failures a call adds, caught; their messages. THROWN: whether it threw Refused.
template <typename Call> std::vector<std::string> failures_of(Call call, bool *thrown = nullptr)
{
    ::testing::TestPartResultArray failures;
    {
        ::testing::ScopedFakeTestPartResultReporter catcher(
            ::testing::ScopedFakeTestPartResultReporter::INTERCEPT_ONLY_CURRENT_THREAD, &failures);
        try {
            call();
        } catch (const Refused &) {
            if (thrown)
                *thrown = true;
        }
    }
    std::vector<std::string> messages;
    for (int i = 0; i < failures.size(); ++i)
        messages.push_back(failures.GetTestPartResult(i).message());
    return messages;
}

// An application that starts a process in a session of its own, which
// prints both pids once it is there: "pids APP SETSID".
const std::vector<std::string> kEscaping = {"sh", "-c", "setsid sh -c 'echo pids $PPID $$; exec sleep 600' & wait"};

std::vector<pid_t> pids_of(hmisvc::testing::App &app)
{
    EXPECT_TRUE(app.expect("pids [0-9]+ [0-9]+"));
    std::istringstream out(app.output().substr(app.output().find("pids ") + 5));
    pid_t a = 0, b = 0;
    out >> a >> b;
    return {a, b};
}

TEST_F(Fixture, VerbsReachApplications)
{
    device.set("backlight.brightness", "42");
    EXPECT_NE(app("backlight get").second.find("42"), std::string::npos);
    EXPECT_NE(device.state().find("\"brightness\": 42"), std::string::npos) << device.state();
    device.load(R"({"backlight": {"brightness": 7}})");
    EXPECT_NE(app("backlight get").second.find("7"), std::string::npos);

    device.fail("backlight", 1);
    EXPECT_NE(app("backlight get").first, 0);
    EXPECT_EQ(app("backlight get").first, 0);
    device.fail("backlight");
    EXPECT_NE(app("backlight get").first, 0);
    device.heal("backlight");
    EXPECT_EQ(app("backlight get").first, 0);

    device.unpublish("backlight");
    EXPECT_EQ(app("check backlight").first, 1);
    device.publish("backlight");
    EXPECT_EQ(app("check backlight").first, 0);

    device.crash("backlight");
    EXPECT_EQ(app("check backlight").first, 1);
    device.restart("backlight");
    EXPECT_NE(app("backlight get").second.find("7"), std::string::npos);  // the state outlives the process
}

// Leaves the device changed; the next test must not see it.
TEST_F(Fixture, ChangesEverything)
{
    device.set("backlight.brightness", "99");
    device.fail("backlight");
    device.unpublish("wifiinfo");
    device.crash("date");
}

TEST_F(Fixture, StartsFromTheDeviceAsItWas)
{
    EXPECT_EQ(device.state().find("\"brightness\": 99"), std::string::npos);
    EXPECT_EQ(app("backlight get").first, 0);
    EXPECT_EQ(app("check wifiinfo").first, 0);
    EXPECT_EQ(app("check date").first, 0);
}

// Documents go through private files: a file planted where the helper once
// wrote (a predictable name in $TMPDIR) is neither played nor written
// through, and a write that fails fails the test, naming it.
TEST_F(Fixture, DocumentsGoThroughPrivateFiles)
{
    const std::string tmp = std::getenv("TMPDIR") ? std::getenv("TMPDIR") : "/tmp";
    const std::string victim = tmp + "/hmisvc-testing-victim." + std::to_string(getpid());
    std::ofstream(victim) << "not yours";
    for (const char *name : {"state.json", "scenario.json"}) {
        std::string planted = tmp + "/hmisvc-testing." + std::to_string(getpid()) + "." + name;
        unlink(planted.c_str());
        ASSERT_EQ(symlink(victim.c_str(), planted.c_str()), 0) << planted;
    }
    device.load(R"({"backlight": {"brightness": 9}})");
    EXPECT_NE(device.state().find("\"brightness\": 9"), std::string::npos);
    EXPECT_TRUE(device.play(R"({"steps": [{"at": 0, "set": {"backlight.brightness": 12}}]})"));
    EXPECT_NE(device.state().find("\"brightness\": 12"), std::string::npos);
    std::ifstream left(victim);
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(left), std::istreambuf_iterator<char>()), "not yours");
    for (const char *name : {"state.json", "scenario.json"})
        unlink((tmp + "/hmisvc-testing." + std::to_string(getpid()) + "." + name).c_str());
    unlink(victim.c_str());

    // A file may not grow past 64 bytes: the document's write fails.
    signal(SIGXFSZ, SIG_IGN);
    rlimit was, small = {64, 64};
    getrlimit(RLIMIT_FSIZE, &was);
    small.rlim_max = was.rlim_max;
    setrlimit(RLIMIT_FSIZE, &small);
    const std::string big = R"({"backlight": {"brightness": 5}, "padding": ")" + std::string(200, 'x') + "\"}";
    auto failed = failures_of([&] { device.load(big); });
    setrlimit(RLIMIT_FSIZE, &was);
    ASSERT_EQ(failed.size(), 1u);
    EXPECT_NE(failed[0].find("cannot write the state document"), std::string::npos) << failed[0];
}

// A process the test program forks that calls exit() (as a death test's
// child does) leaves the service manager and the simulator serving.
TEST_F(Fixture, ForkedChildsExitStopsNothing)
{
    pid_t child = fork();
    if (child == 0)
        std::exit(0);
    int status = -1;
    waitpid(child, &status, 0);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(app("check devsim.control").first, 0);
    EXPECT_EQ(app("backlight get").first, 0);
}

TEST_F(Fixture, WrongNamesFailTheTestWithTheSimulatorsWords)
{
    struct Case {
        const char *what;
        void (*call)(hmisvc::testing::Device &);
        const char *named;
    };
    const Case cases[] = {
        {"set", [](hmisvc::testing::Device &d) { d.set("backlight.brightnes", "3"); }, "backlight.brightness"},
        {"fail", [](hmisvc::testing::Device &d) { d.fail("backlite"); }, "backlight"},
        {"unpublish", [](hmisvc::testing::Device &d) { d.unpublish("wifiinf"); }, "wifiinfo"},
        {"reply", [](hmisvc::testing::Device &d) { d.reply("SetBrightnes", {"true"}); }, "SetBrightness"},
        {"wait", [](hmisvc::testing::Device &d) { d.waitForCall("SetBrightnes"); }, "SetBrightness"},
    };
    for (const Case &c : cases) {
        bool thrown = false;
        auto failures = failures_of([&] { c.call(device); }, &thrown);
        EXPECT_TRUE(thrown) << c.what;
        ASSERT_EQ(failures.size(), 1u) << c.what;
        // The nearest known names follow the wrong one.
        const std::string &message = failures[0];
        const std::size_t nearest = message.find("nearest: ");
        EXPECT_NE(nearest, std::string::npos) << c.what << ": " << message;
        EXPECT_NE(message.find(c.named, nearest), std::string::npos) << c.what << ": " << message;
    }
}

}  // namespace

// The application under test: read as it prints, fed, and shown whole in
// the failure of an expect that cannot be met (it ended: at once).
TEST(App, ReadsFeedsAndShowsAllItPrinted)
{
    hmisvc::testing::App app({"sh", "-c", "echo to-out; echo to-err >&2; read line; echo got:$line; exit 3"});
    EXPECT_TRUE(app.expect("to-err"));
    app.send("ping\n");
    EXPECT_TRUE(app.expect("got:ping"));
    auto failures = failures_of([&] { EXPECT_FALSE(app.expect("to-err", 600)); });  // matched once already
    ASSERT_EQ(failures.size(), 1u);
    const std::string &message = failures[0];
    EXPECT_NE(message.find("it ended"), std::string::npos) << message;
    EXPECT_NE(message.find("| to-out"), std::string::npos) << message;
    EXPECT_EQ(app.stop(), 3);
}

// Every process an App started ends with it, one that called setsid too;
// the App's end returns.
TEST(App, EndsWithAllItStartedSetsidIncluded)
{
    std::vector<pid_t> pids;
    {
        hmisvc::testing::App app(kEscaping);
        pids = pids_of(app);
    }
    for (pid_t pid : pids)
        EXPECT_FALSE(alive(pid)) << pid;
}

// The test program killed, by SIGTERM or SIGKILL: what its App started goes
// with it (here the program is a forked child of this one).
TEST(App, EndsWithTheTestProgramKilled)
{
    for (int sig : {SIGTERM, SIGKILL}) {
        int report[2];
        ASSERT_EQ(pipe(report), 0);
        pid_t program = fork();
        if (program == 0) {
            hmisvc::testing::App app(kEscaping);
            std::vector<pid_t> pids = pids_of(app);
            (void)!write(report[1], pids.data(), sizeof(pid_t) * 2);
            pause();
            _exit(0);
        }
        close(report[1]);
        pid_t pids[2] = {0, 0};
        ASSERT_EQ(read(report[0], pids, sizeof pids), static_cast<ssize_t>(sizeof pids)) << strsignal(sig);
        close(report[0]);
        kill(program, sig);
        waitpid(program, nullptr, 0);
        for (pid_t pid : pids)
            EXPECT_TRUE(ends(pid)) << strsignal(sig) << ": " << pid << " outlived the test program";
    }
}

// expect: linear, without a recursion that a long line overflows; a prompt
// without a newline is found; a pattern that is none fails the test.
TEST(App, ExpectOnLongLinesPromptsAndBadPatterns)
{
    hmisvc::testing::App app({"sh", "-c", "head -c 30000 /dev/zero | tr '\\0' x; echo done; printf 'login: '; read x"});
    EXPECT_TRUE(app.expect(".*done"));
    EXPECT_TRUE(app.expect("^login: $"));
    auto failed = failures_of([&] { app.expect("(unclosed"); });
    ASSERT_EQ(failed.size(), 1u);
    EXPECT_NE(failed[0].find("not a regular expression"), std::string::npos) << failed[0];
}

// A Qt Quick page (QML_PANEL, where the build has one): a miss names the
// nearest items, a wait ends on the change or names what the property had,
// and an application that ended fails the test with its output.
TEST_F(Fixture, PageInspection)
{
    const char *panel = std::getenv("QML_PANEL");
    if (!panel || !*panel)
        GTEST_SKIP() << "no QML panel in this build";
    hmisvc::testing::App app({panel});
    struct Case {
        std::function<void()> call;
        const char *says;
    };
    const Case misses[] = {
        {[&] { app.page().find("brightnes"); }, "nearest: \"brightness\", \"brightnessLabel\""},
        {[&] { app.page().findText("Wi-Fi network"); }, "nearest: \"Wi-Fi networks\""},
        {[&] { app.page().find("brightness").get("valu"); }, "no property \"valu\"; nearest: \"value\""},
    };
    for (const Case &c : misses) {
        bool thrown = false;
        auto failed = failures_of(c.call, &thrown);
        EXPECT_TRUE(thrown);
        ASSERT_EQ(failed.size(), 1u);
        EXPECT_NE(failed[0].find(c.says), std::string::npos) << failed[0];
    }
    hmisvc::testing::Item label = app.page().find("brightnessLabel");
    ASSERT_TRUE(label.wait("text", "Brightness 80 of 100"));
    device.set("backlight.brightness", "30");
    EXPECT_TRUE(label.wait("text", "Brightness 30 of 100"));
    auto failed = failures_of([&] { EXPECT_FALSE(label.wait("text", "never", 0.2)); });
    ASSERT_EQ(failed.size(), 1u);
    EXPECT_NE(failed[0].find("text is \"Brightness 30 of 100\", not \"never\""), std::string::npos) << failed[0];

    hmisvc::testing::App gone({"sh", "-c", "echo bye; exit 3"});
    bool thrown = false;
    failed = failures_of([&] { gone.page(); }, &thrown);
    EXPECT_TRUE(thrown);
    ASSERT_EQ(failed.size(), 1u);
    EXPECT_NE(failed[0].find("ended with status 3"), std::string::npos) << failed[0];
    EXPECT_NE(failed[0].find("| bye"), std::string::npos) << failed[0];
}
