// The rig's own check: a real binder driver is reachable and speaks the
// protocol version the library is written for.
#include <linux/android/binder.h>

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <gtest/gtest.h>

namespace {

class BinderSmoke : public ::testing::Test {
protected:
    void SetUp() override {
        fd_ = open("/dev/binder", O_RDWR | O_CLOEXEC);
        ASSERT_GE(fd_, 0) << "open /dev/binder: " << std::strerror(errno);
    }
    void TearDown() override {
        if (fd_ >= 0) close(fd_);
    }
    int fd_ = -1;
};

// 64-bit and 32-bit processes alike get version 8 from current kernels.
TEST_F(BinderSmoke, SpeaksProtocolVersion8) {
    binder_version version{};
    ASSERT_EQ(ioctl(fd_, BINDER_VERSION, &version), 0) << std::strerror(errno);
    EXPECT_EQ(version.protocol_version, 8);
}

// The driver hands out read-only mappings only; the library relies on both.
TEST_F(BinderSmoke, MapsReadOnlyButNotWritable) {
    const size_t size = 128 * 1024;
    void* ro = mmap(nullptr, size, PROT_READ, MAP_PRIVATE, fd_, 0);
    ASSERT_NE(ro, MAP_FAILED) << std::strerror(errno);
    munmap(ro, size);

    int other = open("/dev/binder", O_RDWR | O_CLOEXEC);
    ASSERT_GE(other, 0);
    EXPECT_EQ(mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE, other, 0), MAP_FAILED);
    close(other);
}

}  // namespace
