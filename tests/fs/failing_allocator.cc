// Replaces the global allocation functions of this whole program (the library
// included); kept apart so the compiler never sees them next to their callers.
#include <stdlib.h>

#include <atomic>
#include <new>

namespace fstest {
std::atomic<bool> failAllocations(false);  // while true, every allocation throws
}

void* operator new(std::size_t n) {
    if (fstest::failAllocations.load(std::memory_order_relaxed)) throw std::bad_alloc();
    if (void* p = ::malloc(n ? n : 1)) return p;
    throw std::bad_alloc();
}
void operator delete(void* p) noexcept { ::free(p); }
void operator delete(void* p, std::size_t) noexcept { ::free(p); }
