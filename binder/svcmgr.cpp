// The two service-manager requests the library makes: look a name up and
// publish a local object under a name.

#include <hmisvc/binder.h>

namespace {

constexpr uint32_t kLookupArea = 4096;
constexpr uint32_t kPublishArea = 512;
constexpr uint32_t kRequestOffsets = 4;
constexpr const char *kInterface = "android.os.IServiceManager";

// Header word, interface name, service name.
void put_request_head(binder_io *msg, const char *name)
{
    bio_put_uint32(msg, 0);
    bio_put_string16_x(msg, kInterface);
    bio_put_string16_x(msg, name);
}

} // namespace

extern "C" {

uint32_t svcmgr_lookup(binder_connection *bs, uint32_t target, const char *name)
{
    alignas(binder_size_t) char area[kLookupArea];
    binder_io msg;
    binder_io reply;
    bio_init(&msg, area, sizeof area, kRequestOffsets);
    put_request_head(&msg, name);

    if (binder_call(bs, &msg, &reply, target, SVCMGR_CODE_LOOKUP))
        return 0;
    const uint32_t handle = bio_get_ref(&reply);
    // Held for the connection's lifetime; closing the connection drops it.
    if (handle)
        binder_acquire(bs, handle);
    binder_done(bs, &msg, &reply);
    return handle;
}

int svcmgr_publish(binder_connection *bs, uint32_t target, const char *name, void *ptr)
{
    if (!bs)
        return -1;
    alignas(binder_size_t) char area[kPublishArea];
    binder_io msg;
    binder_io reply;
    bio_init(&msg, area, sizeof area, kRequestOffsets);
    put_request_head(&msg, name);
    bio_put_obj(&msg, ptr);

    if (binder_call(bs, &msg, &reply, target, SVCMGR_CODE_PUBLISH))
        return -1;
    const int status = static_cast<int>(bio_get_uint32(&reply));
    binder_done(bs, &msg, &reply);
    return status;
}

} // extern "C"
