#include "media_test_support.h"

#include <dlfcn.h>
#include <stdlib.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <condition_variable>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <mutex>
#include <stdexcept>

#include <gtest/gtest.h>

namespace mediatest {

namespace {

void put_le(std::string &out, std::uint32_t value, int width)
{
    for (int i = 0; i < width; ++i)
        out.push_back(static_cast<char>(value >> (8 * i)));
}

void write_file(const std::string &path, const std::string &contents)
{
    std::ofstream(path, std::ios::binary | std::ios::trunc) << contents;
}

} // namespace

std::string pattern(std::size_t size)
{
    std::string bytes(size, '\0');
    for (std::size_t i = 0; i < size; ++i)
        bytes[i] = static_cast<char>((i * 131 + i / 251 + 7) & 0xff);
    return bytes;
}

std::string wav_file(unsigned channels, unsigned rate, unsigned bits, const std::string &samples,
                     const std::string &trailer)
{
    const unsigned frame = channels * bits / 8;
    std::string wav = "RIFF";
    put_le(wav, 36 + samples.size() + trailer.size(), 4);
    wav += "WAVEfmt ";
    put_le(wav, 16, 4);
    put_le(wav, 1, 2); // PCM
    put_le(wav, channels, 2);
    put_le(wav, rate, 4);
    put_le(wav, rate * frame, 4);
    put_le(wav, frame, 2);
    put_le(wav, bits, 2);
    wav += "data";
    put_le(wav, samples.size(), 4);
    return wav + samples + trailer;
}

std::string format_line(unsigned rate, unsigned channels, unsigned bits, std::size_t wav_size,
                        std::size_t file_size)
{
    char line[160];
    std::snprintf(line, sizeof line,
                  "wav format: fs = %u, channels = %u, bits_per_sample = %u, wav_size = %zu file_size = %zu\n\r",
                  rate, channels, bits, wav_size, file_size);
    return line;
}

std::string handle_lines(void *handle)
{
    const auto shown = static_cast<unsigned>(reinterpret_cast<std::uintptr_t>(handle));
    char lines[80];
    std::snprintf(lines, sizeof lines, "handle = 0x%x\nafuncs->handle = %x\n", shown, shown);
    return lines;
}

bool alsa_available()
{
    return dlopen(HMISVC_ALSA_LIBRARY, RTLD_LAZY) != nullptr;
}

AlsaSink &AlsaSink::instance()
{
    static AlsaSink sink;
    return sink;
}

AlsaSink::AlsaSink()
{
    std::string dir = (std::filesystem::temp_directory_path() / "hmisvc-media-XXXXXX").string();
    if (!mkdtemp(dir.data()))
        throw std::runtime_error("mkdtemp failed");
    dir_ = dir;
    out_ = path("device.raw");
    // This file replaces ALSA's whole configuration, so the slave is defined
    // inline. ALSA reads it when the first device of the process is opened.
    const std::string config = put_file(
        "asound.conf",
        "pcm.!default { type file; slave.pcm { type null }; file \"" + out_ + "\"; format \"raw\" }\n");
    setenv("ALSA_CONFIG_PATH", config.c_str(), 1);
}

AlsaSink::~AlsaSink()
{
    std::error_code ignored;
    std::filesystem::remove_all(dir_, ignored);
}

std::string AlsaSink::put_file(const std::string &name, const std::string &contents) const
{
    write_file(path(name), contents);
    return path(name);
}

void AlsaSink::reset() const
{
    unlink(out_.c_str());
}

bool AlsaSink::configured() const
{
    return access(out_.c_str(), F_OK) == 0;
}

std::string AlsaSink::captured() const
{
    std::ifstream in(out_, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

struct TestPlayer::State {
    std::mutex mutex;
    std::condition_variable changed;
    int completions = 0;
    int code = -1;
    MediaPlayer *reported = nullptr;
};

TestPlayer::TestPlayer() : player_(new MediaPlayer), state_(std::make_shared<State>())
{
    // The callback holds the state, not the test, in case it comes late.
    player_->SetOnCompletionCallback([state = state_](int code, MediaPlayer *player) {
        std::lock_guard<std::mutex> lock(state->mutex);
        ++state->completions;
        state->code = code;
        state->reported = player;
        state->changed.notify_all();
    });
}

TestPlayer::~TestPlayer() = default;

void TestPlayer::start()
{
    ++started_;
    player_->Start();
}

TestPlayer::End TestPlayer::wait()
{
    std::unique_lock<std::mutex> lock(state_->mutex);
    const bool arrived = state_->changed.wait_for(lock, std::chrono::seconds(60),
                                                  [&] { return state_->completions >= started_; });
    if (!arrived)
        player_.release(); // its thread may still use it
    return {arrived, state_->code, state_->reported, ""};
}

TestPlayer::End TestPlayer::play(const std::string &path)
{
    player_->SetDataSource(path);
    testing::internal::CaptureStdout();
    start();
    End end = wait();
    end.output = testing::internal::GetCapturedStdout();
    return end;
}

} // namespace mediatest
