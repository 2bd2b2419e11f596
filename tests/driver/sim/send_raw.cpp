// send_raw NAME|0 CODE oneway|call: sends one transaction holding a single
// stray word to a service (or to the service manager, 0), as any process
// could; exits 0 once the driver took it.
#include <hmisvc/binder.h>
#include <hmisvc/binder_seam.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

int main(int argc, char **argv)
{
    if (argc != 4)
        return 2;
    binder_connection *bs = binder_open(64 * 1024);
    if (!bs)
        return 1;
    // Closed on every way out, so that a leak check at exit stays quiet.
    std::unique_ptr<binder_connection, void (*)(binder_connection *)> hold(bs, binder_close);
    uint32_t target = std::strcmp(argv[1], "0") == 0 ? 0 : svcmgr_lookup(bs, SVCMGR_HANDLE, argv[1]);
    if (std::strcmp(argv[1], "0") != 0 && target == 0)
        return 1;
    uint32_t word = 0xdeadbeef;
    binder_transaction_data txn{};
    txn.target.handle = target;
    txn.code = static_cast<uint32_t>(std::atoi(argv[2]));
    txn.flags = std::strcmp(argv[3], "oneway") == 0 ? TF_ONE_WAY : 0;
    txn.data_size = sizeof word;
    txn.data.ptr.buffer = static_cast<binder_uintptr_t>(reinterpret_cast<uintptr_t>(&word));
    unsigned char block[sizeof(uint32_t) + sizeof txn];
    uint32_t cmd = BC_TRANSACTION;
    std::memcpy(block, &cmd, sizeof cmd);
    std::memcpy(block + sizeof cmd, &txn, sizeof txn);
    // Written and then read until the driver has it (and, for a call, the
    // answer is in); the answer itself is not looked at.
    unsigned char in[256];
    binder_write_read bwr{};
    bwr.write_size = sizeof block;
    bwr.write_buffer = static_cast<binder_uintptr_t>(reinterpret_cast<uintptr_t>(block));
    for (int pass = 0; pass < 4; ++pass) {
        bwr.read_size = sizeof in;
        bwr.read_consumed = 0;
        bwr.read_buffer = static_cast<binder_uintptr_t>(reinterpret_cast<uintptr_t>(in));
        if (binder_ioctl(bs, BINDER_WRITE_READ, &bwr) < 0)
            return 1;
        for (binder_size_t i = 0; i + 4 <= bwr.read_consumed; i += 4) {
            uint32_t r;
            std::memcpy(&r, in + i, 4);
            if (r == BR_TRANSACTION_COMPLETE && txn.flags == TF_ONE_WAY)
                return 0;
            if (r == BR_REPLY || r == BR_FAILED_REPLY || r == BR_DEAD_REPLY)
                return r == BR_REPLY ? 0 : 1;
        }
    }
    return 1;
}
