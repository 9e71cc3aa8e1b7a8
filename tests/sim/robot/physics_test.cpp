// The robot's physics: the backend factory, the kinematic servos and base, the base
// controller, SimMotion on a backend; the MuJoCo model built from each description, its servos
// and base, determinism, the faults a user meets, every scenario end to end on it.

#include <cmath>
#include <cstdio>
#include <cstdlib>

#include <gmock/gmock.h>

#include <kr/error.h>

#include "sim/helpers.h"

namespace {

using namespace krtest;
using testing::AllOf;
using testing::HasSubstr;

void expectPoseNear(const Pose2D& actual, const Pose2D& expected, float tolerance) {
  EXPECT_NEAR(actual.x, expected.x, tolerance);
  EXPECT_NEAR(actual.y, expected.y, tolerance);
  EXPECT_NEAR(KR::Math::modulo2PI(actual.theta - expected.theta), 0.0f, tolerance);
}

/// A simulation of that description on that physics backend is refused.
void expectNoSimulation(const std::string& xml, const std::string& physics) {
  KR::Sim::SimulationConfig config;
  config.robot = KR::Sim::RobotDescription::fromText(xml);
  config.physics = physics;
  EXPECT_THROW(Simulation{config}, KR::KRError);
}

TEST(PhysicsFactory, BuildsTheBackendNamedInTheConfigurationAndRefusesOthers) {
  const auto robot = loadRobot("kibo.xml");
  const auto joints = KR::Sim::simulatedJoints(*robot);
  ASSERT_GE(joints.size(), 12u);
  EXPECT_EQ(joints[0].joint.name, robot->trackerModel().head.yaw.name);
  EXPECT_EQ(joints[2].chain, "LArm");
  EXPECT_FLOAT_EQ(joints[2].rest, 1.4f);  // arms hang down at start-up
  EXPECT_EQ(KR::Sim::makePhysicsBackend("kinematic", *robot)->name(), "kinematic");
  EXPECT_THAT([&] { KR::Sim::makePhysicsBackend("rigid", *robot); },
              testing::ThrowsMessage<KR::KRError>(
                  AllOf(HasSubstr("\"rigid\""), HasSubstr("accepted: kinematic, mujoco"))));
  expectNoSimulation(readRobotFile("kibo.xml"), "rigid");
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
  const auto robot = loadRobot("kibo.xml");
  auto backend = std::make_unique<SlippingBackend>(KR::Sim::simulatedJoints(*robot).size());
  SlippingBackend* physics = backend.get();
  SimMotion motion(*robot, std::make_shared<SimClock>(), std::move(backend));
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

std::size_t jointIndex(const KR::Model::Robot& robot, const std::string& name) {
  const auto joints = KR::Sim::simulatedJoints(robot);
  for (std::size_t i = 0; i < joints.size(); ++i) {
    if (joints[i].joint.name == name)
      return i;
  }
  ADD_FAILURE() << "no joint " << name;
  return 0;
}

TEST(MujocoModel, EachDescriptionBecomesAModelThatLoadsWithItsJointsServosAndCameras) {
  for (const std::string file : {"kibo.xml", "rover.xml"}) {
    SCOPED_TRACE(file);
    const auto robot = loadRobot(file);
    const std::string xml = KR::Sim::mujocoModelXml(*robot);
    for (const auto& entry : robot->getJoints()) {
      const auto& j = entry.second;
      const auto servo = robot->getServo(j.name);
      // The joint with its range, and a position servo with the description's gain and torque.
      EXPECT_THAT(xml, HasSubstr("<joint name=\"" + j.name + "\""));
      std::ostringstream actuator;
      actuator << "<position name=\"" << j.name << "\" joint=\"" << j.name << "\" kp=\""
               << servo.stiffness << "\" forcelimited=\"true\" forcerange=\"" << -servo.maxTorque
               << " " << servo.maxTorque << "\"";
      EXPECT_THAT(xml, HasSubstr(actuator.str()));
    }
    EXPECT_THAT(xml,
                AllOf(HasSubstr("name=\"CameraTop\""), HasSubstr("name=\"DepthCamera\""),
                      HasSubstr("gravity=\"0 0 -9.81\""), HasSubstr("<velocity name=\"BaseYaw\""),
                      HasSubstr("name=\"Target3\" mocap=\"true\"")));
    EXPECT_EQ(xml.find("Target4"), std::string::npos);

    const auto backend = KR::Sim::makePhysicsBackend("mujoco", *robot);
    EXPECT_EQ(backend->name(), "mujoco");
    const std::size_t n = KR::Sim::simulatedJoints(*robot).size();
    EXPECT_FLOAT_EQ(backend->jointAngle(n - 1), 0.0f);
    EXPECT_THROW(backend->jointAngle(n), KR::KRError);
    EXPECT_EQ(backend->basePose(), Pose2D());
  }

  // The physical fields of the description: given in rover.xml, defaults in their absence.
  const auto rover = loadRobot("rover.xml");
  EXPECT_FLOAT_EQ(rover->getTorsoMass(), 28.0f);
  EXPECT_FLOAT_EQ(rover->getArmMass("RArm"), 1.6f);
  EXPECT_FLOAT_EQ(rover->getServo("HeadPitch").stiffness, 60.0f);
  const auto plain = loadRobot("kibo.xml");
  EXPECT_FLOAT_EQ(plain->getHeadMass(), KR::Model::Robot().getHeadMass());
  EXPECT_FLOAT_EQ(plain->getServo("HeadYaw").maxTorque, KR::Model::JointServo().maxTorque);
  EXPECT_THAT(
      [] { loadRobot("kibo.xml", "maxVelocity=\"7.3\"", "maxVelocity=\"7.3\" maxTorque=\"-1\""); },
      testing::ThrowsMessage<KR::KRError>(
          AllOf(HasSubstr("joint[role=yaw]"), HasSubstr("'maxTorque' must be positive"))));
}

TEST(MujocoModel, CamerasSitWhereTheMotionServiceComputesTheHeadEffectors) {
  for (const std::string file : {"kibo.xml", "rover.xml"}) {
    SCOPED_TRACE(file);
    const auto robot = loadRobot(file);
    SimMotion motion(*robot, std::make_shared<SimClock>());
    MujocoBackend backend(*robot);
    const Pose2D base{0.4f, -1.2f, 2.5f};
    motion.resetPose(base);
    backend.resetBase(base);
    for (const auto& angles : {std::pair<float, float>{0.0f, 0.0f}, {1.1f, -0.4f}, {-1.8f, 0.3f}}) {
      motion.setAngleNow("HeadYaw", angles.first);
      motion.setAngleNow("HeadPitch", angles.second);
      backend.resetJoint(0, angles.first);
      backend.resetJoint(1, angles.second);
      for (int e = 0; e < KR::Model::kTrackEffectorCount; ++e) {
        EXPECT_TRUE(backend.effectorPose(e).isNear(motion.getMapToHeadEffector(e), 1e-4f))
            << "effector " << e << " yaw " << angles.first << "\n"
            << backend.effectorPose(e) << "\n"
            << motion.getMapToHeadEffector(e);
      }
    }
  }
}

TEST(MujocoBackend, ServosReachTheirTargetNoFasterThanCommandedAndWithinTheirLimits) {
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
    MujocoBackend backend(*robot);
    backend.resetJoint(i, c.start);
    backend.setJointTarget(i, c.target, c.speed);
    const double ramp = std::fabs(c.target - c.start) / c.speed;
    float fastest = 0.0f;
    for (double t = 0.01; t < ramp + 1.0; t += 0.01) {
      backend.step(0.01);
      const float q = backend.jointAngle(i);
      fastest = std::max(fastest, std::fabs(backend.jointVelocity(i)));
      // On the ramp, as far as the commanded speed allows; never beyond the range.
      EXPECT_LE(std::fabs(q - c.start), c.speed * t + 0.02f) << "t=" << t;
      EXPECT_GE(q, joint.min - 0.02f);
      EXPECT_LE(q, joint.max + 0.02f);
      if (t > 0.5 * ramp && t < 0.9 * ramp) {  // the servo keeps up with the ramp
        EXPECT_NEAR(std::fabs(q - c.start), c.speed * t, 0.05f) << "t=" << t;
      }
    }
    // A critically damped servo overshoots the ramp's speed (by e^-2 in continuous time) as
    // it catches up with the start of the ramp.
    EXPECT_LE(fastest, 1.2f * c.speed);
    // Arrived, with at most a small sag under gravity, and at rest.
    EXPECT_NEAR(backend.jointAngle(i), c.target, 0.02f);
    EXPECT_NEAR(backend.jointVelocity(i), 0.0f, 0.02f);
  }
}

// Both backends move the base at its velocity in the robot frame, and hold it once stopped.
// The MuJoCo base takes a few hundredths of a second to reach its speed, and the arms' weight
// in front of the yaw axis twists it a little as it starts.
TEST(PhysicsBackends, BaseFollowsItsVelocityInTheRobotFrameAndStops) {
  struct Case {
    const char* backend;
    const char* robot;
    Pose2D start, velocity;
    int steps;
    Pose2D expected;
  };
  const float pi = static_cast<float>(M_PI);
  const Case cases[] = {
      // Forward is +y when facing +y.
      {"kinematic", "kibo.xml", {1, 2, pi / 2}, {0.1f, 0, 0}, 100, {1, 2.1f, pi / 2}},
      {"kinematic", "kibo.xml", {0, 0, 0}, {0, 0.2f, 0}, 50, {0, 0.1f, 0}},     // sideways
      {"kinematic", "kibo.xml", {0, 0, 0}, {0, 0, -0.5f}, 100, {0, 0, -0.5f}},  // on the spot
      // A full circle of radius 0.1 / 0.5 comes back to the start.
      {"kinematic", "kibo.xml", {0.3f, 0, 0}, {0.1f, 0, 0.5f}, 1257, {0.3f, 0, 0}},
      {"mujoco", "kibo.xml", {1, 2, pi / 2}, {0.1f, 0, 0}, 200, {1, 2.2f, pi / 2}},
      {"mujoco", "rover.xml", {0, 0, 0}, {0, 0.3f, 0}, 200, {0, 0.6f, 0}},
      {"mujoco", "rover.xml", {0, 0, 1}, {0, 0, -0.5f}, 200, {0, 0, 0}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.backend) + " " + c.robot);
    const auto backend = KR::Sim::makePhysicsBackend(c.backend, *loadRobot(c.robot));
    backend->resetBase(c.start);
    backend->setBaseVelocity(c.velocity);
    for (int k = 0; k < c.steps; ++k)
      backend->step(0.01);
    const bool mujoco = std::string(c.backend) == "mujoco";
    const float lag = mujoco ? 0.02f : 0.0f;  // [s]
    const float xy = lag * std::hypot(c.velocity.x, c.velocity.y) + (mujoco ? 1e-3f : 2e-3f);
    const Pose2D p = backend->basePose();
    EXPECT_NEAR(p.x, c.expected.x, xy);
    EXPECT_NEAR(p.y, c.expected.y, xy);
    EXPECT_NEAR(KR::Math::modulo2PI(p.theta - c.expected.theta), 0.0f,
                lag * std::fabs(c.velocity.theta) + (mujoco ? 4e-3f : 2e-3f));
    backend->setBaseVelocity({});
    for (int k = 0; k < 50; ++k)
      backend->step(0.01);
    const Pose2D still = backend->basePose();
    backend->step(0.01);
    EXPECT_NEAR(backend->basePose().x, still.x, 1e-5f);
    EXPECT_NEAR(backend->basePose().theta, still.theta, 1e-5f);
  }
}

