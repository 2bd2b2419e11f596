// Decodes arbitrary bytes into one record kind (HMISVC_FUZZ_RECORD). Only the
// archive's read error may leave fromString; anything else crashes the run,
// and so does any block larger than decoding that input can legitimately
// need. What decodes must encode to bytes that decode back to the same
// encoding.
#include <hmisvc/broadcast.h>
#include <hmisvc/records.h>

#include <cereal/details/helpers.hpp>

#include <cstdint>
#include <cstdlib>
#include <new>
#include <string>

// A size field beyond the bytes left is refused before anything is
// allocated for it, so no block outgrows the input (and the read error's
// message); a larger one traps.
namespace {
std::size_t allocationCap = SIZE_MAX;

struct CappedAllocations {
    explicit CappedAllocations(std::size_t inputSize) { allocationCap = inputSize + 4096; }
    ~CappedAllocations() { allocationCap = SIZE_MAX; }
};
} // namespace

// The whole unaligned family is replaced, since libFuzzer frees with plain
// delete what it took with new(std::nothrow).
namespace {
void *allocate(std::size_t size) noexcept
{
    if (size > allocationCap)
        __builtin_trap();
    return std::malloc(size ? size : 1);
}
} // namespace

void *operator new(std::size_t size)
{
    if (void *p = allocate(size))
        return p;
    throw std::bad_alloc();
}
void *operator new[](std::size_t size) { return operator new(size); }
void *operator new(std::size_t size, const std::nothrow_t &) noexcept { return allocate(size); }
void *operator new[](std::size_t size, const std::nothrow_t &) noexcept { return allocate(size); }
void operator delete(void *p) noexcept { std::free(p); }
void operator delete[](void *p) noexcept { std::free(p); }
void operator delete(void *p, std::size_t) noexcept { std::free(p); }
void operator delete[](void *p, std::size_t) noexcept { std::free(p); }
void operator delete(void *p, const std::nothrow_t &) noexcept { std::free(p); }
void operator delete[](void *p, const std::nothrow_t &) noexcept { std::free(p); }

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    HMISVC_FUZZ_RECORD record;
    try {
        CappedAllocations cap(size);
        record.fromString(std::string(reinterpret_cast<const char *>(data), size));
    } catch (const cereal::Exception &) {
        return 0;
    }
    const std::string encoded = record.toString();
    HMISVC_FUZZ_RECORD again;
    again.fromString(encoded);
    if (again.toString() != encoded)
        __builtin_trap();
    return 0;
}
