#include "AllocCounter.h"

#include <atomic>
#include <cstdlib>
#include <new>

namespace {
std::atomic<uint64_t> g_Allocations{0};

void* Allocate(std::size_t Size) {
  g_Allocations.fetch_add(1, std::memory_order_relaxed);
  if (void* p = std::malloc(Size == 0 ? 1 : Size)) return p;
  throw std::bad_alloc();
}
}  // namespace

namespace klbench {
uint64_t AllocationCount() { return g_Allocations.load(); }
}  // namespace klbench

// Replacements of the global allocation functions: every other form forwards here.
void* operator new(std::size_t Size) { return Allocate(Size); }
void* operator new[](std::size_t Size) { return Allocate(Size); }
void* operator new(std::size_t Size, const std::nothrow_t&) noexcept {
  try {
    return Allocate(Size);
  } catch (...) {
    return nullptr;
  }
}
void* operator new[](std::size_t Size, const std::nothrow_t&) noexcept {
  try {
    return Allocate(Size);
  } catch (...) {
    return nullptr;
  }
}
void operator delete(void* P) noexcept { std::free(P); }
void operator delete[](void* P) noexcept { std::free(P); }
void operator delete(void* P, std::size_t) noexcept { std::free(P); }
void operator delete[](void* P, std::size_t) noexcept { std::free(P); }
