// The connection to the binder driver (/dev/binder, see seam.h): open and map, command writes, the
// synchronous call, parsing what the driver returns, and the receive loops.
// No heap use after binder_open; every buffer lives on the caller's stack.

#include "binder/protocol.h"
#include "binder/seam.h"

#include <hmisvc/binder.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <unistd.h>

using namespace hmisvc::binder;

namespace {

constexpr uint32_t kReadBufferWords = 32; // 128 bytes
constexpr uint32_t kMaxReplyOffsets = 4;

// The reply area of the parse step. binder_parse's stays at 40960 bytes and
// is reserved on every call, binder_parse2's (the endpoint's) at 256.
constexpr uint32_t kParseReplyArea = 40960;
constexpr uint32_t kParse2ReplyArea = 256;

int write_read(binder_connection *bs, binder_write_read *bwr)
{
    return seam_ioctl(bs->fd, BINDER_WRITE_READ, bwr);
}

template <size_t N>
void write_block(binder_connection *bs, const unsigned char (&block)[N])
{
    binder_write(bs, block, N);
}

void write_handle_command(binder_connection *bs, uint32_t cmd, uint32_t handle)
{
    unsigned char block[2 * sizeof(uint32_t)];
    BlockWriter(block).put(cmd).put(handle);
    write_block(bs, block);
}

// One walk over a read buffer. `serve` is null when nothing serves incoming
// transactions; otherwise it is called with (txn, msg, reply) and returns
// the reply status.
template <uint32_t ReplyArea, typename Serve>
int parse_read_buffer(binder_connection *bs, binder_io *bio, const uint32_t *words,
                      uint32_t size, const Serve *serve)
{
    alignas(binder_size_t) char reply_area[ReplyArea];
    const char *const start = reinterpret_cast<const char *>(words);
    const uint32_t end = size & ~3u;
    uint32_t pos = 0;
    int r = 1;

    while (pos < end) {
        const uint32_t cmd = read_at<uint32_t>(start + pos);
        pos += sizeof cmd;
        const uint32_t left = end - pos;
        switch (cmd) {
        case BR_NOOP:
        case BR_TRANSACTION_COMPLETE:
            break;
        case BR_INCREFS:
        case BR_ACQUIRE:
        case BR_RELEASE:
        case BR_DECREFS:
            pos += sizeof(binder_ptr_cookie);
            break;
        case BR_TRANSACTION:
        case BR_REPLY: {
            const bool incoming = cmd == BR_TRANSACTION;
            if (left < sizeof(binder_transaction_data)) {
                fputs(incoming ? "svcmgr: parse: txn too small!\n"
                               : "svcmgr: parse: reply too small!\n",
                      stderr);
                return -1;
            }
            // Copied out: in the 64-bit protocol it is not 8-byte aligned.
            binder_transaction_data txn = read_at<binder_transaction_data>(start + pos);
            pos += sizeof txn;
            if (incoming) {
                // Without a server the transaction is skipped, not answered.
                if (serve) {
                    binder_io msg;
                    binder_io reply;
                    bio_init(&reply, reply_area, sizeof reply_area, kMaxReplyOffsets);
                    bio_init_from_txn(&msg, &txn);
                    const int status = (*serve)(&txn, &msg, &reply);
                    binder_send_reply(bs, &reply, txn.data.ptr.buffer, status);
                }
            } else {
                // Only the first reply is taken; a second one is skipped.
                if (bio) {
                    bio_init_from_txn(bio, &txn);
                    bio = nullptr;
                }
                r = 0;
            }
            break;
        }
        case BR_DEAD_BINDER: {
            // A truncated notification has no record to call: end the walk.
            if (left < sizeof(binder_uintptr_t))
                return r;
            auto *death = native_ptr<binder_death_record>(read_at<binder_uintptr_t>(start + pos));
            pos += sizeof(binder_uintptr_t);
            death->on_death(bs, death->user);
            break;
        }
        case BR_FAILED_REPLY:
        case BR_DEAD_REPLY:
            r = -1;
            break;
        default:
            fprintf(stderr, "svcmgr: parse: OOPS %d\n", static_cast<int>(cmd));
            return -1;
        }
    }
    return r;
}

// Serves incoming transactions until the driver fails or returns something
// a server cannot use. `parse` walks one read buffer.
template <typename Parse>
void serve_loop(binder_connection *bs, Parse parse)
{
    const uint32_t enter = BC_ENTER_LOOPER;
    binder_write(bs, &enter, sizeof enter);

    for (;;) {
        uint32_t readbuf[kReadBufferWords];
        binder_write_read bwr{};
        bwr.read_size = sizeof readbuf;
        bwr.read_buffer = wire_ptr(readbuf);
        if (write_read(bs, &bwr) < 0) {
            fprintf(stderr, "svcmgr: binder_loop: ioctl failed (%s)\n", strerror(errno));
            return;
        }
        const int res = parse(readbuf, static_cast<uint32_t>(bwr.read_consumed));
        if (res == 0) {
            fprintf(stderr, "svcmgr: binder_loop: unexpected reply?!\n");
            return;
        }
        if (res < 0) {
            fprintf(stderr, "svcmgr: binder_loop: io error %d %s\n", res, strerror(errno));
            return;
        }
    }
}

struct CmdName {
    uint32_t cmd;
    const char *name;
};

#define HMISVC_CMD_NAME(cmd) {cmd, #cmd}
constexpr CmdName kCmdNames[] = {
    HMISVC_CMD_NAME(BR_NOOP),         HMISVC_CMD_NAME(BR_TRANSACTION_COMPLETE),
    HMISVC_CMD_NAME(BR_INCREFS),      HMISVC_CMD_NAME(BR_ACQUIRE),
    HMISVC_CMD_NAME(BR_RELEASE),      HMISVC_CMD_NAME(BR_DECREFS),
    HMISVC_CMD_NAME(BR_TRANSACTION),  HMISVC_CMD_NAME(BR_REPLY),
    HMISVC_CMD_NAME(BR_DEAD_BINDER),  HMISVC_CMD_NAME(BR_FAILED_REPLY),
    HMISVC_CMD_NAME(BR_DEAD_REPLY),
};
#undef HMISVC_CMD_NAME

} // namespace

