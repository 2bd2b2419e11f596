// The transaction buffer: a cursor over caller-supplied data and offsets
// areas. Nothing here allocates or reports errors other than through flags.

#include "binder/protocol.h"

#include <hmisvc/binder.h>

#include <cstring>

using hmisvc::binder::read_at;
using hmisvc::binder::wire_ptr;

namespace {

constexpr uint32_t kNullLength = 0xFFFFFFFFu;
constexpr uint32_t kString8Limit = 1u << 30;
constexpr uint32_t kString16Limit = 1u << 29;
constexpr uint32_t kObjectFlags = 0x7fu | FLAT_BINDER_FLAG_ACCEPTS_FDS;

// Rounded in 32 bits on purpose (see get_counted).
uint32_t round4(uint32_t n) { return (n + 3u) & ~3u; }

// Write side. A failed reserve leaves data_left as it was, so a later,
// shorter item may still fit; the overflow flag refuses the buffer anyway.
char *bio_reserve(binder_io *bio, uint32_t n)
{
    const uint32_t rounded = round4(n);
    if (n > bio->data_left || rounded > bio->data_left) { // n near 2^32 wraps
        bio->flags |= BIO_FLAG_OVERFLOW;
        return nullptr;
    }
    char *p = bio->cursor;
    // Fill bytes are zeroed so that equal requests are equal bytes.
    std::memset(p + n, 0, rounded - n);
    bio->cursor += rounded;
    bio->data_left -= rounded;
    return p;
}

// Reserves an object and records its offset. Without an offset entry left
// the data bytes, if reserved, stay consumed.
char *bio_reserve_obj(binder_io *bio)
{
    char *p = bio_reserve(bio, sizeof(flat_binder_object));
    if (p && bio->offsets_left > 0) {
        --bio->offsets_left;
        const binder_size_t offset = static_cast<binder_size_t>(p - bio->data_start);
        std::memcpy(bio->offsets_cursor++, &offset, sizeof offset);
        return p;
    }
    bio->flags |= BIO_FLAG_OVERFLOW;
    return nullptr;
}

// Read side. A short read poisons the rest of the buffer.
const char *bio_take(binder_io *bio, uint32_t n)
{
    if (bio->data_left < n || bio->data_left < round4(n)) { // n near 2^32 wraps
        bio->data_left = 0;
        bio->flags |= BIO_FLAG_OVERFLOW;
        return nullptr;
    }
    n = round4(n);
    const char *p = bio->cursor;
    bio->cursor += n;
    bio->data_left -= n;
    return p;
}

// Objects go in with memcpy: in the 64-bit protocol they hold 8-byte fields
// but sit at positions that are only 4-byte aligned.
void store_object(char *p, uint32_t type, binder_uintptr_t binder_or_handle)
{
    if (!p)
        return;
    flat_binder_object obj{};
    obj.type = type;
    obj.flags = kObjectFlags;
    if (type == BINDER_TYPE_HANDLE)
        obj.handle = static_cast<uint32_t>(binder_or_handle);
    else
        obj.binder = binder_or_handle;
    std::memcpy(p, &obj, sizeof obj);
}

// Byte counts of the counted items for a length n, without wrapping.
uint64_t string16_bytes(uint64_t n) { return (n + 1) * sizeof(uint16_t); }
uint64_t string_bytes(uint64_t n) { return n + 1; }
uint64_t mem_bytes(uint64_t n) { return n; }

// Length word, then the payload that fill(p, n) writes; the null marker
// alone for an absent item or one whose length reaches the limit.
template <typename Fill>
void put_counted(binder_io *bio, const void *item, size_t length, uint32_t limit,
                 uint64_t (*byte_count)(uint64_t), Fill fill)
{
    if (!item || length >= limit) {
        bio_put_uint32(bio, kNullLength);
        return;
    }
    const uint32_t n = static_cast<uint32_t>(length);
    bio_put_uint32(bio, n);
    // Below the limits the count fits 32 bits.
    if (char *p = bio_reserve(bio, static_cast<uint32_t>(byte_count(n))))
        fill(p, n);
}

// Length word, then the item. A null item's length wraps to a byte count of
// 0: nothing is consumed and the current position comes back. Any other
// length is taken whole, so one near 2^32 fails like every short read rather
// than wrapping to a small count and handing out a pointer to too few bytes.
const void *get_counted(binder_io *bio, uint32_t *len, uint64_t (*byte_count)(uint64_t))
{
    const uint32_t length = bio_get_uint32(bio);
    if (len)
        *len = length;
    if (length == kNullLength)
        return bio_take(bio, 0);
    const uint64_t bytes = byte_count(length);
    return bio_take(bio, bytes > bio->data_left ? UINT32_MAX : static_cast<uint32_t>(bytes));
}

} // namespace

