#include "alloc_counter.h"

#include <atomic>
#include <cstdlib>
#include <new>

#pragma GCC diagnostic ignored "-Wmismatched-new-delete"

namespace {
std::atomic<uint64_t> g_allocations{0};
}

namespace vesk {
namespace test {
uint64_t AllocationCount() { return g_allocations.load(std::memory_order_relaxed); }
}  // namespace test
}  // namespace vesk

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
void* operator new(size_t size) {
  g_allocations.fetch_add(1, std::memory_order_relaxed);
  void* p = malloc(size ? size : 1);
  if (p == nullptr) abort();
  return p;
}
void* operator new[](size_t size) { return operator new(size); }
void operator delete(void* p) noexcept { free(p); }
void operator delete[](void* p) noexcept { free(p); }
void operator delete(void* p, size_t) noexcept { free(p); }
void operator delete[](void* p, size_t) noexcept { free(p); }
#endif
