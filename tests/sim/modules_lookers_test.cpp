// The head, whole-body and arms lookers: where they turn the robot, their dead bands,
// speeds and resources, the arms' reach.

#include <kr/error.h>
#include <kr/model/modelutils.h>
#include <kr/target/targets.h>
#include <krsim/modules/armslooker.h>
#include <krsim/modules/headlooker.h>
#include <krsim/modules/wholebodylooker.h>

#include "sim/modules_fixture.h"

namespace {

using KR::KRValue;
using KR::Math::Position3D;
using KR::Sim::ArmsLooker;
using KR::Sim::HeadLooker;
namespace Target = KR::Tracker::Target;

class LookersTest : public krtest::ModulesTest {
 protected:
  void SetUp() override { build(); }
  /// The ball at a map point, followed in the given mode.
  Position3D followBall(Position3D at, const std::string& mode = "Head") {
    addTarget("ball", Target::TargetRedBall, at);
    sim->callTracker("setMode", mode);
    track(Target::TargetRedBall);
    return at;
  }
  /// Forearm of an arm against the direction to a map point [deg].
  double pointingDeg(const std::string& arm, const Position3D& mapPoint) {
    const KR::Math::Transform forearm =
        sim->motion().getMapToTorso() * sim->motion().getTorsoToForearm(arm);
    return KR::Math::aimError(forearm, mapPoint) * 180.0 / M_PI;
  }
};

TEST_F(LookersTest, TheHeadTurnsToATargetAndStaysWhileItStandsStill) {
  const Position3D ball = followBall({1.0f, 0.45f, 0.65f});
  EXPECT_GT(lineOfSightDeg(ball), 25.0);
  sim->runFor(1.0);
  // Within the ball's dead band of 1.5 degrees, and not commanded again once there.
  EXPECT_LT(lineOfSightDeg(ball), 1.6);
  record();
  sim->runFor(1.0);
  EXPECT_TRUE(calls("KRMotion", "_trackerWithSpeed").empty());
  EXPECT_TRUE(module<HeadLooker>("_HeadLooker")->snapshot().running);
  EXPECT_GE(events("KRTracker/HeadTracking/Restarted"), 1u);
}

TEST_F(LookersTest, TheHeadMovesAtTheMaximumVelocityReachedAtTheMaximumAcceleration) {
  sim->callTracker("setMaximumVelocity", 0.5f);
  sim->callTracker("setMaximumAcceleration", 10.0f);
  record();
  followBall({1.0f, 0.45f, 0.5f});
  sim->runFor(0.3);
  const auto commands = calls("KRMotion", "_trackerWithSpeed");
  ASSERT_GE(commands.size(), 5u);
  // 0.1 rad/s more every step from rest, then the 0.5 rad/s limit, as fractions of each
  // joint's own velocity limit (7.3 and 6.6 rad/s).
  EXPECT_FLOAT_EQ(commands[0].args[2][0].asFloat(), 0.1f / 7.3f);
  EXPECT_FLOAT_EQ(commands[1].args[2][0].asFloat(), 0.2f / 7.3f);
  EXPECT_FLOAT_EQ(commands[4].args[2][0].asFloat(), 0.5f / 7.3f);
  EXPECT_FLOAT_EQ(commands[4].args[2][1].asFloat(), 0.5f / 6.6f);
  const auto& head = sim->robot().trackerModel().head;
  EXPECT_EQ(commands[0].args[0], (KRValue{head.yaw.name, head.pitch.name}));
  // The head then turns at 0.5 rad/s.
  const float yaw0 = sim->motion().getAngle(head.yaw.name);
  sim->runFor(0.2);
  EXPECT_NEAR(sim->motion().getAngle(head.yaw.name) - yaw0, 0.1f, 0.002f);
}

TEST_F(LookersTest, TheHeadLookerRefusesBadLimitsAndYieldsTheTakenHead) {
  auto proxy = sim->broker().getProxy("_HeadLooker");
  for (const KRValue& bad :
       {KRValue{1.0f}, KRValue{0.0f, 1.0f}, KRValue{1.0f, -2.0f}, KRValue{"fast", 1.0f}}) {
    EXPECT_THROW(proxy->call("setImplParam", bad), KR::KRError) << bad;
  }
  sim->motion().setResourceTaken("Head", true);
  record();
  followBall({1.0f, 0.45f, 0.65f});
  sim->runFor(0.5);
  EXPECT_TRUE(calls("KRMotion", "_trackerWithSpeed").empty());
  sim->motion().setResourceTaken("Head", false);
  sim->runFor(1.0);
  EXPECT_FALSE(calls("KRMotion", "_trackerWithSpeed").empty());
}

TEST_F(LookersTest, NothingIsSentOnceTheLookersAreStopped) {
  followBall({1.0f, 0.45f, 0.65f}, "WholeBody");
  sim->callTracker("setEffector", std::string("Arms"));
  sim->runFor(0.5);
  sim->callTracker("stop");
  record();
  sim->runFor(0.5);
  for (const char* method : {"_trackerWithSpeed", "_lookAtWb", "setAngles", "move", "moveTo"}) {
    EXPECT_TRUE(calls("KRMotion", method).empty()) << method;
  }
  EXPECT_FALSE(sim->motion().isWholeBodyGazeActive());  // the held gaze was cancelled
}

TEST_F(LookersTest, TheWholeBodyLookerTurnsTheBaseTowardATargetToTheSide) {
  // Seen ahead, then walking round to the robot's left.
  KR::Sim::TargetScript ball;
  ball.name = "ball";
  ball.kind = Target::TargetRedBall;
  ball.path = KR::Sim::Path::orbit({0.0f, 0.0f, 0.0f}, 1.5f, 0.5f, 0.2f, 0.5f, 0.5, 3.3);
  sim->world().addTarget(ball);
  sim->callTracker("setMode", std::string("WholeBody"));
  track(Target::TargetRedBall);
  sim->runFor(5.0);
  const Position3D at = sim->world().targetPosition("ball", sim->time());
  ASSERT_GT(std::atan2(at.y, at.x), 1.5f);
  const auto pose = sim->motion().getTruePose();
  // The base turned most of the way, the head took the rest.
  EXPECT_GT(pose.theta, 1.0f);
  EXPECT_LT(lineOfSightDeg(at), 8.0);
  record();
  sim->runFor(1.0);
  EXPECT_TRUE(calls("KRMotion", "_lookAtWb").empty());  // settled within its dead band
}

TEST_F(LookersTest, ArmsAreWithinReachWhenTheyCanPointAtTheTarget) {
  const auto robot = KR::Model::ModelUtils::robotFromXml(krtest::readRobotFile("kibo.xml"));
  const auto& model = robot->trackerModel();
  struct Case {
    Position3D target;  // torso frame
    bool left;
    bool right;
  };
  const std::vector<Case> cases{
      {{1.0f, 0.0f, 0.0f}, true, true},  // straight ahead
      {{0.8f, 0.6f, 0.3f}, true, true},  // ahead, to the left, up
      // Far to the left: the left shoulder cannot roll so far and its elbow only bends inwards,
      // while the right arm reaches across with its elbow.
      {{0.1f, 1.0f, 0.0f}, false, true},
      {{-1.0f, 0.0f, 0.0f}, false, false},  // behind
      {{2.5f, 0.0f, 0.0f}, false, false},   // beyond kMaxReach
      {{0.05f, 0.1f, 0.1f}, false, true},   // at the left shoulder, 0.2 m from the right one
  };
  for (const auto& c : cases) {
    float leftError = 0.0f;
    EXPECT_EQ(ArmsLooker::isWithinReach(model.leftArm, c.target, &leftError), c.left)
        << c.target.x << " " << c.target.y << " " << c.target.z;
    EXPECT_EQ(ArmsLooker::isWithinReach(model.rightArm, c.target), c.right)
        << c.target.x << " " << c.target.y << " " << c.target.z;
    if (c.left) {
      EXPECT_LE(leftError, ArmsLooker::kReachTolerance);
    }
  }
}

TEST_F(LookersTest, BothArmsPointAtATargetWithinReachAndGoBackToRestOutsideIt) {
  KR::Sim::TargetScript ball;
  ball.name = "ball";
  ball.kind = Target::TargetRedBall;
  ball.path = KR::Sim::Path(
      {{0.0, {1.0f, 0.2f, 0.5f}}, {2.0, {1.0f, 0.2f, 0.5f}}, {2.1, {2.8f, 0.2f, 0.5f}}});
  sim->world().addTarget(ball);
  sim->callTracker("setEffector", std::string("Arms"));
  track(Target::TargetRedBall);
  EXPECT_EQ(module<ArmsLooker>("_ArmsLooker")->snapshot().effector, "Arms");
  EXPECT_FALSE(module<ArmsLooker>("_ArmsLooker")->snapshot().wholeBody);
  sim->runFor(1.0);
  const Position3D at(1.0f, 0.2f, 0.5f);
  EXPECT_LT(pointingDeg("LArm", at), 1.5);
  EXPECT_LT(pointingDeg("RArm", at), 1.5);
  sim->runUntil(3.5);  // now 2.8 m away: out of reach
  const auto& model = sim->robot().trackerModel();
  EXPECT_NEAR(sim->motion().getAngle(model.leftArm.joints[0].name), 1.4f, 1e-3);
  EXPECT_NEAR(sim->motion().getAngle(model.rightArm.joints[0].name), 1.4f, 1e-3);
  EXPECT_THROW(sim->broker().getProxy("_ArmsLooker")->call("setImplParam", KRValue{"Legs", true}),
               KR::KRError);
}

}  // namespace
