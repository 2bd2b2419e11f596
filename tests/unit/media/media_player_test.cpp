#include <dlfcn.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <ostream>
#include <string>

#include <gtest/gtest.h>

#include "media/alsa_funcs.h"
#include "media_test_support.h"

namespace {

using namespace mediatest;

// Runs without libasound too: the handle is then null and so is every slot.
TEST(AlsaFuncsInit, OpensTheLibraryAndResolvesEverySlot)
{
    alsa_funcs table{};
    testing::internal::CaptureStdout();
    EXPECT_EQ(alsa_funcs_init(&table), 0);
    const std::string output = testing::internal::GetCapturedStdout();

    void *loaded = dlopen(HMISVC_ALSA_LIBRARY, RTLD_LAZY | RTLD_NOLOAD);
    EXPECT_EQ(table.handle, loaded);
    EXPECT_EQ(output, handle_lines(table.handle));
#define HMISVC_CHECK_SLOT(name) EXPECT_EQ(table.name != nullptr, loaded != nullptr) << #name;
    HMISVC_ALSA_FUNCTIONS(HMISVC_CHECK_SLOT)
#undef HMISVC_CHECK_SLOT
    if (loaded)
        dlclose(loaded);
}

class MediaPlayerTest : public testing::Test {
protected:
    void SetUp() override
    {
        if (!alsa_available())
            GTEST_SKIP() << HMISVC_ALSA_LIBRARY << " cannot be loaded on this machine";
        // Only the first playback of the process loads ALSA and prints the
        // loading lines; get that done so that each test sees its own lines.
        static const bool loaded = TestPlayer().play(sink().path("none.wav")).arrived;
        ASSERT_TRUE(loaded);
        sink().reset();
    }

    static const AlsaSink &sink() { return AlsaSink::instance(); }

