// Replaces the global allocation functions of the binary to count each thread's allocations.
// Built as its own object library rather than into a static library, where the linker could
// leave it out.

#include "support/alloc_counter.h"

#include <cstdlib>
#include <new>

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

std::uint64_t krtest::heapAllocations() {
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
