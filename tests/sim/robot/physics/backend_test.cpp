// What every physics backend does, checked on each: the joint order they share, joints and
// base at rest at start-up, resets, servos that reach their target no faster than commanded
// and within their limits, a base that follows its velocity in the robot frame and stops, and
// the same states for the same commands. Where the backends differ (servo and base lags), the
// difference is a tolerance of the backend's case.

#include <cmath>
#include <set>

#include <gmock/gmock.h>

#include <kr/error.h>
#include <krsim/robot/physics/factory.h>

#include "sim/helpers.h"

namespace {

using namespace krtest;
using KR::Sim::PhysicsBackend;

TEST(SimulatedJoints, HeadThenArmsInChainOrderThenTheRestEachOnceAtRestWithinItsLimits) {
  for (const std::string file : {"kibo.xml", "rover.xml"}) {
    SCOPED_TRACE(file);
    const auto robot = loadRobot(file);
    const auto& model = robot->trackerModel();
    const auto joints = KR::Sim::simulatedJoints(*robot);
    ASSERT_EQ(joints.size(), robot->getJoints().size());
    EXPECT_EQ(joints[0].joint.name, model.head.yaw.name);
    EXPECT_EQ(joints[1].joint.name, model.head.pitch.name);
    EXPECT_EQ(joints[0].chain, "Head");
    std::size_t i = 2;
    for (const auto* arm : {&model.leftArm, &model.rightArm}) {
      for (std::size_t k = 0; k < arm->joints.size(); ++k) {
        if (arm->joints[k].name.empty())
          continue;  // a joint this arm lacks
        ASSERT_LT(i, joints.size());
        EXPECT_EQ(joints[i].joint.name, arm->joints[k].name);
        EXPECT_EQ(joints[i].chain, arm == &model.leftArm ? "LArm" : "RArm");
        ++i;
      }
    }
    std::set<std::string> names;
    for (const auto& j : joints) {
      EXPECT_TRUE(names.insert(j.joint.name).second) << j.joint.name << " twice";
      EXPECT_EQ(robot->getJoints().count(j.joint.name), 1u) << j.joint.name;
      EXPECT_GE(j.rest, j.joint.min) << j.joint.name;
      EXPECT_LE(j.rest, j.joint.max) << j.joint.name;
    }
    // Arms hang down at start-up, as far as the shoulder allows.
    EXPECT_FLOAT_EQ(joints[2].rest, std::min(1.4f, model.leftArm.joints[0].max));
  }
}

/// A backend of the contract, with what may differ between backends.
struct BackendCase {
  std::string name;
  float servoLagS;  // how long a servo may trail its ramp once under way [s]
  float baseLagS;   // how long the base takes to reach its velocity [s]
  float baseXY;     // tolerance on the base's position beyond its lag [m]
  float baseTheta;  // tolerance on its heading beyond its lag [rad]
};

// The kinematic servo trails its ramp by a period of delay, its lag and the time its
// acceleration costs (up to 4 rad/s / 2 / 30 rad/s^2); the MuJoCo servo feeds the ramp's speed
// forward, and its base reaches its speed within a few hundredths of a second, the arms'
// weight twisting it a little as it starts.
const BackendCase kBackends[] = {
    {"kinematic", 0.1f, 0.0f, 2e-3f, 2e-3f},
    {"mujoco", 0.0f, 0.02f, 1e-3f, 4e-3f},
};

void PrintTo(const BackendCase& c, std::ostream* os) {
  *os << c.name;
}

class PhysicsBackendContract : public ::testing::TestWithParam<BackendCase> {
 protected:
  std::unique_ptr<PhysicsBackend> make(const std::string& robotFile) {
    return KR::Sim::makePhysicsBackend(GetParam().name, *loadRobot(robotFile));
  }
};

TEST_P(PhysicsBackendContract, StartsAtRestAndRefusesAJointTheRobotLacks) {
  for (const std::string file : {"kibo.xml", "rover.xml"}) {
    SCOPED_TRACE(file);
    const auto backend = make(file);
    EXPECT_EQ(backend->name(), GetParam().name);
    const std::size_t n = KR::Sim::simulatedJoints(*loadRobot(file)).size();
    for (std::size_t i = 0; i < n; ++i) {
      EXPECT_FLOAT_EQ(backend->jointAngle(i), 0.0f) << i;
      EXPECT_FLOAT_EQ(backend->jointVelocity(i), 0.0f) << i;
    }
    EXPECT_EQ(backend->basePose(), Pose2D());
    EXPECT_THROW(backend->jointAngle(n), KR::KRError);
    EXPECT_THROW(backend->jointVelocity(n), KR::KRError);
    EXPECT_THROW(backend->setJointTarget(n, 0.0f, 1.0f), KR::KRError);
    EXPECT_THROW(backend->resetJoint(n, 0.0f), KR::KRError);
  }
}

TEST_P(PhysicsBackendContract, ResetsPutJointsAndBaseWhereAskedAtRest) {
  const auto backend = make("kibo.xml");
  backend->setJointTarget(1, 0.4f, 2.0f);
  backend->setBaseVelocity({0.1f, 0.0f, 0.5f});
  for (int k = 0; k < 20; ++k)
    backend->step(0.01);
  ASSERT_GT(std::fabs(backend->jointVelocity(1)), 0.1f) << "under way before the reset";

  backend->resetJoint(1, -0.2f);
  const Pose2D pose{0.5f, -1.5f, 2.0f};
  backend->resetBase(pose);
  EXPECT_FLOAT_EQ(backend->jointAngle(1), -0.2f);
  EXPECT_FLOAT_EQ(backend->jointVelocity(1), 0.0f);
  EXPECT_EQ(backend->basePose(), pose);
  // The velocity command went with the reset: the base stays.
  for (int k = 0; k < 10; ++k)
    backend->step(0.01);
  EXPECT_NEAR(backend->basePose().x, pose.x, 1e-5f);
  EXPECT_NEAR(backend->basePose().y, pose.y, 1e-5f);
  EXPECT_NEAR(backend->basePose().theta, pose.theta, 1e-5f);
}

std::size_t jointIndex(const KR::Model::Robot& robot, const std::string& name) {
  const auto joints = KR::Sim::simulatedJoints(robot);
  for (std::size_t i = 0; i < joints.size(); ++i) {
    if (joints[i].joint.name == name)
      return i;
  }
  ADD_FAILURE() << "no joint " << name;
  return 0;
}

TEST_P(PhysicsBackendContract, ServosReachTheirTargetNoFasterThanCommandedAndWithinTheirLimits) {
  struct Case {
    const char* robot;
    const char* joint;
    float start, target, speed;
  };
  const Case cases[] = {
      {"kibo.xml", "HeadYaw", 0.0f, 1.2f, 2.0f},
      {"kibo.xml", "HeadPitch", 0.0f, 0.47f, 1.0f},  // up to its limit, against gravity
      {"kibo.xml", "LShoulderPitch", 1.4f, -0.5f, 3.0f},
      {"rover.xml", "HeadPitch", 0.3f, -0.6f, 1.5f},
      {"rover.xml", "RElbowRoll", 0.0f, 1.2f, 4.0f},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.robot) + " " + c.joint);
    const auto robot = loadRobot(c.robot);
    const auto& joint = robot->getJoints().at(c.joint);
    const std::size_t i = jointIndex(*robot, c.joint);
    const auto backend = KR::Sim::makePhysicsBackend(GetParam().name, *robot);
    backend->resetJoint(i, c.start);
    backend->setJointTarget(i, c.target, c.speed);
    const double ramp = std::fabs(c.target - c.start) / c.speed;
    const float trail = GetParam().servoLagS * c.speed + 0.05f;  // [rad]
    float fastest = 0.0f;
    for (double t = 0.01; t < ramp + 1.0; t += 0.01) {
      backend->step(0.01);
      const float q = backend->jointAngle(i);
      fastest = std::max(fastest, std::fabs(backend->jointVelocity(i)));
      // On the ramp, as far as the commanded speed allows; never beyond the range.
      EXPECT_LE(std::fabs(q - c.start), c.speed * t + 0.02f) << "t=" << t;
      EXPECT_GE(q, joint.min - 0.02f);
      EXPECT_LE(q, joint.max + 0.02f);
      if (t > 0.5 * ramp && t < 0.9 * ramp) {  // the servo keeps up with the ramp
        EXPECT_GE(std::fabs(q - c.start), c.speed * t - trail) << "t=" << t;
      }
    }
    // A critically damped servo overshoots the ramp's speed (by e^-2 in continuous time) as
    // it catches up with the start of the ramp.
    EXPECT_LE(fastest, 1.2f * c.speed);
    // Arrived, with at most a small sag under gravity, and at rest.
    EXPECT_NEAR(backend->jointAngle(i), c.target, 0.02f);
    EXPECT_NEAR(backend->jointVelocity(i), 0.0f, 0.02f);
  }
}

