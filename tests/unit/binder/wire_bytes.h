// Helpers that lay out wire bytes field by field, sized by the build's
// protocol width, so one test source serves both widths.
#ifndef HMISVC_TESTS_BINDER_WIRE_BYTES_H
#define HMISVC_TESTS_BINDER_WIRE_BYTES_H

#include <hmisvc/binder.h>

#include <cstdint>
#include <cstring>
#include <vector>

namespace binder_test {

using ByteVec = std::vector<unsigned char>;

// Appends little-endian fields; uptr/usize take the width's pointer size.
class Bytes {
public:
    Bytes &u8(unsigned v) { bytes_.push_back(static_cast<unsigned char>(v)); return *this; }
    Bytes &u16(uint16_t v) { return raw(v); }
    Bytes &u32(uint32_t v) { return raw(v); }
    Bytes &uptr(binder_uintptr_t v) { return raw(v); }
    Bytes &ptr(const void *p) { return uptr(static_cast<binder_uintptr_t>(reinterpret_cast<uintptr_t>(p))); }
    Bytes &zeros(size_t n) { bytes_.insert(bytes_.end(), n, 0); return *this; }
    Bytes &append(const ByteVec &more) { bytes_.insert(bytes_.end(), more.begin(), more.end()); return *this; }
    template <typename T>
    Bytes &raw(const T &v)
    {
        const auto *p = reinterpret_cast<const unsigned char *>(&v);
        bytes_.insert(bytes_.end(), p, p + sizeof v);
        return *this;
    }
    const ByteVec &get() const { return bytes_; }
    operator const ByteVec &() const { return bytes_; }

private:
    ByteVec bytes_;
};

// flat_binder_object as laid out on the wire.
inline ByteVec object_bytes(uint32_t type, binder_uintptr_t binder_or_handle)
{
    return Bytes().u32(type).u32(0x17f).uptr(binder_or_handle).uptr(0);
}

// A transaction as the driver hands it over, over the given areas.
inline binder_transaction_data txn_over(const void *data, size_t data_size,
                                        const void *offsets = nullptr, size_t offsets_size = 0)
{
    binder_transaction_data txn{};
    txn.data_size = data_size;
    txn.offsets_size = offsets_size;
    txn.data.ptr.buffer = static_cast<binder_uintptr_t>(reinterpret_cast<uintptr_t>(data));
    txn.data.ptr.offsets = static_cast<binder_uintptr_t>(reinterpret_cast<uintptr_t>(offsets));
    return txn;
}

// Bytes written into a buffer so far, and its offset entries.
inline ByteVec written(const binder_io &bio)
{
    return ByteVec(bio.data_start, bio.cursor);
}

inline std::vector<binder_size_t> offsets_written(const binder_io &bio)
{
    return std::vector<binder_size_t>(bio.offsets_start, bio.offsets_cursor);
}

} // namespace binder_test

#endif