TEST(MujocoBackend, SameCommandsGiveTheSameStatesBitForBit) {
  const auto robot = loadRobot("kibo.xml");
  auto play = [&] {
    MujocoBackend backend(*robot);
    std::vector<float> trace;
    for (int k = 0; k < 200; ++k) {
      if (k % 20 == 0) {
        backend.setJointTarget(0, std::sin(0.1f * k), 3.0f);
        backend.setJointTarget(1, 0.3f * std::cos(0.1f * k), 2.0f);
        backend.setBaseVelocity({0.1f, 0.05f * std::sin(0.2f * k), 0.3f});
      }
      backend.step(0.01);
      trace.push_back(backend.jointAngle(0));
      trace.push_back(backend.jointVelocity(1));
      trace.push_back(backend.basePose().theta);
    }
    return trace;
  };
  const auto first = play();
  EXPECT_EQ(first, play());
  EXPECT_NE(first[3], first.back());  // it moved
}

TEST(MujocoFaults, ARejectedDescriptionNamesTheRobotAndTheField) {
  // Positive, so the description parses, but below what MuJoCo accepts for a moving body.
  const auto robot =
      loadRobot("kibo.xml", "<arm side=\"left\">", "<arm side=\"left\" mass=\"1e-30\">");
  EXPECT_THAT([&] { MujocoBackend backend(*robot); },
              testing::ThrowsMessage<KR::KRError>(AllOf(HasSubstr("robot \"Kibo\""),
                                                        HasSubstr("robot/arm[side=left] (mass)"),
                                                        HasSubstr("mass and inertia"))));
  expectNoSimulation(replaced(readRobotFile("kibo.xml"), "<head ", "<head mass=\"1e-30\" "),
                     "mujoco");
}

