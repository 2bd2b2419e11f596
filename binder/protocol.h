/*
 * Internal to the binder layer (not installed, not exported): the command
 * blocks written to the driver, built in one place so that the calling code
 * and the unit tests see the same bytes.
 *
 * Every block is a packed run of words. In the 64-bit protocol a
 * binder_transaction_data follows a 4-byte command word and so is not
 * 8-byte aligned: fields go in and out with memcpy, never through a cast.
 */
#ifndef HMISVC_BINDER_PROTOCOL_H
#define HMISVC_BINDER_PROTOCOL_H

#include <hmisvc/binder.h>

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace hmisvc::binder {

inline binder_uintptr_t wire_ptr(const void *p)
{
    return static_cast<binder_uintptr_t>(reinterpret_cast<uintptr_t>(p));
}

template <typename T>
inline T *native_ptr(binder_uintptr_t p)
{
    return reinterpret_cast<T *>(static_cast<uintptr_t>(p));
}

/* Appends values to a byte block, each at the next byte. */
class BlockWriter {
public:
    explicit BlockWriter(unsigned char *out) : pos_(out) {}
    template <typename T>
    BlockWriter &put(const T &value)
    {
        std::memcpy(pos_, &value, sizeof value);
        pos_ += sizeof value;
        return *this;
    }

private:
    unsigned char *pos_;
};

/* Reads a value of type T at byte position p (any alignment). */
template <typename T>
inline T read_at(const void *p)
{
    T value;
    std::memcpy(&value, p, sizeof value);
    return value;
}

/* BC_TRANSACTION + transaction data. */
constexpr size_t kCallBlockSize = sizeof(uint32_t) + sizeof(binder_transaction_data);
/* BC_FREE_BUFFER + buffer, BC_REPLY + transaction data. */
constexpr size_t kReplyBlockSize = sizeof(uint32_t) + sizeof(binder_uintptr_t) +
                                   sizeof(uint32_t) + sizeof(binder_transaction_data);
/* BC_REQUEST_DEATH_NOTIFICATION + handle + record address. */
constexpr size_t kDeathBlockSize =
    sizeof(uint32_t) + sizeof(uint32_t) + sizeof(binder_uintptr_t);

/* Transaction data describing what has been written into bio. */
inline binder_transaction_data txn_over(const binder_io *bio)
{
    binder_transaction_data txn{};
    txn.data_size = static_cast<binder_size_t>(bio->cursor - bio->data_start);
    txn.offsets_size = static_cast<binder_size_t>(
        reinterpret_cast<const char *>(bio->offsets_cursor) -
        reinterpret_cast<const char *>(bio->offsets_start));
    txn.data.ptr.buffer = wire_ptr(bio->data_start);
    txn.data.ptr.offsets = wire_ptr(bio->offsets_start);
    return txn;
}

inline void build_call_block(unsigned char (&out)[kCallBlockSize], const binder_io *msg,
                             uint32_t target, uint32_t code)
{
    binder_transaction_data txn = txn_over(msg);
    txn.target.handle = target;
    txn.code = code;
    BlockWriter(out).put(uint32_t{BC_TRANSACTION}).put(txn);
}

/* A non-zero *status replaces the reply's contents by that one word; the
 * block then points at *status, which must outlive the write. */
inline void build_reply_block(unsigned char (&out)[kReplyBlockSize], const binder_io *reply,
                              binder_uintptr_t buffer_to_free, const int *status)
{
    binder_transaction_data txn{};
    if (*status != 0) {
        txn.flags = TF_STATUS_CODE;
        txn.data_size = sizeof(*status);
        txn.data.ptr.buffer = wire_ptr(status);
    } else {
        txn = txn_over(reply);
    }
    BlockWriter(out)
        .put(uint32_t{BC_FREE_BUFFER})
        .put(buffer_to_free)
        .put(uint32_t{BC_REPLY})
        .put(txn);
}

inline void build_death_block(unsigned char (&out)[kDeathBlockSize], uint32_t handle,
                              const binder_death_record *death)
{
    BlockWriter(out)
        .put(uint32_t{BC_REQUEST_DEATH_NOTIFICATION})
        .put(handle)
        .put(wire_ptr(death));
}

} // namespace hmisvc::binder

#endif