extern "C" {

void bio_init(binder_io *bio, void *area, uint32_t area_size, uint32_t max_offsets)
{
    const uint64_t offsets_bytes = uint64_t{max_offsets} * sizeof(binder_size_t);
    if (offsets_bytes > area_size) {
        bio->flags = BIO_FLAG_OVERFLOW;
        bio->data_left = 0;
        bio->offsets_left = 0;
        return;
    }
    bio->offsets_start = bio->offsets_cursor = static_cast<binder_size_t *>(area);
    bio->data_start = bio->cursor = static_cast<char *>(area) + offsets_bytes;
    bio->data_left = area_size - static_cast<uint32_t>(offsets_bytes);
    bio->offsets_left = max_offsets;
    bio->flags = 0;
}

void bio_init_from_txn(binder_io *bio, binder_transaction_data *txn)
{
    using hmisvc::binder::native_ptr;
    bio->data_start = bio->cursor = native_ptr<char>(txn->data.ptr.buffer);
    bio->offsets_start = bio->offsets_cursor = native_ptr<binder_size_t>(txn->data.ptr.offsets);
    bio->data_left = static_cast<uint32_t>(txn->data_size);
    bio->offsets_left = static_cast<uint32_t>(txn->offsets_size / sizeof(binder_size_t));
    bio->flags = BIO_FLAG_DRIVER_BUFFER;
}

void bio_put_uint32(binder_io *bio, uint32_t n)
{
    if (char *p = bio_reserve(bio, sizeof n))
        std::memcpy(p, &n, sizeof n);
}

void bio_put_obj(binder_io *bio, void *ptr)
{
    store_object(bio_reserve_obj(bio), BINDER_TYPE_BINDER, wire_ptr(ptr));
}

void bio_put_ref(binder_io *bio, uint32_t handle)
{
    // A null reference is no object for the driver: no offset entry.
    char *p = handle ? bio_reserve_obj(bio) : bio_reserve(bio, sizeof(flat_binder_object));
    store_object(p, BINDER_TYPE_HANDLE, handle);
}

void bio_put_string16(binder_io *bio, const uint16_t *s)
{
    size_t units = 0;
    while (s && s[units] && units < kString16Limit)
        ++units;
    put_counted(bio, s, units, kString16Limit, string16_bytes,
                [&](char *p, uint32_t n) { std::memcpy(p, s, string16_bytes(n)); });
}

void bio_put_string16_x(binder_io *bio, const char *s)
{
    put_counted(bio, s, s ? std::strlen(s) : 0, kString16Limit, string16_bytes,
                [&](char *p, uint32_t n) {
                    // Each byte is one unit, zero-extended (Latin-1, no UTF-8
                    // decoding), the terminator included.
                    for (uint32_t i = 0; i <= n; ++i) {
                        const uint16_t unit = static_cast<unsigned char>(s[i]);
                        std::memcpy(p + i * sizeof unit, &unit, sizeof unit);
                    }
                });
}

void bio_put_string(binder_io *bio, const char *s)
{
    put_counted(bio, s, s ? std::strlen(s) : 0, kString8Limit, string_bytes,
                [&](char *p, uint32_t n) { std::memcpy(p, s, string_bytes(n)); });
}

void bio_put_mem(binder_io *bio, const void *p, uint32_t len)
{
    put_counted(bio, p, len, kString8Limit, mem_bytes,
                [&](char *dst, uint32_t n) { std::memcpy(dst, p, n); });
}

uint32_t bio_get_uint32(binder_io *bio)
{
    const char *p = bio_take(bio, sizeof(uint32_t));
    return p ? read_at<uint32_t>(p) : 0;
}

const uint16_t *bio_get_string16(binder_io *bio, uint32_t *len)
{
    return static_cast<const uint16_t *>(get_counted(bio, len, string16_bytes));
}

const char *bio_get_string(binder_io *bio, uint32_t *len)
{
    return static_cast<const char *>(get_counted(bio, len, string_bytes));
}

const void *bio_get_mem(binder_io *bio, uint32_t *len)
{
    return get_counted(bio, len, mem_bytes);
}

uint32_t bio_get_ref(binder_io *bio)
{
    // Only an object the offsets area lists is trusted as one.
    const binder_size_t position = static_cast<binder_size_t>(bio->cursor - bio->data_start);
    bool listed = false;
    for (uint32_t i = 0; i < bio->offsets_left && !listed; ++i)
        listed = read_at<binder_size_t>(bio->offsets_cursor + i) == position;
    if (!listed) {
        bio->data_left = 0;
        bio->flags |= BIO_FLAG_OVERFLOW;
        return 0;
    }
    const char *p = bio_take(bio, sizeof(flat_binder_object));
    if (!p)
        return 0;
    const flat_binder_object obj = read_at<flat_binder_object>(p);
    return obj.type == BINDER_TYPE_HANDLE ? obj.handle : 0;
}

} // extern "C"
