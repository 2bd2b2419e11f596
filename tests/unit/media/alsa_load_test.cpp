// The ALSA function table is filled once per process, on the first playback:
// this program holds that one test so that nothing has played before it.
#include <dlfcn.h>

#include <gtest/gtest.h>

#include "media_test_support.h"

namespace {

using namespace mediatest;

TEST(AlsaLoading, FirstPlaybackOfTheProcessLoadsTheLibrary)
{
    if (!alsa_available())
        GTEST_SKIP() << HMISVC_ALSA_LIBRARY << " cannot be loaded on this machine";
    const AlsaSink &sink = AlsaSink::instance();
    const std::string path = sink.put_file("short.wav", wav_file(1, 8000, 16, pattern(200)));
    const std::string line = format_line(8000, 1, 16, 200, 236);

    const TestPlayer::End loading = TestPlayer().play(path);
    ASSERT_TRUE(loading.arrived);
    void *handle = dlopen(HMISVC_ALSA_LIBRARY, RTLD_LAZY | RTLD_NOLOAD);
    ASSERT_NE(handle, nullptr);
    EXPECT_EQ(loading.output, handle_lines(handle) + line);

    // Another player shares the table: no second load.
    const TestPlayer::End loaded = TestPlayer().play(path);
    ASSERT_TRUE(loaded.arrived);
    EXPECT_EQ(loaded.output, line);
    EXPECT_EQ(sink.captured(), pattern(200));
    dlclose(handle);
}

} // namespace