TEST_P(PhysicsBackendContract, BaseFollowsItsVelocityInTheRobotFrameAndStops) {
  struct Case {
    const char* robot;
    Pose2D start, velocity;
    int steps;
    Pose2D expected;
    bool anyBase;  // false: a base with inertia strays from it (see below)
  };
  const float pi = static_cast<float>(M_PI);
  const Case cases[] = {
      // Forward is +y when facing +y.
      {"kibo.xml", {1, 2, pi / 2}, {0.1f, 0, 0}, 100, {1, 2.1f, pi / 2}, true},
      {"kibo.xml", {0, 0, 0}, {0, 0, -0.5f}, 100, {0, 0, -0.5f}, true},  // on the spot
      {"rover.xml", {0, 0, 0}, {0, 0.3f, 0}, 200, {0, 0.6f, 0}, true},   // sideways
      {"rover.xml", {0, 0, 1}, {0, 0, -0.5f}, 200, {0, 0, 0}, true},
      // The light humanoid's arms twist its base by 5 mrad as it starts sideways, and a lag
      // accumulates along a curve: exact for a base without inertia only.
      {"kibo.xml", {0, 0, 0}, {0, 0.2f, 0}, 50, {0, 0.1f, 0}, false},
      // A full circle of radius 0.1 / 0.5 comes back to the start.
      {"kibo.xml", {0.3f, 0, 0}, {0.1f, 0, 0.5f}, 1257, {0.3f, 0, 0}, false},
  };
  const BackendCase& b = GetParam();
  for (const auto& c : cases) {
    if (!c.anyBase && b.baseLagS > 0.0f)
      continue;
    SCOPED_TRACE(std::string(c.robot) + " " + std::to_string(c.steps));
    const auto backend = make(c.robot);
    backend->resetBase(c.start);
    backend->setBaseVelocity(c.velocity);
    for (int k = 0; k < c.steps; ++k)
      backend->step(0.01);
    const float xy = b.baseLagS * std::hypot(c.velocity.x, c.velocity.y) + b.baseXY;
    const Pose2D p = backend->basePose();
    EXPECT_NEAR(p.x, c.expected.x, xy);
    EXPECT_NEAR(p.y, c.expected.y, xy);
    EXPECT_NEAR(KR::Math::modulo2PI(p.theta - c.expected.theta), 0.0f,
                b.baseLagS * std::fabs(c.velocity.theta) + b.baseTheta);
    backend->setBaseVelocity({});
    for (int k = 0; k < 50; ++k)
      backend->step(0.01);
    const Pose2D still = backend->basePose();
    backend->step(0.01);
    EXPECT_NEAR(backend->basePose().x, still.x, 1e-5f);
    EXPECT_NEAR(backend->basePose().y, still.y, 1e-5f);
    EXPECT_NEAR(backend->basePose().theta, still.theta, 1e-5f);
  }
}

TEST_P(PhysicsBackendContract, SameCommandsGiveTheSameStatesBitForBit) {
  auto play = [&] {
    const auto backend = make("kibo.xml");
    std::vector<float> trace;
    for (int k = 0; k < 200; ++k) {
      if (k % 20 == 0) {
        backend->setJointTarget(0, std::sin(0.1f * k), 3.0f);
        backend->setJointTarget(1, 0.3f * std::cos(0.1f * k), 2.0f);
        backend->setBaseVelocity({0.1f, 0.05f * std::sin(0.2f * k), 0.3f});
      }
      backend->step(0.01);
      trace.push_back(backend->jointAngle(0));
      trace.push_back(backend->jointVelocity(1));
      trace.push_back(backend->basePose().theta);
    }
    return trace;
  };
  const auto first = play();
  EXPECT_EQ(first, play());
  EXPECT_NE(first[3], first.back());  // it moved
}

INSTANTIATE_TEST_SUITE_P(EachBackend, PhysicsBackendContract, ::testing::ValuesIn(kBackends),
                         [](const auto& info) { return info.param.name; });

}  // namespace
