// libhmisvc-testing on the real driver: DeviceTest starts the service
// manager and the simulator for the program, its verbs reach applications,
// each test starts from the device as it was, and a wrong name fails the
// test with the simulator's words.
#include <hmisvc/testing.h>

#include <gtest/gtest-spi.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

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
        ::testing::TestPartResultArray failures;
        bool thrown = false;
        {
            ::testing::ScopedFakeTestPartResultReporter catcher(
                ::testing::ScopedFakeTestPartResultReporter::INTERCEPT_ONLY_CURRENT_THREAD, &failures);
            try {
                c.call(device);
            } catch (const Refused &) {
                thrown = true;
            }
        }
        EXPECT_TRUE(thrown) << c.what;
        ASSERT_EQ(failures.size(), 1) << c.what;
        // The nearest known names follow the wrong one.
        const std::string message = failures.GetTestPartResult(0).message();
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
    ::testing::TestPartResultArray failures;
    {
        ::testing::ScopedFakeTestPartResultReporter catcher(
            ::testing::ScopedFakeTestPartResultReporter::INTERCEPT_ONLY_CURRENT_THREAD, &failures);
        EXPECT_FALSE(app.expect("to-err", 600));  // matched once already
    }
    ASSERT_EQ(failures.size(), 1);
    const std::string message = failures.GetTestPartResult(0).message();
    EXPECT_NE(message.find("it ended"), std::string::npos) << message;
    EXPECT_NE(message.find("| to-out"), std::string::npos) << message;
    EXPECT_EQ(app.stop(), 3);
}
