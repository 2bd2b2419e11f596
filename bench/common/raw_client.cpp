// Deliberately written on the kernel's own header, not the library's.
#include "raw_client.h"

#include <hmisvc/config.h>
#if HMISVC_BINDER_IPC_32BIT
#define BINDER_IPC_32BIT 1
#endif
#include <linux/android/binder.h>

// The binder layer's seam, declared here: its header speaks the library's
// own structs, which this file does not.
extern "C" {
struct binder_connection;
binder_connection *binder_open(uint32_t mapsize);
void binder_close(binder_connection *bs);
int binder_ioctl(binder_connection *bs, unsigned long request, void *arg);
}

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

RawClient::~RawClient()
{
    if (bs_)
        binder_close(bs_);
    if (map_)
        munmap(map_, map_size_);
    if (fd_ >= 0)
        close(fd_);
}

int RawClient::ioctl(unsigned long request, void *arg)
{
    return bs_ ? binder_ioctl(bs_, request, arg) : ::ioctl(fd_, request, arg);
}

bool RawClient::open(uint32_t map_size)
{
    // A userspace driver is reached only through the binder layer's seam.
    if (const char *socket = std::getenv("HMISVC_BINDER_SOCKET"); socket && *socket) {
        bs_ = binder_open(map_size);
        return bs_ != nullptr;
    }
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
    uint32_t word = 0;
    return transact(handle, code, payload, sizeof payload, &word, 1) >= 1 ? int64_t{word} : -1;
}

int64_t RawClient::call(uint32_t handle, uint32_t code)
{
    const uint32_t payload = 0;
    uint32_t word = 0;
    return transact(handle, code, &payload, sizeof payload, &word, 1) >= 1 ? int64_t{word} : -1;
}

uint32_t RawClient::lookup(const char *name)
{
    // Header word, then interface and name as 16-bit strings (length, units,
    // terminator, padded to 4 bytes).
    uint32_t payload[256] = {};
    size_t at = 1;
    auto put16 = [&](const char *s) {
        const size_t n = std::strlen(s);
        payload[at++] = static_cast<uint32_t>(n);
        auto *units = reinterpret_cast<uint16_t *>(&payload[at]);
        for (size_t i = 0; i < n; ++i)
            units[i] = static_cast<unsigned char>(s[i]);
        at += ((n + 1) * 2 + 3) / 4;
    };
    if (std::strlen(name) > 400)
        return 0;
    put16("android.os.IServiceManager");
    put16(name);
    // The reply's object: type, flags, then the handle.
    uint32_t words[3] = {};
    if (transact(0, 2, payload, at * sizeof(uint32_t), words, 3, true) < 3)
        return 0;
    return words[2];
}

size_t RawClient::transact(uint32_t handle, uint32_t code, const void *payload, size_t size,
                           uint32_t *words, size_t max_words, bool acquire_ref)
{
    struct __attribute__((packed)) {
        uint32_t cmd;
        binder_transaction_data txn;
    } out{};
    out.cmd = BC_TRANSACTION;
    out.txn.target.handle = handle;
    out.txn.code = code;
    out.txn.data_size = size;
    out.txn.data.ptr.buffer = reinterpret_cast<binder_uintptr_t>(payload);

    binder_write_read bwr{};
    bwr.write_size = sizeof out;
    bwr.write_buffer = reinterpret_cast<binder_uintptr_t>(&out);
    uint32_t in[32];
    binder_uintptr_t reply = 0;
    size_t got = 0;
    while (!reply) {
        bwr.read_size = sizeof in;
        bwr.read_consumed = 0;
        bwr.read_buffer = reinterpret_cast<binder_uintptr_t>(in);
        if (ioctl(BINDER_WRITE_READ, &bwr) < 0)
            return 0;
        const char *p = reinterpret_cast<const char *>(in);
        const char *end = p + bwr.read_consumed;
        while (p + sizeof(uint32_t) <= end) {
            uint32_t cmd;
            std::memcpy(&cmd, p, sizeof cmd);
            p += sizeof cmd;
            if (cmd == BR_DEAD_REPLY || cmd == BR_FAILED_REPLY)
                return 0;
            if (cmd == BR_REPLY) {
                binder_transaction_data txn;
                std::memcpy(&txn, p, sizeof txn);
                reply = txn.data.ptr.buffer;
                got = std::min<size_t>(max_words, txn.data_size / sizeof(uint32_t));
                std::memcpy(words, reinterpret_cast<const void *>(reply), got * sizeof(uint32_t));
            }
            // Everything else (no-ops, reference counts) is only stepped over.
            p += _IOC_SIZE(cmd);
        }
    }

    // A reference that arrived in the reply is ours only once acquired:
    // freeing the buffer drops the buffer's own.
    struct __attribute__((packed)) {
        uint32_t acquire_cmd;
        uint32_t ref;
        uint32_t cmd;
        binder_uintptr_t buffer;
    } give_back{BC_ACQUIRE, got >= 3 ? words[2] : 0, BC_FREE_BUFFER, reply};
    const size_t skip = acquire_ref && got >= 3 && words[2] != 0 ? 0 : 2 * sizeof(uint32_t);
    binder_write_read free_bwr{};
    free_bwr.write_size = sizeof give_back - skip;
    free_bwr.write_buffer = reinterpret_cast<binder_uintptr_t>(&give_back) + skip;
    if (ioctl(BINDER_WRITE_READ, &free_bwr) < 0)
        return 0;
    return got;
}
