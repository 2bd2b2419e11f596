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

// The lines the player prints: for a header, and when it loads ALSA.
std::string format_line(unsigned rate, unsigned channels, unsigned bits, std::size_t wav_size,
                        std::size_t file_size);
std::string handle_lines(void *handle);

// Whether the library the player opens can be loaded in this process.
bool alsa_available();

// ALSA's "default" PCM for this process: a file plugin over the null device,
// writing every frame it is given to out(). Set up on first use, before any
// device is opened; removed at exit.
class AlsaSink {
public:
    static AlsaSink &instance();

    const std::string &out() const { return out_; }
    std::string path(const std::string &name) const { return dir_ + "/" + name; }
    // Writes @p contents to a fresh file in the sink's directory.
    std::string put_file(const std::string &name, const std::string &contents) const;
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

// A player on the heap and the end of its playback. Should the callback
// never come, the player is abandoned rather than freed under its thread.
class TestPlayer {
public:
    struct End {
        bool arrived; // within a generous time
        int code;
        MediaPlayer *reported;
        std::string output; // what was printed meanwhile, when captured
    };

    TestPlayer();
    ~TestPlayer();

    MediaPlayer &player() { return *player_; }
    void start();
    // Waits for the completion callback of the last start().
    End wait();
    // Plays @p path to the end, capturing standard output.
    End play(const std::string &path);

private:
    struct State;
    std::unique_ptr<MediaPlayer> player_;
    std::shared_ptr<State> state_;
    int started_ = 0;
};

} // namespace mediatest

#endif