TEST(MujocoFaults, AnUnstableSimulationStopsWithAnErrorInsteadOfReportingFigures) {
  // A servo far too stiff for its inertia at this physics step: explicit integration diverges.
  const auto robot =
      loadRobot("kibo.xml", "maxVelocity=\"7.3\"",
                "maxVelocity=\"7.3\" stiffness=\"1e7\" maxTorque=\"1e7\" armature=\"1e-6\"");
  MujocoBackend backend(*robot);
  backend.setJointTarget(0, 1.0f, 5.0f);
  EXPECT_THAT(
      [&] {
        for (int k = 0; k < 100; ++k)
          backend.step(0.01);
      },
      testing::ThrowsMessage<KR::KRError>(
          AllOf(HasSubstr("robot \"Kibo\" became unstable"),
                testing::ContainsRegex("HeadYaw at .* far outside its range|non-finite"))));
}

std::unique_ptr<ScenarioRun> playScenario(const std::string& name, const std::string& physics) {
  KR::Sim::SimulationConfig config;
  config.noise = 0.005f;
  config.physics = physics;
  config.modules = &KR::Sim::createTrackerModules;
  auto run = std::make_unique<ScenarioRun>(KR::Sim::makeScenario(name, {}), config);
  run->runToEnd();
  return run;
}

