#include <cmath>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <kr/error.h>
#include <kr/model/modelutils.h>
#include <krsim/base.h>
#include <krsim/kinematic.h>
#include <krsim/motion.h>
#include <krsim/simulation.h>

#include "support/fake_module.h"

namespace {

using KR::Math::Pose2D;
using KR::Sim::BaseController;
using KR::Sim::BaseLimits;
using KR::Sim::KinematicBackend;
using KR::Sim::SimMotion;

void expectPoseNear(const Pose2D& actual, const Pose2D& expected, float tolerance) {
  EXPECT_NEAR(actual.x, expected.x, tolerance);
  EXPECT_NEAR(actual.y, expected.y, tolerance);
  EXPECT_NEAR(KR::Math::modulo2PI(actual.theta - expected.theta), 0.0f, tolerance);
}

TEST(PhysicsFactory, BuildsTheBackendNamedInTheConfigurationAndRefusesOthers) {
  const auto robot = KR::Model::ModelUtils::robotFromXml(krtest::readRobotFile("kibo.xml"));
  const auto joints = KR::Sim::simulatedJoints(*robot);
  ASSERT_GE(joints.size(), 12u);
  EXPECT_EQ(joints[0].joint.name, robot->trackerModel().head.yaw.name);
  EXPECT_EQ(joints[2].chain, "LArm");
  EXPECT_FLOAT_EQ(joints[2].rest, 1.4f);  // arms hang down at start-up
  EXPECT_EQ(KR::Sim::makePhysicsBackend("kinematic", *robot)->name(), "kinematic");
  EXPECT_THAT([&] { KR::Sim::makePhysicsBackend("rigid", *robot); },
              testing::ThrowsMessage<KR::KRError>(testing::HasSubstr("\"rigid\"")));

  KR::Sim::SimulationConfig config;
  config.robotXml = krtest::readRobotFile("kibo.xml");
  config.physics = "rigid";
  EXPECT_THROW(KR::Sim::Simulation{config}, KR::KRError);
}

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

TEST(KinematicBackend, BaseIntegratesItsVelocityInTheRobotFrame) {
  struct Case {
    Pose2D start, velocity;
    int steps;
    Pose2D expected;
  };
  const float pi = static_cast<float>(M_PI);
  const Case cases[] = {
      {{1, 2, pi / 2}, {0.1f, 0, 0}, 100, {1, 2.1f, pi / 2}},  // forward is +y when facing +y
      {{0, 0, 0}, {0, 0.2f, 0}, 50, {0, 0.1f, 0}},             // sideways
      {{0, 0, 0}, {0, 0, -0.5f}, 100, {0, 0, -0.5f}},          // turn on the spot
      // A full circle of radius 0.1 / 0.5 comes back to the start.
      {{0.3f, 0, 0}, {0.1f, 0, 0.5f}, 1257, {0.3f, 0, 0}},
  };
  for (const auto& c : cases) {
    KinematicBackend backend(0);
    backend.resetBase(c.start);
    backend.setBaseVelocity(c.velocity);
    for (int i = 0; i < c.steps; ++i)
      backend.step(0.01);
    expectPoseNear(backend.basePose(), c.expected, 2e-3f);
  }
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

/// A base whose wheels slip: it covers half of what it is asked.
class SlippingBackend : public KinematicBackend {
 public:
  using KinematicBackend::KinematicBackend;
  void setBaseVelocity(const Pose2D& v) override {
    KinematicBackend::setBaseVelocity({0.5f * v.x, 0.5f * v.y, 0.5f * v.theta});
  }
};

TEST(SimMotionPhysics, OdometryFollowsTheMeasuredMotionAndJointsComeFromTheBackend) {
  const auto robot = KR::Model::ModelUtils::robotFromXml(krtest::readRobotFile("kibo.xml"));
  auto clock = std::make_shared<KR::Sim::SimClock>();
  auto backend = std::make_unique<SlippingBackend>(KR::Sim::simulatedJoints(*robot).size());
  SlippingBackend* physics = backend.get();
  SimMotion motion(*robot, clock, std::move(backend));
  EXPECT_FLOAT_EQ(physics->jointAngle(2), 1.4f);  // rest angles handed to the backend
  motion.move(0.1f, 0.0f, 0.2f);
  for (int i = 0; i < 100; ++i)
    motion.step(0.01);
  expectPoseNear(motion.getOdometryPose(), motion.getTruePose(), 1e-4f);
  // Half of the turn commanded, less what the start-up acceleration costs: w^2 / (2 a).
  const float turn = 0.2f - 0.2f * 0.2f / (2.0f * motion.getBaseLimits().maxAngularAcceleration);
  EXPECT_NEAR(motion.getTruePose().theta, 0.5f * turn, 1e-3f);
  physics->resetJoint(0, 0.7f);
  EXPECT_FLOAT_EQ(motion.getAngle(robot->trackerModel().head.yaw.name), 0.7f);
}

}  // namespace
