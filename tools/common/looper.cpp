#include "looper.h"

#include "protocol.h"

#include <hmisvc/binder_seam.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <vector>

namespace hmisvc::tools {

namespace {

using binder::BlockWriter;
using binder::read_at;
using binder::wire_ptr;

// Commands and returns the library does not use.
constexpr uint32_t kRegisterLooper = _IO('c', 11);
constexpr uint32_t kDeadBinderDone = _IOW('c', 16, binder_uintptr_t);
constexpr uint32_t kReturnError = _IOR('r', 0, int32_t);
constexpr uint32_t kReturnOk = _IO('r', 1);
constexpr uint32_t kSpawnLooper = _IO('r', 13);
constexpr uint32_t kClearDeathDone = _IOR('r', 16, binder_uintptr_t);

int write_block(binder_connection *bs, const void *data, std::size_t len)
{
    binder_write_read bwr{};
    bwr.write_size = static_cast<binder_size_t>(len);
    bwr.write_buffer = wire_ptr(data);
    return binder_ioctl(bs, BINDER_WRITE_READ, &bwr);
}

template <class T> void command(binder_connection *bs, uint32_t cmd, const T &arg)
{
    unsigned char block[sizeof cmd + sizeof arg];
    BlockWriter(block).put(cmd).put(arg);
    write_block(bs, block, sizeof block);
}

// The area a reply is built in: its pages are touched only as far as
// replies reach (a thread that serves small replies keeps a few).
struct ReplyArea {
    std::unique_ptr<unsigned char[]> bytes;
    std::size_t size;
};

void answer(binder_connection *bs, const binder_transaction_data &in, const TxnHandler &handler, ReplyArea &area)
{
    binder_transaction_data txn = in;
    binder_io msg, reply;
    bio_init_from_txn(&msg, &txn);
    bio_init(&reply, area.bytes.get(), static_cast<uint32_t>(area.size), 4);
    int status = handler(txn, msg, reply);

    if (txn.flags & TF_ONE_WAY) {
        command(bs, BC_FREE_BUFFER, txn.data.ptr.buffer);
        return;
    }
    binder_transaction_data out{};
    // A reference to a handle we do not hold: the driver refuses the reply
    // and fails the caller's transaction instead.
    flat_binder_object bogus{};
    binder_size_t bogus_offset = 0;
    if (status == kFailTransaction) {
        bogus.type = BINDER_TYPE_HANDLE;
        bogus.handle = 0x7ffffff0u;
        out.data_size = sizeof bogus;
        out.offsets_size = sizeof bogus_offset;
        out.data.ptr.buffer = wire_ptr(&bogus);
        out.data.ptr.offsets = wire_ptr(&bogus_offset);
    } else if (status != 0) {
        out.flags = TF_STATUS_CODE;
        out.data_size = sizeof status;
        out.data.ptr.buffer = wire_ptr(&status);
    } else {
        out = binder::txn_over(&reply);
    }
    unsigned char block[binder::kReplyBlockSize];
    BlockWriter(block).put(uint32_t{BC_FREE_BUFFER}).put(txn.data.ptr.buffer).put(uint32_t{BC_REPLY}).put(out);
    write_block(bs, block, sizeof block);
}

// Walks one read buffer; returns false on a return it cannot size, after
// which the rest of that buffer is dropped.
bool parse(binder_connection *bs, const unsigned char *p, const unsigned char *end, const TxnHandler &handler,
           ReplyArea &area)
{
    auto room = [&](std::size_t n) { return static_cast<std::size_t>(end - p) >= n; };
    while (room(sizeof(uint32_t))) {
        uint32_t cmd = read_at<uint32_t>(p);
        p += sizeof cmd;
        switch (cmd) {
        case BR_NOOP:
        case BR_TRANSACTION_COMPLETE:
        case BR_FAILED_REPLY:  // a reply of ours the driver refused
        case BR_DEAD_REPLY:
        case kReturnOk:
        case kSpawnLooper:
            break;
        case kReturnError:
            p += sizeof(int32_t);
            break;
        case BR_INCREFS:
        case BR_ACQUIRE:
        case BR_RELEASE:
        case BR_DECREFS:
            p += sizeof(binder_ptr_cookie);
            break;
        case kClearDeathDone:
            p += sizeof(binder_uintptr_t);
            break;
        case BR_DEAD_BINDER: {
            if (!room(sizeof(binder_uintptr_t)))
                return false;
            auto cookie = read_at<binder_uintptr_t>(p);
            p += sizeof cookie;
            auto *record = binder::native_ptr<binder_death_record>(cookie);
            command(bs, kDeadBinderDone, cookie);
            record->on_death(bs, record->user);
            break;
        }
        case BR_TRANSACTION:
        case BR_REPLY: {  // a reply outside a call: given back unread
            if (!room(sizeof(binder_transaction_data)))
                return false;
            auto txn = read_at<binder_transaction_data>(p);
            p += sizeof txn;
            if (cmd == BR_TRANSACTION)
                answer(bs, txn, handler, area);
            else
                command(bs, BC_FREE_BUFFER, txn.data.ptr.buffer);
            break;
        }
        default:
            std::fprintf(stderr, "looper: unknown return 0x%x skipped\n", cmd);
            return false;
        }
    }
    return true;
}

}  // namespace

void serve(binder_connection *bs, const TxnHandler &handler, std::size_t reply_area, bool first)
{
    ReplyArea area{std::unique_ptr<unsigned char[]>(new unsigned char[reply_area]), reply_area};
    uint32_t enter = first ? uint32_t{BC_ENTER_LOOPER} : kRegisterLooper;
    write_block(bs, &enter, sizeof enter);
    alignas(8) unsigned char buf[256];
    for (;;) {
        binder_write_read bwr{};
        bwr.read_size = sizeof buf;
        bwr.read_buffer = wire_ptr(buf);
        if (binder_ioctl(bs, BINDER_WRITE_READ, &bwr) < 0) {
            if (errno == EINTR || errno == EAGAIN)
                continue;
            std::fprintf(stderr, "looper: ioctl failed (%s)\n", std::strerror(errno));
            return;
        }
        parse(bs, buf, buf + bwr.read_consumed, handler, area);
    }
}

void watch(binder_connection *bs, uint32_t handle, binder_death_record *record)
{
    binder_acquire(bs, handle);
    binder_link_to_death(bs, handle, record);
}

}  // namespace hmisvc::tools
