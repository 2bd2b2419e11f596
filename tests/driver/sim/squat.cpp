// squat MODE NAME: tries to take NAME over, as any local process could.
//   takeover: sends the service manager an unpublish naming the reference
//             a lookup gave, then publishes an object of its own;
//   remove:   the unpublish alone;  publish: publishes at once;
//   race:     publishes over and over until a service manager answers.
// Prints each answer ("unpublish N", "publish N"). A published object is
// served, answering every call with the word 666, until killed; otherwise
// the exit status is 0 when the unpublish was taken, 1 when refused.
#include "looper.h"
#include "svcmgr_handler.h"

#include <cstdio>
#include <string>

int main(int argc, char **argv)
{
    binder_connection *bs = argc == 3 ? binder_open(128 * 1024) : nullptr;
    if (!bs)
        return 2;
    const std::string mode = argv[1];
    const char *name = argv[2];
    if (mode == "takeover" || mode == "remove") {
        unsigned char area[512];
        binder_io msg, reply;
        bio_init(&msg, area, sizeof area, 4);
        bio_put_uint32(&msg, 0);
        bio_put_string16_x(&msg, "android.os.IServiceManager");
        bio_put_string16_x(&msg, name);
        bio_put_ref(&msg, svcmgr_lookup(bs, SVCMGR_HANDLE, name));
        int status = -1;
        if (binder_call(bs, &msg, &reply, SVCMGR_HANDLE, hmisvc::tools::kSvcmgrCodeUnpublish) == 0) {
            status = static_cast<int>(bio_get_uint32(&reply));
            binder_done(bs, &msg, &reply);
        }
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
    if (status == 0)
        hmisvc::tools::serve(
            bs, [](const binder_transaction_data &, binder_io &, binder_io &reply) {
                bio_put_uint32(&reply, 666);
                return 0;
            },
            4096);
    return 1;
}
