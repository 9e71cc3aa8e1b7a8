// The look-at and point-at functions run in 100 Hz control loops: once the caller's lists have
// room, a call must not touch the heap. Counted by replacing the global allocation functions
// of this test binary (support/alloc_counter.cpp), per thread.

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <krtracker/tools/tools.h>

#include "geometry_test_util.h"
#include "support/alloc_counter.h"

namespace {

using namespace geomtest;
using krtest::allocationsOf;

TEST(GeometryAllocation, CountingSeesAnAllocation) {
  // Guards the measure itself: a growing vector must be seen.
  std::vector<int> v;
  EXPECT_GT(allocationsOf([&] { v.push_back(1); }), 0u);
}

TEST(GeometryAllocation, NoHeapUseOnceTheListsHaveRoom) {
  const KR::Model::KRTrackerModel model = loadModel("kibo.xml");
  std::vector<std::string> names;
  std::vector<float> angles;
  names.reserve(16);
  angles.reserve(16);
  KR::Model::TrackerHeadAngle headAngle;
  KR::Model::TrackerArmAngle armAngle;
  const Position3D target(0.9f, 0.2f, 0.1f);

  const std::uint64_t count = allocationsOf([&] {
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
  EXPECT_EQ(count, 0u);
  EXPECT_EQ(names.size(), 12u);  // the last round: two head entries, then two arms of five
}

}  // namespace
