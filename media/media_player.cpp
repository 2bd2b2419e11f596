#include <hmisvc/media.h>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <thread>
#include <utility>

#include "media/alsa_funcs.h"

namespace {

// The canonical 44-byte RIFF header; the samples follow it. Nothing in it is
// checked: the fields go to ALSA as they stand.
constexpr off_t kHeaderSize = 44;

struct WavHeader {
    std::uint32_t riff_size;   // 4: printed only
    unsigned int channels;     // 22
    unsigned int rate;         // 24
    unsigned int bits;         // 34
    std::uint32_t data_size;   // 40: printed only; the file size decides
};

std::uint32_t le(const unsigned char *p, int width)
{
    std::uint32_t v = 0;
    for (int i = width - 1; i >= 0; --i)
        v = (v << 8) | p[i];
    return v;
}

WavHeader read_header(const unsigned char *file)
{
    return {le(file + 4, 4), le(file + 22, 2), le(file + 24, 4), le(file + 34, 2), le(file + 40, 4)};
}

// One set-up call: a negative ALSA result stores the step's status code and
// prints its message.
bool step(int result, int code, const char *message, int *status)
{
    if (result >= 0)
        return true;
    *status = code;
    std::puts(message);
    return false;
}

// Widths without a format of their own leave the choice to the device.
bool set_format(snd_pcm_t *pcm, snd_pcm_hw_params_t *hw, unsigned int bits, int *status)
{
    snd_pcm_format_t format;
    int code;
    switch (bits) {
    case 8:
        format = SND_PCM_FORMAT_U8;
        code = -7;
        break;
    case 16:
        format = SND_PCM_FORMAT_S16_LE;
        code = -8;
        break;
    case 24:
        format = SND_PCM_FORMAT_S24_LE;
        code = -8;
        break;
    default:
        return true;
    }
    return step(afuncs.snd_pcm_hw_params_set_format(pcm, hw, format), code,
                "snd_pcm_hw_params_set_format err", status);
}

// Everything after the header, one period per write straight from the
// mapping; a trailing partial frame is dropped.
void write_samples(snd_pcm_t *pcm, const unsigned char *data, off_t limit,
                   snd_pcm_uframes_t chunk, const WavHeader &wav, bool &playing)
{
    const long long frame_bytes = wav.channels * wav.bits / 8;
    const long long chunk_bytes = static_cast<long long>(chunk) * wav.channels * wav.bits / 8;
    playing = true;
    // A header whose frames are narrower than a byte would divide by zero and
    // an empty period would never advance: such a file writes nothing.
    if (limit <= 0 || frame_bytes == 0 || chunk == 0)
        return;
    long long offset = 0;
    do {
        const long long remaining = limit - offset;
        const snd_pcm_uframes_t frames =
            chunk_bytes < remaining ? chunk : static_cast<snd_pcm_uframes_t>(remaining / frame_bytes);
        // No underrun recovery: a failed write just moves on.
        afuncs.snd_pcm_writei(pcm, data + offset, frames);
        offset += chunk_bytes;
    } while (offset < limit && playing);
}

// Hardware and software set-up of an open device, then the write loop.
void configure_and_write(snd_pcm_t *pcm, snd_pcm_hw_params_t *hw, const unsigned char *file,
                         off_t file_size, const WavHeader &wav, bool &playing, int *status)
{
    unsigned int rate = wav.rate;
    unsigned int buffer_time = 500000; // microseconds
    unsigned int period_time = 100000;
    snd_pcm_uframes_t buffer_size = 0;
    snd_pcm_uframes_t period_size = 0;
    snd_pcm_uframes_t chunk = 0;
    snd_pcm_sw_params_t *sw = nullptr;

    // Several messages name another call than the one that failed; they have
    // always read so.
    const bool hw_ready =
        step(afuncs.snd_pcm_hw_params_any(pcm, hw), -5, "snd_pcm_hw_params_any err", status) &&
        step(afuncs.snd_pcm_hw_params_set_access(pcm, hw, SND_PCM_ACCESS_RW_INTERLEAVED), -6,
             "snd_pcm_hw_params_any err", status) &&
        set_format(pcm, hw, wav.bits, status) &&
        step(afuncs.snd_pcm_hw_params_set_channels(pcm, hw, wav.channels), -10,
             "snd_pcm_hw_params_set_channels err", status) &&
        step(afuncs.snd_pcm_hw_params_set_rate_near(pcm, hw, &rate, nullptr), -9,
             "snd_pcm_hw_params_set_rate_near err", status) &&
        step(afuncs.snd_pcm_hw_params_set_buffer_time_near(pcm, hw, &buffer_time, nullptr), -13,
             "snd_pcm_hw_params_set_rate_near err", status) &&
        step(afuncs.snd_pcm_hw_params_get_buffer_size(hw, &buffer_size), -10,
             "snd_pcm_hw_params_set_channels err", status) &&
        step(afuncs.snd_pcm_hw_params_set_period_time_near(pcm, hw, &period_time, nullptr), -14,
             "snd_pcm_hw_params_set_rate_near err", status) &&
        step(afuncs.snd_pcm_hw_params_get_period_size(hw, &period_size, nullptr), -9,
             "snd_pcm_hw_params_set_rate_near err", status) &&
        step(afuncs.snd_pcm_hw_params(pcm, hw), -11, "snd_pcm_hw_params err", status) &&
        step(afuncs.snd_pcm_hw_params_get_period_size(hw, &chunk, nullptr), -13,
             "snd_pcm_hw_params_get_period_size err", status) &&
        step(afuncs.snd_pcm_prepare(pcm), -12, "snd_pcm_prepare err", status) &&
        step(afuncs.snd_pcm_sw_params_malloc(&sw), -14, "snd_pcm_sw_params_malloc err", status);
    if (!hw_ready)
        return;

    // Start once the largest whole number of periods that fits the buffer
    // is queued.
    const snd_pcm_uframes_t threshold = buffer_size / period_size * period_size;
    if (step(afuncs.snd_pcm_sw_params_current(pcm, sw), -15, "snd_pcm_sw_params_current err", status) &&
        step(afuncs.snd_pcm_sw_params_set_start_threshold(pcm, sw, threshold), -16,
             "snd_pcm_sw_params_set_start_threshold err", status) &&
        step(afuncs.snd_pcm_sw_params(pcm, sw), -17, "snd_pcm_sw_params err", status))
        write_samples(pcm, file + kHeaderSize, file_size - kHeaderSize, chunk, wav, playing);
    afuncs.snd_pcm_sw_params_free(sw);
}

void play_mapped(const unsigned char *file, off_t file_size, bool &playing, int *status)
{
    const WavHeader wav = read_header(file);
    std::printf("wav format: fs = %d, channels = %d, bits_per_sample = %d, wav_size = %d file_size = %d\n\r",
                static_cast<int>(wav.rate), static_cast<int>(wav.channels), static_cast<int>(wav.bits),
                static_cast<int>(wav.data_size), static_cast<int>(wav.riff_size));

    snd_pcm_t *pcm = nullptr;
    if (!step(afuncs.snd_pcm_open(&pcm, "default", SND_PCM_STREAM_PLAYBACK, 0), -3, "snd_pcm_open err",
              status))
        return;
    snd_pcm_hw_params_t *hw = nullptr;
    if (step(afuncs.snd_pcm_hw_params_malloc(&hw), -4, "snd_pcm_hw_params_malloc err", status)) {
        configure_and_write(pcm, hw, file, file_size, wav, playing, status);
        afuncs.snd_pcm_hw_params_free(hw);
    }
    afuncs.snd_pcm_close(pcm);
}

// A 24-bit file goes to ALSA as S24_LE, whose samples are 4 bytes wide over
// the file's 3: the writes read up to a third past the data. The file is
// therefore mapped at the start of a zero-filled, read-only reserve that
// long, so ALSA reads silence there instead of unmapped memory. The reserve
// is address space only; its pages are never touched unless read.
struct WavMapping {
    void *base = MAP_FAILED;
    size_t length = 0;

