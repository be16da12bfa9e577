#pragma once

#include <cstddef>

// Counted by the replaced global operator new of this test binary.
std::size_t allocationsOnThisThread();

// Allocations made by this thread while the counter lives.
class AllocationCounter {
  public:
    std::size_t count() const { return allocationsOnThisThread() - start; }

  private:
    std::size_t start = allocationsOnThisThread();
};
