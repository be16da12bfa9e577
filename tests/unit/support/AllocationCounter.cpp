// The global allocation functions of this test binary count per thread, so
// that a test can prove that a code path allocates nothing. The array, sized
// and nothrow forms of the standard library call these.
#include "AllocationCounter.h"

#include <cstdlib>
#include <new>

namespace {
thread_local std::size_t allocations = 0;
}  // namespace

std::size_t allocationsOnThisThread() {
    return allocations;
}

void* operator new(std::size_t size) {
    ++allocations;
    if (void* memory = std::malloc(size == 0 ? 1 : size)) return memory;
    throw std::bad_alloc();
}
void operator delete(void* memory) noexcept {
    std::free(memory);
}
void operator delete(void* memory, std::size_t) noexcept {
    std::free(memory);
}
