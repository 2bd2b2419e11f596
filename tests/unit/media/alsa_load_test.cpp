// The ALSA function table is filled once per process, on the first playback:
// this program holds that one test so that nothing has played before it.
#include <dlfcn.h>

#include <cstdint>
#include <cstdio>

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

    TestPlayer first;
    const TestPlayer::Outcome loading = first.play(path);
    ASSERT_TRUE(loading.completed);
    void *handle = dlopen(HMISVC_ALSA_LIBRARY, RTLD_LAZY | RTLD_NOLOAD);
    ASSERT_NE(handle, nullptr);
    const auto shown = static_cast<unsigned>(reinterpret_cast<std::uintptr_t>(handle));
    char lines[80];
    std::snprintf(lines, sizeof lines, "handle = 0x%x\nafuncs->handle = %x\n", shown, shown);
    EXPECT_EQ(loading.output, lines + line);

    // Another player shares the table: no second load.
    TestPlayer second;
    const TestPlayer::Outcome loaded = second.play(path);
    ASSERT_TRUE(loaded.completed);
    EXPECT_EQ(loaded.output, line);
    EXPECT_EQ(sink.captured(), pattern(200));
    dlclose(handle);
}

} // namespace
