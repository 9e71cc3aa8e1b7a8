// The base controller: displacements between poses, and goals planned step by step within the
// base's limits from a drifting odometry.

#include <cmath>

#include <gtest/gtest.h>

#include "sim/helpers.h"

namespace {

using namespace krtest;

void expectPoseNear(const Pose2D& actual, const Pose2D& expected, float tolerance) {
  EXPECT_NEAR(actual.x, expected.x, tolerance);
  EXPECT_NEAR(actual.y, expected.y, tolerance);
  EXPECT_NEAR(KR::Math::modulo2PI(actual.theta - expected.theta), 0.0f, tolerance);
}

TEST(BaseController, DisplacementsRoundTripAndGoalsEndOnTheGoal) {
  const Pose2D poses[] = {{0, 0, 0}, {1.5f, -2, 3.1f}, {-0.4f, 0.7f, -3.1f}};
  const Pose2D moves[] = {{0.01f, 0, 0}, {0.002f, -0.001f, 0.02f}, {0, 0, -0.3f}};
  for (const auto& p : poses) {
    for (const auto& d : moves)
      expectPoseNear(KR::Sim::displacementBetween(p, KR::Sim::displace(p, d)), d, 1e-5f);
  }

  // A goal is planned step by step from the measured odometry, within the limits, and ends.
  BaseController base(BaseLimits{0.2f, 1.0f});
  base.setDrift(0.1f, 0.0f);
  base.moveTo(0.3f, 0.1f, -0.4f);
  int steps = 0;
  for (; base.isActive() && steps < 1000; ++steps) {
    const Pose2D d = base.plan(0.01);
    EXPECT_LE(std::hypot(d.x, d.y), 0.2f * 0.01f + 1e-6f);
    EXPECT_LE(std::fabs(d.theta), 1.0f * 0.01f + 1e-6f);
    base.moved(d);
  }
  EXPECT_LT(steps, 1000);
  expectPoseNear(base.odometry(), {0.3f, 0.1f, -0.4f}, 2e-3f);
  EXPECT_EQ(base.commandedVelocity(), Pose2D());
  // Drift scales what odometry makes of a displacement.
  expectPoseNear(base.odometryAfter({0.1f, 0, 0}),
                 KR::Sim::displace(base.odometry(), {0.11f, 0, 0}), 1e-6f);
}

}  // namespace