    // Plays @p path and checks the end every playback has: the callback
    // with (0, the player).
    static std::string play_to_end(const std::string &path)
    {
        TestPlayer test;
        const TestPlayer::End end = test.play(path);
        EXPECT_TRUE(end.arrived);
        EXPECT_EQ(end.code, 0);
        EXPECT_EQ(end.reported, &test.player());
        return end.output;
    }
};

struct Stream {
    const char *name;
    unsigned bits;
    unsigned channels;
    unsigned rate;
    std::size_t frames;
    std::string trailer; // after the data chunk; played as sound all the same
};

void PrintTo(const Stream &s, std::ostream *os)
{
    *os << s.name;
}

// What the device must receive: every whole frame after the header, each
// sample in ALSA's container for its width. 24-bit data goes out as S24_LE,
// four bytes a sample read straight from the packed data (and past its end
// into the mapping's zero fill), so those rows stay within one period.
std::string device_bytes(const Stream &s, std::string played)
{
    const std::size_t frames = played.size() / (s.channels * s.bits / 8);
    const std::size_t container = s.bits == 24 ? 4 : s.bits / 8;
    const std::size_t size = frames * s.channels * container;
    played.resize(std::max(size, played.size()), '\0');
    return played.substr(0, size);
}

class StreamTest : public MediaPlayerTest, public testing::WithParamInterface<Stream> {};

TEST_P(StreamTest, DeviceGetsEveryWholeFrameAfterTheHeader)
{
    const Stream &s = GetParam();
    const std::string samples = pattern(s.frames * s.channels * s.bits / 8);
    const std::string file = wav_file(s.channels, s.rate, s.bits, samples, s.trailer);

    const std::string output = play_to_end(sink().put_file("stream.wav", file));
    EXPECT_EQ(output, format_line(s.rate, s.channels, s.bits, samples.size(), file.size() - 8));
    const std::string expected = device_bytes(s, samples + s.trailer);
    const std::string captured = sink().captured();
    ASSERT_EQ(captured.size(), expected.size());
    EXPECT_TRUE(captured == expected) << "the device received other bytes than the file's frames";
}

INSTANTIATE_TEST_SUITE_P(
    Formats, StreamTest,
    testing::Values(
        // 8 kHz gives 800-frame periods: exactly 25 of them.
        Stream{"U8Mono", 8, 1, 8000, 20000, ""},
        Stream{"U8StereoShortLastPeriod", 8, 2, 11025, 12345, ""},
        Stream{"S16Mono", 16, 1, 16000, 40001, ""},
        Stream{"S16StereoPartialLastFrame", 16, 2, 44100, 10000, "\x01\x02\x03"},
        Stream{"S16StereoChunkAfterData", 16, 2, 22050, 5000, std::string("LIST\x08\0\0\0INFOabcd", 16)},
        Stream{"S24Mono", 24, 1, 8000, 100, ""},
        Stream{"S24Stereo", 24, 2, 48000, 100, ""}),
    [](const testing::TestParamInfo<Stream> &info) { return info.param.name; });

// S24_LE reads 4 bytes a sample over the file's 3, a third past the data.
// The file ends on a page boundary, so the last write reads beyond the file's
// own pages: it must read the zero-filled reserve, not crash.
TEST_F(MediaPlayerTest, LongS24FilePlaysToTheEnd)
{
    const std::size_t data = 1535 * 4096 - 44; // whole stereo frames, about 6 MB
    const std::string file = wav_file(2, 48000, 24, pattern(data));
    ASSERT_EQ(file.size() % 4096, 0u);
    play_to_end(sink().put_file("long24.wav", file));
    EXPECT_EQ(sink().captured().size(), data / 6 * 8);
}

struct ShortFile {
    const char *name;
    std::size_t size; // first bytes of a 16-bit mono 8 kHz header
    std::string output;
    bool configured;
};

void PrintTo(const ShortFile &f, std::ostream *os)
{
    *os << f.name;
}

class ShortFileTest : public MediaPlayerTest, public testing::WithParamInterface<ShortFile> {};

// Up to 44 bytes: the header is read as far as it goes (zeros beyond), the
// device is opened, set up as far as the header allows and closed; nothing is
// written.
TEST_P(ShortFileTest, OpensTheDeviceAndPlaysNothing)
{
    const ShortFile &f = GetParam();
    const std::string file = wav_file(1, 8000, 16, "").substr(0, f.size);

    EXPECT_EQ(play_to_end(sink().put_file("short.wav", file)), f.output);
    EXPECT_EQ(sink().configured(), f.configured);
    EXPECT_EQ(sink().captured(), "");
}

INSTANTIATE_TEST_SUITE_P(
    UpToAHeader, ShortFileTest,
    testing::Values(
        ShortFile{"OneByte", 1, format_line(0, 0, 0, 0, 0) + "snd_pcm_hw_params_set_channels err\n", false},
        ShortFile{"NoSampleWidth", 30, format_line(8000, 1, 0, 0, 36), true},
        ShortFile{"HeaderOnly", 44, format_line(8000, 1, 16, 0, 36), true}),
    [](const testing::TestParamInfo<ShortFile> &info) { return info.param.name; });

// Files that cannot be opened or mapped end before the header line and the
// device, without a message.
TEST_F(MediaPlayerTest, UnreadableSourcesEndQuietly)
{
    const std::string sources[] = {sink().put_file("empty.wav", ""), sink().path("missing.wav"), ""};
    for (const std::string &source : sources) {
        SCOPED_TRACE("source \"" + source + "\"");
        EXPECT_EQ(play_to_end(source), "");
        EXPECT_FALSE(sink().configured());
    }
}

TEST_F(MediaPlayerTest, StopEndsPlaybackBeforeTheNextWrite)
{
    // The device writes into a pipe that the test drains at its own pace:
    // the player is held mid-file until it has been stopped.
    const std::string samples = pattern(1 << 20); // over two minutes at 8 kHz
    const std::string path = sink().put_file("long.wav", wav_file(1, 8000, 8, samples));
    ASSERT_EQ(mkfifo(sink().out().c_str(), 0600), 0);
    const int pipe = open(sink().out().c_str(), O_RDONLY | O_NONBLOCK);
    ASSERT_GE(pipe, 0);

    TestPlayer test;
    test.player().SetDataSource(path);
    testing::internal::CaptureStdout();
    test.start();
    pollfd ready{pipe, POLLIN, 0};
    ASSERT_EQ(poll(&ready, 1, 60000), 1) << "nothing written";
    test.player().Stop(); // written, so the loop runs

    fcntl(pipe, F_SETFL, 0);
    std::string received;
    char buffer[4096];
    for (ssize_t n; (n = read(pipe, buffer, sizeof buffer)) > 0;)
        received.append(buffer, n);
    close(pipe);
    unlink(sink().out().c_str());

    const TestPlayer::End end = test.wait();
    ASSERT_TRUE(end.arrived);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), format_line(8000, 1, 8, samples.size(), samples.size() + 36));
    EXPECT_EQ(end.code, 0);
    EXPECT_EQ(end.reported, &test.player());
    EXPECT_LT(received.size(), samples.size());
    EXPECT_TRUE(received == samples.substr(0, received.size())) << "not the file's first frames";
}

} // namespace
