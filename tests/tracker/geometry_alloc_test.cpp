// The look-at and point-at functions run in 100 Hz control loops: once the caller's lists have
// room, a call must not touch the heap. Counted by replacing the global allocation functions
// of this test binary; only calls made while a counter is armed on this thread are counted.

#include <cstdlib>
#include <new>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <krtracker/tools/tools.h>

#include "geometry_test_util.h"

namespace {
thread_local bool tCounting = false;
thread_local long tAllocations = 0;

void* allocate(std::size_t size) {
  if (tCounting)
    ++tAllocations;
  if (void* p = std::malloc(size == 0 ? 1 : size))
    return p;
  throw std::bad_alloc();
}
}  // namespace

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

namespace {

using KR::Math::Position3D;
namespace tools = KR::Tracker::tools;

/// Heap allocations made by f on this thread.
template <class F>
long allocationsOf(F f) {
  tAllocations = 0;
  tCounting = true;
  f();
  tCounting = false;
  return tAllocations;
}

TEST(GeometryAllocation, CountingSeesAnAllocation) {
  // Guards the measure itself: a growing vector must be seen.
  std::vector<int> v;
  EXPECT_GT(allocationsOf([&] { v.push_back(1); }), 0);
}

TEST(GeometryAllocation, NoHeapUseOnceTheListsHaveRoom) {
  const KR::Model::KRTrackerModel model = geomtest::loadModel("kibo.xml");
  std::vector<std::string> names;
  std::vector<float> angles;
  names.reserve(16);
  angles.reserve(16);
  KR::Model::TrackerHeadAngle headAngle;
  KR::Model::TrackerArmAngle armAngle;
  const Position3D target(0.9f, 0.2f, 0.1f);

  const long count = allocationsOf([&] {
    for (int i = 0; i < 10; ++i) {
      names.clear();
      angles.clear();
      tools::computeLookAtAngles(target, model, KR::Model::TRACK_EFFECTOR_CAMERA_TOP, false, names,
                                 angles);
      tools::computeLookAtAngles(target, model, KR::Model::TRACK_EFFECTOR_DEPTH_CAMERA, true, names,
                                 angles);
      tools::computeLookAtWB(target, model, KR::Model::TRACK_EFFECTOR_CAMERA_TOP, 0.01f, headAngle,
                             names, angles);
      tools::applyThreshold(0.01f, 0.1f, 0.2f, model.head, headAngle, names, angles);
      tools::computePointAtAngles(target, model.leftArm, names, angles);
      tools::applyThreshold(0.01f, 0.1f, 0.2f, 0.3f, 0.4f, 0.5f, model.rightArm, armAngle, names,
                            angles);
    }
  });
  EXPECT_EQ(count, 0);
  EXPECT_EQ(names.size(), 12u);  // the last round: two head entries, then two arms of five
}

}  // namespace
