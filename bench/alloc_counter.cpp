// Counts the heap allocations of the calling thread by replacing the global allocation
// functions of the binary. The benchmarks report the count per iteration, and the setup checks
// refuse a hot path that allocates.

#include <cstdint>
#include <cstdlib>
#include <new>

#include "bench_support.h"

namespace {
thread_local std::uint64_t tAllocations = 0;

void* allocate(std::size_t size) {
  ++tAllocations;
  if (void* p = std::malloc(size == 0 ? 1 : size)) {
    return p;
  }
  throw std::bad_alloc();
}
}  // namespace

std::uint64_t krbench::heapAllocations() {
  return tAllocations;
}

void* operator new(std::size_t size) {
  return allocate(size);
}
void* operator new[](std::size_t size) {
  return allocate(size);
}
void operator delete(void* p) noexcept {
  std::free(p);
}
void operator delete[](void* p) noexcept {
  std::free(p);
}
void operator delete(void* p, std::size_t) noexcept {
  std::free(p);
}
void operator delete[](void* p, std::size_t) noexcept {
  std::free(p);
}
