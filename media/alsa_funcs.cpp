#include "media/alsa_funcs.h"

#include <dlfcn.h>

#include <cstdint>
#include <cstdio>

alsa_funcs afuncs;

extern "C" int alsa_funcs_init(alsa_funcs *funcs)
{
    void *handle = dlopen(HMISVC_ALSA_LIBRARY, RTLD_LAZY);
    // The device's pointers are 32 bits wide; elsewhere the low half is shown.
    auto shown = static_cast<unsigned>(reinterpret_cast<std::uintptr_t>(handle));
    std::printf("handle = 0x%x\n", shown);
    std::printf("afuncs->handle = %x\n", shown);
    funcs->handle = handle;
    // Nothing is checked: a library that is missing leaves the handle null,
    // and the next playback tries again.
#define HMISVC_ALSA_RESOLVE(name) \
    funcs->name = reinterpret_cast<decltype(funcs->name)>(dlsym(handle, #name));
    HMISVC_ALSA_FUNCTIONS(HMISVC_ALSA_RESOLVE)
#undef HMISVC_ALSA_RESOLVE
    return 0;
}
