// Deliberately written on the kernel's own header, not the library's.
#include "raw_client.h"

#include <hmisvc/config.h>
#if HMISVC_BINDER_IPC_32BIT
#define BINDER_IPC_32BIT 1
#endif
#include <linux/android/binder.h>

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstring>

RawClient::~RawClient()
{
    if (map_)
        munmap(map_, map_size_);
    if (fd_ >= 0)
        close(fd_);
}

bool RawClient::open(uint32_t map_size)
{
    fd_ = ::open("/dev/binder", O_RDWR | O_CLOEXEC);
    if (fd_ < 0)
        return false;
    void *map = mmap(nullptr, map_size, PROT_READ, MAP_PRIVATE, fd_, 0);
    if (map == MAP_FAILED)
        return false;
    map_ = map;
    map_size_ = map_size;
    return true;
}

int64_t RawClient::call(uint32_t handle, uint32_t code, uint32_t arg)
{
    const uint32_t payload[2] = {0, arg};
    struct __attribute__((packed)) {
        uint32_t cmd;
        binder_transaction_data txn;
    } out{};
    out.cmd = BC_TRANSACTION;
    out.txn.target.handle = handle;
    out.txn.code = code;
    out.txn.data_size = sizeof payload;
    out.txn.data.ptr.buffer = reinterpret_cast<binder_uintptr_t>(payload);

    binder_write_read bwr{};
    bwr.write_size = sizeof out;
    bwr.write_buffer = reinterpret_cast<binder_uintptr_t>(&out);
    uint32_t in[32];
    binder_uintptr_t reply = 0;
    int64_t word = -1;
    while (!reply) {
        bwr.read_size = sizeof in;
        bwr.read_consumed = 0;
        bwr.read_buffer = reinterpret_cast<binder_uintptr_t>(in);
        if (ioctl(fd_, BINDER_WRITE_READ, &bwr) < 0)
            return -1;
        const char *p = reinterpret_cast<const char *>(in);
        const char *end = p + bwr.read_consumed;
        while (p + sizeof(uint32_t) <= end) {
            uint32_t cmd;
            std::memcpy(&cmd, p, sizeof cmd);
            p += sizeof cmd;
            if (cmd == BR_DEAD_REPLY || cmd == BR_FAILED_REPLY)
                return -1;
            if (cmd == BR_REPLY) {
                binder_transaction_data txn;
                std::memcpy(&txn, p, sizeof txn);
                reply = txn.data.ptr.buffer;
                uint32_t first = 0;
                if (txn.data_size >= sizeof first)
                    std::memcpy(&first, reinterpret_cast<const void *>(reply), sizeof first);
                word = first;
            }
            // Everything else (no-ops, reference counts) is only stepped over.
            p += _IOC_SIZE(cmd);
        }
    }

    struct __attribute__((packed)) {
        uint32_t cmd;
        binder_uintptr_t buffer;
    } give_back{BC_FREE_BUFFER, reply};
    binder_write_read free_bwr{};
    free_bwr.write_size = sizeof give_back;
    free_bwr.write_buffer = reinterpret_cast<binder_uintptr_t>(&give_back);
    if (ioctl(fd_, BINDER_WRITE_READ, &free_bwr) < 0)
        return -1;
    return word;
}
