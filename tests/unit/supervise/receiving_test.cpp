// A Receiving where no driver can be used (the build hosts): it keeps
// trying in the background and says so by its state, without a line of
// output, and its destructor does not wait for the next try.
#include <hmisvc/broadcast.h>
#include <hmisvc/receiving.h>

#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <chrono>

using namespace std::chrono_literals;

TEST(Receiving, WithoutADriverItWaitsQuietlyAndEndsAtOnce)
{
    const int fd = open("/dev/binder", O_RDWR | O_CLOEXEC);
    if (fd >= 0) {
        close(fd);
        GTEST_SKIP() << "a binder driver is usable here";
    }
    struct : BroadcastReceiver {
        void onReceive(BroadcastService *, std::shared_ptr<Intent>) override {}
    } receiver;
    IntentFilter filter;
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    auto receiving = std::make_unique<hmisvc::Receiving>();
    receiving->registerReceiver(&receiver, &filter);
    EXPECT_FALSE(receiving->start(50ms));
    EXPECT_EQ(receiving->state(), hmisvc::ReceivingState::Starting);
    EXPECT_NE(receiving->service(), nullptr);
    EXPECT_EQ(receiving->service()->receivers.count(&receiver), 1u);
    const auto start = std::chrono::steady_clock::now();
    receiving.reset(); // the endpoint waits 5 s between tries: woken
    EXPECT_LT(std::chrono::steady_clock::now() - start, 3s);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}