    bool map(int fd, off_t file_size)
    {
        // An empty file cannot be mapped; nor can one that, with its reserve,
        // exceeds the address space.
        if (file_size <= 0 || static_cast<std::uintmax_t>(file_size) > SIZE_MAX / 2)
            return false;
        const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
        const size_t size = static_cast<size_t>(file_size);
        length = (size + size / 3 + 2 * page) / page * page;
        base = mmap(nullptr, length, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (base == MAP_FAILED)
            return false;
        if (mmap(base, size, PROT_READ, MAP_SHARED | MAP_FIXED, fd, 0) == MAP_FAILED) {
            munmap(base, length);
            base = MAP_FAILED;
            return false;
        }
        return true;
    }
    ~WavMapping()
    {
        if (base != MAP_FAILED)
            munmap(base, length);
    }
};

void play_file(const std::string &path, bool &playing, int *status)
{
    const int fd = open(path.c_str(), O_RDONLY);
    if (fd < 0) {
        *status = -1;
        return;
    }
    // The whole file is mapped and written from the mapping: nothing is
    // copied or allocated per period.
    struct stat st;
    WavMapping mapping;
    if (fstat(fd, &st) != 0 || !mapping.map(fd, st.st_size)) {
        *status = -2;
        close(fd);
        return;
    }
    play_mapped(static_cast<const unsigned char *>(mapping.base), st.st_size, playing, status);
    close(fd);
}

} // namespace

MediaPlayer::MediaPlayer() : reserved(false), playing(false) {}

MediaPlayer::~MediaPlayer() = default;

void MediaPlayer::SetDataSource(std::string path)
{
    data_source = std::move(path);
}

void MediaPlayer::SetOnCompletionCallback(std::function<void(int, MediaPlayer *)> callback)
{
    completion_callback = std::move(callback);
}

int MediaPlayer::Start()
{
    // The status word belongs to this playback alone; its codes only mirror
    // the messages, so nobody reads it afterwards.
    std::thread([this] {
        int status = 0;
        Play(this, &status);
    }).detach();
    return 0;
}

void MediaPlayer::Stop()
{
    playing = false;
}

void MediaPlayer::Play(MediaPlayer *player, int *status)
{
    // The code passed to the callback reports only whether ALSA could be
    // loaded; everything else shows in the messages.
    int code = 0;
    if (!afuncs.handle)
        code = alsa_funcs_init(&afuncs);
    if (code != 0)
        *status = -13;
    else
        play_file(player->data_source, player->playing, status);
    if (player->completion_callback)
        player->completion_callback(code, player);
}
