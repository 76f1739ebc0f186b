// A global operator new that can be told to fail, so that running out of memory is tested in
// every build: under AddressSanitizer the allocator aborts rather than throwing, and an
// address-space limit starves the sanitizer itself.
#include "failing_new.h"

#include <stdlib.h>

#include <atomic>
#include <new>

static std::atomic<long> countdown{-1};

void FailAllocationsAfter(long n) { countdown.store(n); }

void operator delete(void* p) noexcept { free(p); }
void operator delete(void* p, size_t) noexcept { free(p); }

void* operator new(size_t size) {
    long n = countdown.load(std::memory_order_relaxed);
    if (n == 0) throw std::bad_alloc();  // and every allocation after it
    if (n > 0) countdown.store(n - 1, std::memory_order_relaxed);
    void* p = malloc(size ? size : 1);
    if (p == nullptr) throw std::bad_alloc();
    return p;
}
