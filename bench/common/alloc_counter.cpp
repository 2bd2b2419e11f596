#include "alloc_counter.h"

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <new>

extern "C" {
void *__libc_malloc(size_t n);
void *__libc_calloc(size_t count, size_t n);
void *__libc_realloc(void *p, size_t n);
void *__libc_memalign(size_t align, size_t n);
}

namespace {
std::atomic<unsigned long> allocations{0};

void *counted(void *p)
{
    allocations.fetch_add(1, std::memory_order_relaxed);
    return p;
}
}  // namespace

unsigned long heap_allocations() { return allocations.load(std::memory_order_relaxed); }

extern "C" {
void *malloc(size_t n) noexcept { return counted(__libc_malloc(n)); }
void *calloc(size_t count, size_t n) noexcept { return counted(__libc_calloc(count, n)); }
void *realloc(void *p, size_t n) noexcept { return counted(__libc_realloc(p, n)); }
void *aligned_alloc(size_t align, size_t n) noexcept
{
    return counted(__libc_memalign(align, n));
}
void *memalign(size_t align, size_t n) noexcept { return counted(__libc_memalign(align, n)); }
int posix_memalign(void **out, size_t align, size_t n) noexcept
{
    void *p = counted(__libc_memalign(align, n));
    if (!p)
        return ENOMEM;
    *out = p;
    return 0;
}
}

// operator new reaches malloc in libstdc++ already; defining it here keeps
// the count right should a standard library allocate otherwise.
void *operator new(std::size_t n)
{
    if (void *p = __libc_malloc(n ? n : 1))
        return counted(p);
    throw std::bad_alloc();
}
void *operator new[](std::size_t n) { return operator new(n); }
void operator delete(void *p) noexcept { std::free(p); }
void operator delete[](void *p) noexcept { std::free(p); }
void operator delete(void *p, std::size_t) noexcept { std::free(p); }
void operator delete[](void *p, std::size_t) noexcept { std::free(p); }
