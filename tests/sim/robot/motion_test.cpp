#include <cmath>

#include <gtest/gtest.h>

#include <kr/error.h>
#include <krtracker/tools/tools.h>

#include "sim/helpers.h"

namespace {

using namespace krtest;
using KR::Math::FRAME_TORSO;
using KR::Math::FRAME_WORLD;

// Ideal servos: these tests check the control logic, the servo model has its own tests.
class MotionTest : public ::testing::Test, protected SimRobot {
 protected:
  void run(double seconds) {
    for (long i = std::lround(seconds / 0.01); i > 0; --i) {
      clock->advance(std::chrono::milliseconds(10));
      motion->step(0.01);
    }
  }
};

TEST_F(MotionTest, JointsMoveAtTheCommandedFractionOfTheirVelocityLimit) {
  proxy->call<void>("setAngles", std::string("HeadYaw"), 1.0f, 0.5f);
  run(0.1);
  EXPECT_NEAR(motion->getAngle("HeadYaw"), 0.1 * 0.5 * 7.3, 1e-4);  // kibo: 7.3 rad/s
  run(1.0);
  EXPECT_FLOAT_EQ(motion->getAngle("HeadYaw"), 1.0f);
  EXPECT_EQ(proxy->call<std::vector<float>>("getAngles", std::string("HeadYaw"), true),
            std::vector<float>{1.0f});
}

TEST_F(MotionTest, CommandsAreClippedToTheJointLimits) {
  proxy->call<void>("_trackerWithSpeed", std::vector<std::string>{"HeadYaw", "HeadPitch"},
                    std::vector<float>{-3.0f, 2.0f}, std::vector<float>{1.0f}, false, false);
  run(2.0);
  EXPECT_FLOAT_EQ(motion->getAngle("HeadYaw"), -2.02f);
  EXPECT_FLOAT_EQ(motion->getAngle("HeadPitch"), 0.47f);
}

TEST_F(MotionTest, MalformedJointCommandsAreRefusedAndMoveNothing) {
  struct Case {
    const char* what;
    std::vector<std::string> names;
    std::vector<float> angles;
    std::vector<float> speeds;
  };
  const Case cases[] = {
      {"fewer angles than joints", {"HeadYaw", "HeadPitch"}, {0.5f}, {0.5f}},
      {"unknown joint after a good one", {"HeadYaw", "Tail"}, {0.5f, 0.5f}, {0.5f}},
      {"zero speed", {"HeadYaw"}, {0.5f}, {0.0f}},
      {"speed above one", {"HeadYaw"}, {0.5f}, {1.5f}},
      {"two speeds for three joints", {"HeadYaw", "HeadPitch", "LWristYaw"}, {0, 0, 0}, {1, 1}},
  };
  for (const auto& c : cases) {
    EXPECT_THROW(proxy->call<void>("_trackerWithSpeed", c.names, c.angles, c.speeds, false, false),
                 KR::KRError)
        << c.what;
    run(0.1);
    EXPECT_FLOAT_EQ(motion->getAngle("HeadYaw"), 0.0f) << c.what;
  }
}

TEST_F(MotionTest, HeadEffectorsFollowTheLibraryLookAtConvention) {
  const auto& model = robot->trackerModel();
  // Within reach of every effector: none of these angles is clipped.
  const Position3D targets[] = {{1.0f, 0.3f, -0.1f}, {0.6f, -0.5f, 0.0f}, {2.0f, 1.5f, -0.2f}};
  for (int effector = 0; effector < 3; ++effector) {
    for (const auto& target : targets) {
      std::vector<std::string> names;
      std::vector<float> angles;
      ASSERT_TRUE(KR::Tracker::tools::computeLookAtAngles(
          target, model, static_cast<KR::Model::TRACK_EFFECTOR>(effector), false, names, angles));
      for (std::size_t i = 0; i < names.size(); ++i)
        motion->setAngleNow(names[i], angles[i]);
      EXPECT_LT(KR::Math::aimError(motion->getTorsoToHeadEffector(effector), target), 1e-3f)
          << "effector " << effector << " target " << target;
    }
  }
}

TEST_F(MotionTest, ForearmsFollowTheLibraryPointAtConvention) {
  const auto& model = robot->trackerModel();
  struct Case {
    const KR::Model::TrackerArm* arm;
    Position3D target;
  };
  const Case cases[] = {{&model.leftArm, {0.8f, 0.4f, 0.3f}},
                        {&model.leftArm, {0.5f, 0.9f, -0.2f}},
                        {&model.rightArm, {0.8f, -0.4f, 0.3f}},
                        {&model.rightArm, {1.2f, -0.1f, -0.4f}}};
  for (const auto& c : cases) {
    std::vector<std::string> names;
    std::vector<float> angles;
    KR::Tracker::tools::computePointAtAngles(c.target, *c.arm, names, angles);
    proxy->call<void>("_trackerWithSpeed", names, angles, std::vector<float>{1.0f}, false, true);
    run(1.0);
    EXPECT_LT(KR::Math::aimError(motion->getTorsoToForearm(c.arm->name), c.target), 1e-3f)
        << c.arm->name << " " << c.target;
  }
}

TEST_F(MotionTest, TransformsAnswerInEachFrameAndRejectUnknownOnes) {
  motion->resetPose({2.0f, 1.0f, 0.5f});
  proxy->call<void>("moveTo", 0.0f, 0.0f, 0.5f);
  run(3.0);
  const Pose2D odometry = motion->getOdometryPose();
  EXPECT_NEAR(odometry.theta, 0.5f, 0.003f);
  const float h = robot->getTorsoHeight();

  auto torsoInRobot =
      Transform(proxy->call<std::vector<float>>("getTransform", std::string("Torso"), 2, true));
  EXPECT_TRUE(torsoInRobot.isNear(Transform::fromPosition(0, 0, h)));
  auto torsoInWorld = proxy->call<std::vector<float>>("getPosition", std::string("Torso"), 1, true);
  ASSERT_EQ(torsoInWorld.size(), 6u);
  EXPECT_NEAR(torsoInWorld[2], h, 1e-6);
  EXPECT_NEAR(torsoInWorld[5], odometry.theta, 1e-6);
  EXPECT_EQ(proxy->call<std::vector<float>>("getRobotPosition", true), odometry.toVector());

  // The library's conversions agree with the service: there and back is the identity.
  const Position3D p(1.0f, -0.5f, 0.3f);
  const auto inWorld =
      KR::Tracker::tools::convertTorsoFrameToDesiredFrame(proxy, p, KR::Math::FRAME_WORLD);
  const auto back = KR::Tracker::tools::convertToTorsoFrame(proxy, inWorld, FRAME_WORLD);
  EXPECT_NEAR(back.x, p.x, 1e-5);
  EXPECT_NEAR(back.y, p.y, 1e-5);
  EXPECT_NEAR(back.z, p.z, 1e-5);
  const auto inRobot = KR::Tracker::tools::convertToRobotFrame(proxy, p, FRAME_TORSO);
  EXPECT_NEAR(inRobot.z, p.z + h, 1e-5);

  EXPECT_THROW(proxy->call<std::vector<float>>("getTransform", std::string("Torso"), 3, true),
               KR::KRError);
  EXPECT_THROW(proxy->call<std::vector<float>>("getTransform", std::string("Tail"), 0, true),
               KR::KRError);
}

TEST_F(MotionTest, MoveToIsRelativeToTheRobotAndWalksAtTheBaseSpeed) {
  motion->resetPose({1.0f, 0.0f, static_cast<float>(M_PI / 2)});
  proxy->call<void>("moveTo", 0.5f, 0.0f, 0.0f);
  run(1.0);
  EXPECT_TRUE(proxy->call<bool>("moveIsActive"));
  // 0.15 m/s for a small humanoid, reached at 0.3 m/s^2: 0.5 s of start-up cost 0.0375 m.
  EXPECT_NEAR(motion->getTruePose().y, 0.15f - 0.0375f, 1e-3);
  run(4.0);
  EXPECT_FALSE(proxy->call<bool>("moveIsActive"));
  const Pose2D truth = motion->getTruePose();
  EXPECT_NEAR(truth.x, 1.0f, 1e-3);
  EXPECT_NEAR(truth.y, 0.5f, 1e-3);
  // Odometry starts at zero facing its own x axis.
  const Pose2D odometry = motion->getOdometryPose();
  EXPECT_NEAR(odometry.x, 0.5f, 1e-3);
  EXPECT_NEAR(odometry.y, 0.0f, 1e-3);
}

TEST_F(MotionTest, VelocityCommandsAreClippedAndOdometryDriftsByItsScale) {
  motion->setOdometryDrift(0.05f, 0.0f);
  proxy->call<void>("move", 1.0f, 0.0f, 3.0f);
  EXPECT_EQ(proxy->call<std::vector<float>>("getRobotVelocity"),
            (std::vector<float>{0.15f, 0.0f, 0.8f}));
  proxy->call<void>("move", 0.1f, 0.0f, 0.0f);
  run(2.0);
  proxy->call<void>("stopMove");
  run(1.0);
  EXPECT_NEAR(motion->getTruePose().x, 0.2f, 1e-4);
  EXPECT_NEAR(motion->getOdometryPose().x, 0.21f, 1e-4);
  EXPECT_FALSE(motion->moveIsActive());
}

TEST_F(MotionTest, WholeBodyGazeTurnsTheBaseUntilTheHeadIsBackInItsComfortRange) {
  proxy->call<void>("_lookAtWb", 0.2f, 1.5f);
  run(6.0);
  const float headYaw = motion->getAngle("HeadYaw");
  const float baseYaw = motion->getOdometryPose().theta;
  EXPECT_NEAR(baseYaw + headYaw, 1.5f, 1e-3);
  EXPECT_LE(std::fabs(headYaw), SimMotion::kWholeBodyComfortYaw + 0.01f);
  EXPECT_GT(baseYaw, 1.0f);
  EXPECT_NEAR(motion->getAngle("HeadPitch"), 0.2f, 1e-5);
  // A head-only command ends the gaze; the base stays.
  proxy->call<void>("setAngles", std::string("HeadYaw"), 0.0f, 1.0f);
  run(2.0);
  EXPECT_FALSE(motion->isWholeBodyGazeActive());
  EXPECT_FLOAT_EQ(motion->getOdometryPose().theta, baseYaw);
}

TEST_F(MotionTest, NavigationIsOnlyForRobotsOfTypeOne) {
  EXPECT_THROW(proxy->call<bool>("navigateTo", 1.0f, 1.0f), KR::KRError);
  load("rover.xml");
  EXPECT_TRUE(proxy->call<bool>("navigateTo", 1.0f, 1.0f));
  run(10.0);
  const Pose2D p = motion->getTruePose();
  EXPECT_NEAR(p.x, 1.0f, 2e-3);
  EXPECT_NEAR(p.y, 1.0f, 2e-3);
  EXPECT_NEAR(p.theta, M_PI / 4, 3e-3);
}

TEST_F(MotionTest, SensorTransformsAreAnsweredForPastTimesBetweenSteps) {
  // A scripted head motion on a turning, walking base; every state is kept as it was.
  auto yawAt = [](double t) { return static_cast<float>(0.6 * std::sin(3.0 * t)); };
  auto pitchAt = [](double t) { return static_cast<float>(0.2 * std::cos(2.0 * t)); };
  const KR::KRTimePoint start = clock->now();
  motion->move(0.1f, 0.0f, 0.5f);
  std::vector<std::pair<KR::KRTimePoint, Transform>> truth;  // the camera, per step
  std::vector<float> baseYaws;
  for (int i = 1; i <= 150; ++i) {
    clock->advance(std::chrono::milliseconds(10));
    motion->setAngleNow("HeadYaw", yawAt(clock->seconds()));
    motion->setAngleNow("HeadPitch", pitchAt(clock->seconds()));
    motion->step(0.01);
    truth.emplace_back(clock->now(), motion->getTransform("CameraTop", FRAME_WORLD));
    baseYaws.push_back(motion->getOdometryPose().theta);
  }
  auto at = [&](const std::string& name, KR::KRTimePoint t) {
    return Transform(proxy->call<std::vector<float>>("_getSensorTransformAtTime", name, t));
  };
  // On the steps: the state recorded then.
  for (std::size_t i = 50; i < truth.size(); i += 17) {
    EXPECT_TRUE(at("CameraTop", truth[i].first).isNear(truth[i].second, 1e-5f)) << i;
  }
  // Between two steps: the head angles and base pose in between (the script is smooth).
  for (const double t : {0.504, 0.9, 1.237, 1.4955}) {
    const KR::KRTimePoint when = start + std::chrono::duration_cast<std::chrono::nanoseconds>(
                                             std::chrono::duration<double>(t));
    const auto camera = KR::Math::position6DFromTransform(at("CameraTop", when));
    const auto torso = KR::Math::position6DFromTransform(at("Torso", when));
    const float baseYaw = torso.wz;
    EXPECT_NEAR(KR::Math::modulo2PI(camera.wz - baseYaw), yawAt(t), 2e-3) << t;
    EXPECT_NEAR(camera.wy, pitchAt(t), 2e-3) << t;
    // The base: between its headings at the steps about t, in proportion.
    const auto i = static_cast<std::size_t>(std::floor(t / 0.01)) - 1;  // truth[i]: (i + 1) * 10 ms
    const double u = t / 0.01 - std::floor(t / 0.01);
    EXPECT_NEAR(baseYaw, baseYaws[i] + u * (baseYaws[i + 1] - baseYaws[i]), 1e-5) << t;
  }
  // Outside the history: its oldest state (the one at start-up, head at rest) and its newest.
  const auto oldest =
      KR::Math::position6DFromTransform(at("CameraTop", start - std::chrono::seconds(1)));
  EXPECT_NEAR(oldest.wz, 0.0f, 1e-6);
  EXPECT_NEAR(oldest.wy, 0.0f, 1e-6);
  EXPECT_TRUE(
      at("CameraTop", clock->now() + std::chrono::seconds(1)).isNear(truth.back().second, 1e-5f));
  EXPECT_TRUE(KR::Tracker::tools::getSensorTransform(*proxy, "CameraTop", clock->now())
                  .isNear(truth.back().second, 1e-5f));
}

TEST_F(MotionTest, ResourcesWakeStateAndStopCommands) {
  EXPECT_TRUE(proxy->call<bool>("areResourcesAvailable", std::vector<std::string>{"Head"}));
  motion->setResourceTaken("LArm", true);
  EXPECT_FALSE(proxy->call<bool>("areResourcesAvailable",
                                 std::vector<std::string>{"HeadYaw", "LElbowRoll"}));
  EXPECT_TRUE(proxy->call<bool>("areResourcesAvailable", std::vector<std::string>{"RArm"}));
  EXPECT_FALSE(KR::Tracker::tools::areAllResourcesTaken(proxy, {"LArm", "RArm"}));
  EXPECT_TRUE(KR::Tracker::tools::areAllResourcesTaken(proxy, {"LArm"}));

  motion->setWakeUp(false);
  EXPECT_FALSE(proxy->call<bool>("robotIsWakeUp"));
  motion->setAngles({"HeadYaw"}, {1.0f}, {1.0f});
  run(0.5);
  EXPECT_FLOAT_EQ(motion->getAngle("HeadYaw"), 0.0f);
  motion->setWakeUp(true);
  run(0.05);
  proxy->call<void>("_stopLookAt", true);
  const float stopped = motion->getAngle("HeadYaw");
  EXPECT_GT(stopped, 0.0f);
  run(0.5);
  EXPECT_FLOAT_EQ(motion->getAngle("HeadYaw"), stopped);
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
  const Pose2D odometry = motion.getOdometryPose();
  const Pose2D truth = motion.getTruePose();
  EXPECT_NEAR(odometry.x, truth.x, 1e-4f);
  EXPECT_NEAR(odometry.y, truth.y, 1e-4f);
  EXPECT_NEAR(KR::Math::modulo2PI(odometry.theta - truth.theta), 0.0f, 1e-4f);
  // Half of the turn commanded, less what the start-up acceleration costs: w^2 / (2 a).
  const float turn = 0.2f - 0.2f * 0.2f / (2.0f * motion.getBaseLimits().maxAngularAcceleration);
  EXPECT_NEAR(motion.getTruePose().theta, 0.5f * turn, 1e-3f);
  physics->resetJoint(0, 0.7f);
  EXPECT_FLOAT_EQ(motion.getAngle(robot->trackerModel().head.yaw.name), 0.7f);
}

}  // namespace
