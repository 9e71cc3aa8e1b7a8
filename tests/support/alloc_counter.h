#pragma once
// Heap allocations of the calling thread, counted by replacing the global allocation functions
// (alloc_counter.cpp). Only a binary that links alloc_counter.cpp counts; the tests and the
// benchmarks that check a hot path for heap use do.

#include <cstdint>

namespace krtest {

/// Allocations made by this thread since it started.
std::uint64_t heapAllocations();

/// Allocations made by f on this thread.
template <class F>
std::uint64_t allocationsOf(F&& f) {
  const std::uint64_t before = heapAllocations();
  f();
  return heapAllocations() - before;
}

}  // namespace krtest
