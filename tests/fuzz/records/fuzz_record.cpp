// Decodes arbitrary bytes into one record kind (HMISVC_FUZZ_RECORD). Only the
// archive's read error and the standard library's length and allocation
// errors may leave fromString; anything else crashes the run. What decodes
// must encode to bytes that decode back to the same encoding.
#include <hmisvc/broadcast.h>
#include <hmisvc/records.h>

#include <cereal/details/helpers.hpp>

#include <cstdint>
#include <cstdlib>
#include <new>
#include <stdexcept>
#include <string>

// A size field can ask for a string of gigabytes, which the device's
// allocator refuses with std::bad_alloc. Here the refusal comes sooner: while
// a decode runs, operator new throws std::bad_alloc for any block larger than
// decoding that input can legitimately need (no string outgrows the input).
// ASan's own operator new would abort on a refused block instead, even with
// allocator_may_return_null; that option stays set so that a malloc refused
// outside the cap also ends as std::bad_alloc.
extern "C" const char *__asan_default_options() { return "allocator_may_return_null=1"; }

namespace {
std::size_t allocationCap = SIZE_MAX;

struct CappedAllocations {
    explicit CappedAllocations(std::size_t inputSize) { allocationCap = inputSize + (std::size_t(1) << 16); }
    ~CappedAllocations() { allocationCap = SIZE_MAX; }
};
} // namespace

// The whole unaligned family is replaced, since libFuzzer frees with plain
// delete what it took with new(std::nothrow).
namespace {
void *allocate(std::size_t size) noexcept
{
    return size <= allocationCap ? std::malloc(size ? size : 1) : nullptr;
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
    } catch (const std::length_error &) {
        return 0;
    } catch (const std::bad_alloc &) {
        return 0;
    }
    const std::string encoded = record.toString();
    HMISVC_FUZZ_RECORD again;
    again.fromString(encoded);
    if (again.toString() != encoded)
        __builtin_trap();
    return 0;
}
