// The kinematic backend's servo model: ideal servos move at the commanded speed and stop
// exactly on the target; the default ones start a control period late, accelerate within
// their limit, lag and settle without overshoot.

#include <cmath>

#include <gtest/gtest.h>

#include <kr/error.h>

#include "sim/helpers.h"

namespace {

using namespace krtest;

TEST(KinematicBackend, IdealServosReachTheirTargetAtTheirSpeedAndStopExactlyOnIt) {
  struct Case {
    float start, target, speed;
    int steps;
    float expected;
  };
  const Case cases[] = {
      {0.0f, 1.0f, 2.0f, 10, 0.2f},     // on the way: 2 rad/s over 0.1 s
      {0.0f, 1.0f, 2.0f, 60, 1.0f},     // arrived and held
      {0.5f, -0.3f, 1.0f, 100, -0.3f},  // downward
      {0.4f, 0.9f, 0.0f, 100, 0.4f},    // no speed: stays
  };
  for (const auto& c : cases) {
    KinematicBackend backend(3, KR::Sim::ServoModel::ideal());
    backend.resetJoint(1, c.start);
    backend.setJointTarget(1, c.target, c.speed);
    for (int i = 0; i < c.steps; ++i)
      backend.step(0.01);
    EXPECT_NEAR(backend.jointAngle(1), c.expected, 1e-5f) << c.start << " -> " << c.target;
    EXPECT_FLOAT_EQ(backend.jointAngle(0), 0.0f);
  }
  KinematicBackend backend(2, KR::Sim::ServoModel::ideal());
  backend.setJointTarget(0, 1.0f, 2.0f);
  backend.step(0.01);
  EXPECT_FLOAT_EQ(backend.jointVelocity(0), 2.0f);
  EXPECT_THROW(backend.setJointTarget(2, 0.0f, 1.0f), KR::KRError);
  EXPECT_THROW(backend.jointAngle(5), KR::KRError);
}

TEST(KinematicBackend, ServosStartAPeriodLateAccelerateLagAndSettleWithoutOvershoot) {
  struct Case {
    float start, target, speed;
  };
  const KR::Sim::ServoModel servo;  // 30 rad/s^2, 20 ms lag, one period of delay
  const float dt = 0.01f;
  for (const Case c : {Case{0.0f, 1.0f, 7.0f}, Case{0.5f, -0.3f, 1.0f}, Case{0.0f, 0.05f, 7.0f},
                       Case{-1.0f, 1.5f, 3.0f}}) {
    KinematicBackend backend(1, servo);
    backend.resetJoint(0, c.start);
    backend.setJointTarget(0, c.target, c.speed);
    backend.step(dt);
    EXPECT_FLOAT_EQ(backend.jointAngle(0), c.start) << "the command is not yet in effect";
    const float direction = c.target > c.start ? 1.0f : -1.0f;
    const float distance = std::fabs(c.target - c.start);
    // An ideal servo would arrive after the delay and distance / speed.
    const int idealSteps = 1 + static_cast<int>(std::ceil(distance / c.speed / dt));
    float previousVelocity = 0.0f;
    float farthest = 0.0f;  // along the direction of travel, from the start
    for (int i = 1; i < 400; ++i) {
      backend.step(dt);
      const float v = backend.jointVelocity(0);
      EXPECT_LE(std::fabs(v), c.speed + 1e-3f) << i;
      // Within the acceleration, but for the last step that lands on the target.
      EXPECT_LE(std::fabs(v - previousVelocity), 1.1f * servo.acceleration * dt) << i;
      previousVelocity = v;
      farthest = std::max(farthest, direction * (backend.jointAngle(0) - c.start));
      if (i + 1 == idealSteps) {
        EXPECT_GT(std::fabs(backend.jointAngle(0) - c.target), 0.01f * distance) << "trails";
      }
    }
    EXPECT_LE(farthest, distance + 1e-5f) << "no overshoot";
    EXPECT_NEAR(backend.jointAngle(0), c.target, 1e-5f);
    EXPECT_NEAR(backend.jointVelocity(0), 0.0f, 1e-4f);
  }
}

}  // namespace
