// Shared pieces of the media tests: WAV files built in memory, ALSA's
// "default" device routed into a file, and a player whose completion the
// test waits for.
#ifndef HMISVC_TESTS_MEDIA_TEST_SUPPORT_H
#define HMISVC_TESTS_MEDIA_TEST_SUPPORT_H

#include <cstddef>
#include <memory>
#include <string>

#include <hmisvc/media.h>

namespace mediatest {

// Bytes that differ from their neighbours, so a shifted or repeated piece shows.
std::string pattern(std::size_t size);

// A canonical 44-byte-header WAV around @p samples. The data chunk announces
// the samples only; @p trailer follows them unannounced (a later chunk).
std::string wav_file(unsigned channels, unsigned rate, unsigned bits, const std::string &samples,
                     const std::string &trailer = "");

// The line the player prints for a header.
std::string format_line(unsigned rate, unsigned channels, unsigned bits, std::size_t wav_size,
                        std::size_t file_size);

// Whether the library the player opens can be loaded in this process.
bool alsa_available();

// ALSA's "default" PCM for this process: a file plugin over the null device,
// writing every frame it is given to out(). Set up on first use, before any
// device is opened; removed at exit.
class AlsaSink {
public:
    static AlsaSink &instance();

    const std::string &out() const { return out_; }
    // Writes @p contents to a fresh file in the sink's directory.
    std::string put_file(const std::string &name, const std::string &contents) const;
    std::string path(const std::string &name) const { return dir_ + "/" + name; }
    // Forgets the last capture, so that configured() tells about the next one.
    void reset() const;
    // Whether the device got as far as installed parameters: the plugin
    // creates its file only then.
    bool configured() const;
    std::string captured() const;

private:
    AlsaSink();
    ~AlsaSink();
    std::string dir_;
    std::string out_;
};

// A player on the heap and the outcome of its playbacks. Should the callback
// never come, the player is abandoned rather than freed under its thread.
class TestPlayer {
public:
    TestPlayer();
    ~TestPlayer();

    MediaPlayer &player() { return *player_; }
    void start();
    // Waits (generously) for the completion callback of the last start().
    bool wait_completion();
    int code() const;
    MediaPlayer *reported() const;

    // Plays @p path to the end: the callback's arrival and, with
    // @p capture_stdout, what was printed meanwhile.
    struct Outcome {
        bool completed;
        std::string output;
    };
    Outcome play(const std::string &path, bool capture_stdout = true);

private:
    struct State;
    std::unique_ptr<MediaPlayer> player_;
    std::shared_ptr<State> state_;
    int started_ = 0;
};

} // namespace mediatest

#endif
