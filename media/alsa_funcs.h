// The ALSA functions the player calls, resolved from libasound at run time.
#ifndef HMISVC_MEDIA_ALSA_FUNCS_H
#define HMISVC_MEDIA_ALSA_FUNCS_H

#include <alsa/asoundlib.h>

#include <hmisvc/media.h>

// Every function of the table, in table order.
#define HMISVC_ALSA_FUNCTIONS(X)                 \
    X(snd_pcm_open)                              \
    X(snd_pcm_hw_params_malloc)                  \
    X(snd_pcm_hw_params_any)                     \
    X(snd_pcm_hw_params_set_access)              \
    X(snd_pcm_hw_params_set_format)              \
    X(snd_pcm_hw_params_set_rate_near)           \
    X(snd_pcm_hw_params_set_channels)            \
    X(snd_pcm_hw_params)                         \
    X(snd_pcm_hw_params_get_period_size)         \
    X(snd_pcm_hw_params_set_buffer_time_near)    \
    X(snd_pcm_hw_params_get_buffer_size)         \
    X(snd_pcm_hw_params_set_period_time_near)    \
    X(snd_pcm_sw_params_malloc)                  \
    X(snd_pcm_sw_params_free)                    \
    X(snd_pcm_sw_params_current)                 \
    X(snd_pcm_sw_params_set_start_threshold)     \
    X(snd_pcm_sw_params)                         \
    X(snd_pcm_hw_params_free)                    \
    X(snd_pcm_prepare)                           \
    X(snd_pcm_writei)                            \
    X(snd_pcm_close)

struct alsa_funcs {
    void *handle; // null until the library is loaded
#define HMISVC_ALSA_SLOT(name) decltype(&::name) name;
    HMISVC_ALSA_FUNCTIONS(HMISVC_ALSA_SLOT)
#undef HMISVC_ALSA_SLOT
};

// Shared by every player of the process; filled on the first playback.
extern alsa_funcs afuncs;

#endif
