/**
 * @file
 * Audio playback: MediaPlayer plays one PCM WAV file through ALSA on a thread
 * of its own and reports the end through a completion callback. ALSA is not
 * linked; the library opens "/usr/lib/libasound.so" on the first playback of
 * the process and plays on the PCM device "default".
 */
#ifndef HMISVC_MEDIA_H
#define HMISVC_MEDIA_H

#include <functional>
#include <string>

#include <hmisvc/export.h>

/// The process-wide table of the ALSA functions the player uses. Its layout
/// needs ALSA's own headers, so it stays complete only inside the library.
struct alsa_funcs;

/// Opens libasound and resolves every function of @p funcs. Returns 0; a
/// library that cannot be opened leaves funcs->handle null.
extern "C" HMISVC_API int alsa_funcs_init(struct alsa_funcs *funcs);

/// Plays canonical WAV files (44-byte header; 8, 16 or 24 bits; any channel
/// count and rate the device takes). Everything after the header is played,
/// trailing chunks included. 24-bit files go out as S24_LE. Failures print one
/// of the "snd_pcm_... err" lines on standard output; the callback follows
/// regardless. No locks: call Start and Stop from one thread.
class HMISVC_API MediaPlayer {
public:
    /// A player without data source or callback.
    MediaPlayer();
    /// Does not stop a playback in progress: the player must outlive its
    /// play threads (wait for the completion callback).
    ~MediaPlayer();

    /// The WAV file to play. Not checked until playback.
    void SetDataSource(std::string path);
    /// Replaces the callback run at the end of every playback with
    /// (0, this); it runs on the play thread.
    void SetOnCompletionCallback(std::function<void(int, MediaPlayer *)> callback);

    /// Plays the data source on a new detached thread and returns 0 at once.
    /// The outcome shows only in the messages on standard output; the
    /// callback follows in every case. Each call starts another thread.
    int Start();
    /// Ends every playback of this player before its next write; returns
    /// without waiting.
    void Stop();

private:
    static void Play(MediaPlayer *player, int *status);

    [[maybe_unused]] bool reserved; // cleared by the constructor, used by nothing
    bool playing;                   // set by the play thread, cleared by Stop
    std::string data_source;
    std::function<void(int, MediaPlayer *)> completion_callback;
};

#endif
