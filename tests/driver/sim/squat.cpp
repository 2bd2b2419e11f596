// squat MODE NAME: tries to take a name over, as any local process could.
//   takeover: looks NAME up, sends the service manager an unpublish naming
//             the reference the lookup gave, then publishes an object of its
//             own under NAME;
//   remove:   the unpublish alone;
//   publish:  publishes at once;
//   race:     publishes over and over until a service manager answers.
// Prints each answer ("unpublish N", "publish N"). An object published is
// served, answering every call with the word 666, until the process is
// killed; otherwise the exit status is 0 when the unpublish was taken, 1
// when refused.
#include "looper.h"
#include "svcmgr_handler.h"

#include <hmisvc/binder.h>

#include <cstdio>
#include <cstring>
#include <string>

namespace {

int unpublish_ref(binder_connection *bs, const char *name)
{
    uint32_t handle = svcmgr_lookup(bs, SVCMGR_HANDLE, name);
    if (handle == 0)
        return -2;
    unsigned char area[512];
    binder_io msg, reply;
    bio_init(&msg, area, sizeof area, 4);
    bio_put_uint32(&msg, 0);
    bio_put_string16_x(&msg, "android.os.IServiceManager");
    bio_put_string16_x(&msg, name);
    bio_put_ref(&msg, handle);
    if (binder_call(bs, &msg, &reply, SVCMGR_HANDLE, hmisvc::tools::kSvcmgrCodeUnpublish) != 0)
        return -1;
    int status = static_cast<int>(bio_get_uint32(&reply));
    binder_done(bs, &msg, &reply);
    return status;
}

}  // namespace

int main(int argc, char **argv)
{
    if (argc != 3) {
        std::fprintf(stderr, "usage: squat takeover|remove|publish|race NAME\n");
        return 2;
    }
    const std::string mode = argv[1];
    const char *name = argv[2];
    binder_connection *bs = binder_open(128 * 1024);
    if (!bs)
        return 1;
    if (mode == "takeover" || mode == "remove") {
        int status = unpublish_ref(bs, name);
        std::printf("unpublish %d\n", status);
        std::fflush(stdout);
        if (mode == "remove")
            return status == 0 ? 0 : 1;
    }
    static int object;
    int status = svcmgr_publish(bs, SVCMGR_HANDLE, name, &object);
    while (mode == "race" && status == -1)
        status = svcmgr_publish(bs, SVCMGR_HANDLE, name, &object);
    std::printf("publish %d\n", status);
    std::fflush(stdout);
    if (status != 0)
        return 1;
    hmisvc::tools::serve(
        bs,
        [](const binder_transaction_data &, binder_io &, binder_io &reply) {
            bio_put_uint32(&reply, 666);
            return 0;
        },
        4096);
    return 1;
}