// Every built-in scenario on MuJoCo beside the kinematic robot (about 1 s of CPU in all): the
// tracker acquires what it acquires there and follows as closely, although its servos now
// fight gravity and inertia.
TEST(MujocoEndToEnd, EveryScenarioTracksOnThePhysicsRobotAsOnTheKinematicOne) {
  for (const auto& info : KR::Sim::listScenarios()) {
    const auto kinematic = playScenario(info.name, "kinematic");
    const auto mujoco = playScenario(info.name, "mujoco");
    EXPECT_EQ(mujoco->simulation().motion().physicsName(), "mujoco");
    const auto expected = kinematic->summaries();
    const auto actual = mujoco->summaries();
    ASSERT_EQ(actual.size(), expected.size());
    for (std::size_t i = 0; i < actual.size(); ++i) {
      const auto& a = actual[i].measures;
      const auto& e = expected[i].measures;
      SCOPED_TRACE(info.name + ": " + a.name);
      EXPECT_EQ(a.timeToOnTargetS.has_value(), e.timeToOnTargetS.has_value());
      EXPECT_EQ(a.losRmsDeg.has_value(), e.losRmsDeg.has_value());
      if (a.losRmsDeg && e.losRmsDeg) {
        EXPECT_LE(*a.losRmsDeg, *e.losRmsDeg + 1.0);
        EXPECT_LE(*a.losMaxDeg, *e.losMaxDeg + 2.0);
      }
      EXPECT_EQ(a.armsRmsDeg.has_value(), e.armsRmsDeg.has_value());
      if (a.armsRmsDeg && e.armsRmsDeg) {
        EXPECT_LE(*a.armsRmsDeg, *e.armsRmsDeg + 1.5);
      }
    }
  }
}

}  // namespace
