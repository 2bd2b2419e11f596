// Without a service manager no service is registered (and without a driver,
// as on the build hosts, none can be): the outcome each thread sees, and a
// supervised handle's answer on the caller's thread and on its worker.
#include <hmisvc/outcome.h>
#include <hmisvc/proxies.h>
#include <hmisvc/records.h>
#include <hmisvc/service.h>

#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <thread>
#include <vector>

using hmisvc::Outcome;
using namespace std::chrono_literals;

TEST(LastOutcome, IsThePerThreadOutcomeOfTheLastCall)
{
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    BacklightManager backlight;
    EXPECT_EQ(backlight.GetBrightness(), -1); // the designed failure value stays
    EXPECT_EQ(hmisvc::lastOutcome(), Outcome::NotRegistered);
    Outcome elsewhere = Outcome::TimedOut;
    std::thread([&] { elsewhere = hmisvc::lastOutcome(); }).join();
    EXPECT_EQ(elsewhere, Outcome::Ok);
    testing::internal::GetCapturedStderr();
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "Failed to find service: backlight\nFail binder call GetBrightness\n");
}

// What a supervised call says here: no driver, or no service manager.
Outcome unreachable()
{
    const int fd = open("/dev/binder", O_RDWR | O_CLOEXEC);
    if (fd < 0)
        return Outcome::NoDriver;
    close(fd);
    return Outcome::NotRegistered;
}

TEST(SupervisedService, AnUnreachableServiceIsAnOutcomeHereAndOnTheWorker)
{
    const Outcome expected = unreachable();
    std::vector<hmisvc::ServiceState> changes;
    hmisvc::ServiceOptions options;
    options.lookupLimit = 30ms;
    options.onStateChange = [&](hmisvc::ServiceState s) { changes.push_back(s); };
    hmisvc::Service<BacklightManager> backlight(options);
    testing::internal::CaptureStdout();

    const auto here = backlight.call(&BacklightManager::SetBrightness, 3);
    EXPECT_EQ(here.outcome(), expected);
    EXPECT_THROW(here.value(), hmisvc::CallError);
    EXPECT_EQ(here.valueOr(true), true);
    Date date;
    const auto worker = hmisvc::Service<DateManager>().callWithin(5s, &DateManager::GetTime, date);
    EXPECT_EQ(worker.outcome(), expected);
    EXPECT_EQ(hmisvc::lastOutcome(), expected);
    EXPECT_FALSE(backlight.connect(0ms));

    EXPECT_EQ(testing::internal::GetCapturedStdout(), ""); // no proxy was built, so no line
    EXPECT_EQ(backlight.state(), hmisvc::ServiceState::Down);
    EXPECT_EQ(changes, std::vector<hmisvc::ServiceState>{hmisvc::ServiceState::Down});
}
