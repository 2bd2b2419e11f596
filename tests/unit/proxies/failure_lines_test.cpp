// Failure lines written by threads at once each arrive whole. Without a
// driver every proxy is unusable, so every call prints its line.
#include <hmisvc/proxies.h>

#include <gtest/gtest.h>

#include <map>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

TEST(FailureLines, ConcurrentThreadsNeverInterleave)
{
    constexpr int kCalls = 2000;
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr(); // "binder: cannot open device" per proxy
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([t] {
            for (int i = 0; i < kCalls; ++i) {
                BacklightManager backlight; // its own "Failed to find service: " line
                t % 2 ? static_cast<void>(backlight.SetBrightness(1)) : static_cast<void>(backlight.GetMaxBrightness());
            }
        });
    for (std::thread &t : threads)
        t.join();
    testing::internal::GetCapturedStderr();
    std::istringstream out(testing::internal::GetCapturedStdout());

    std::map<std::string, int> lines;
    for (std::string line; std::getline(out, line);)
        ++lines[line];
    const std::map<std::string, int> expected{{"Failed to find service: backlight", 4 * kCalls},
                                              {"Fail binder call SetBrightness", 2 * kCalls},
                                              {"Fail binder call GetBrightness", 2 * kCalls}};
    EXPECT_EQ(lines, expected);
}