extern "C" {

binder_connection *binder_open(uint32_t mapsize)
{
    auto *bs = static_cast<binder_connection *>(malloc(sizeof(binder_connection)));
    if (!bs) {
        errno = ENOMEM;
        return nullptr;
    }
    bs->fd = seam_open();
    if (bs->fd < 0) {
        fprintf(stderr, "binder: cannot open device (%s)\n", strerror(errno));
        free(bs);
        return nullptr;
    }
    bs->mapping_size = mapsize;
    bs->mapping = seam_map(bs->fd, mapsize);
    if (bs->mapping == MAP_FAILED) {
        fprintf(stderr, "binder: cannot map device (%s)\n", strerror(errno));
        seam_close(bs->fd, nullptr, 0);
        free(bs);
        return nullptr;
    }
    return bs;
}

void binder_close(binder_connection *bs)
{
    seam_close(bs->fd, bs->mapping, bs->mapping_size);
    free(bs);
}

int binder_become_context_manager(binder_connection *bs)
{
    return seam_ioctl(bs->fd, BINDER_SET_CONTEXT_MGR, nullptr);
}

int binder_write(binder_connection *bs, const void *data, uint32_t len)
{
    binder_write_read bwr{};
    bwr.write_size = len;
    bwr.write_buffer = wire_ptr(data);
    const int res = write_read(bs, &bwr);
    if (res < 0)
        fprintf(stderr, "binder_write: ioctl failed (%s)\n", strerror(errno));
    return res;
}

void binder_acquire(binder_connection *bs, uint32_t handle)
{
    write_handle_command(bs, BC_ACQUIRE, handle);
}

void binder_release(binder_connection *bs, uint32_t handle)
{
    write_handle_command(bs, BC_RELEASE, handle);
}

void binder_link_to_death(binder_connection *bs, uint32_t handle, binder_death_record *death)
{
    unsigned char block[kDeathBlockSize];
    build_death_block(block, handle, death);
    write_block(bs, block);
}

int binder_call(binder_connection *bs, binder_io *msg, binder_io *reply, uint32_t target,
                uint32_t code)
{
    if (msg->flags & BIO_FLAG_OVERFLOW) {
        fprintf(stderr, "binder: txn buffer overflow\n");
    } else {
        unsigned char block[kCallBlockSize];
        build_call_block(block, msg, target, code);

        // Written once: after the first pass the driver has consumed the
        // block and later passes only read.
        binder_write_read bwr{};
        bwr.write_size = sizeof block;
        bwr.write_buffer = wire_ptr(block);
        for (;;) {
            uint32_t readbuf[kReadBufferWords];
            bwr.read_size = sizeof readbuf;
            bwr.read_consumed = 0;
            bwr.read_buffer = wire_ptr(readbuf);
            if (write_read(bs, &bwr) < 0) {
                fprintf(stderr, "binder: ioctl failed (%s)\n", strerror(errno));
                break;
            }
            const int res =
                binder_parse(bs, reply, readbuf, static_cast<uint32_t>(bwr.read_consumed), nullptr);
            if (res == 0)
                return 0;
            if (res < 0)
                break;
        }
    }
    std::memset(reply, 0, sizeof *reply);
    reply->flags = BIO_FLAG_IO_ERROR;
    return -1;
}

void binder_done(binder_connection *bs, binder_io *, binder_io *reply)
{
    if (!(reply->flags & BIO_FLAG_DRIVER_BUFFER))
        return;
    unsigned char block[sizeof(uint32_t) + sizeof(binder_uintptr_t)];
    BlockWriter(block).put(uint32_t{BC_FREE_BUFFER}).put(wire_ptr(reply->data_start));
    write_block(bs, block);
    reply->flags = 0;
}

void binder_send_reply(binder_connection *bs, binder_io *reply, binder_uintptr_t buffer_to_free,
                       int status)
{
    unsigned char block[kReplyBlockSize];
    build_reply_block(block, reply, buffer_to_free, &status);
    write_block(bs, block);
}

int binder_parse(binder_connection *bs, binder_io *bio, const uint32_t *ptr, uint32_t size,
                 binder_txn_handler func)
{
    auto serve = [&](binder_transaction_data *txn, binder_io *msg, binder_io *reply) {
        return func(bs, txn, msg, reply);
    };
    return parse_read_buffer<kParseReplyArea>(bs, bio, ptr, size, func ? &serve : nullptr);
}

int binder_parse2(binder_connection *bs, binder_io *bio, const uint32_t *ptr, uint32_t size,
                  binder_txn_handler2 func, void *arg)
{
    auto serve = [&](binder_transaction_data *txn, binder_io *msg, binder_io *reply) {
        return func(bs, txn, msg, reply, arg);
    };
    return parse_read_buffer<kParse2ReplyArea>(bs, bio, ptr, size, func ? &serve : nullptr);
}

void binder_loop(binder_connection *bs, binder_txn_handler func)
{
    serve_loop(bs, [&](const uint32_t *buf, uint32_t size) {
        return binder_parse(bs, nullptr, buf, size, func);
    });
}

void binder_loop2(binder_connection *bs, binder_txn_handler2 func, void *arg)
{
    serve_loop(bs, [&](const uint32_t *buf, uint32_t size) {
        return binder_parse2(bs, nullptr, buf, size, func, arg);
    });
}

const char *cmd_name(uint32_t cmd)
{
    for (const CmdName &entry : kCmdNames)
        if (entry.cmd == cmd)
            return entry.name;
    return "???";
}

} // extern "C"
