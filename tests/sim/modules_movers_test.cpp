// The movers: keeping the relative position, skipping null commands, their limits, and
// navigation only where the robot can navigate.

#include <ko/log.h>
#include <kr/error.h>
#include <kr/target/targets.h>
#include <krsim/modules/motionmove.h>
#include <krsim/modules/navigationmove.h>
#include <krtracker/tools/namer/namer.h>

#include "sim/modules_fixture.h"

namespace {

using KR::KRValue;
using KR::Math::Position3D;
using KR::Sim::MotionMove;
using KR::Sim::NavigationMove;
using KR::Tracker::Namer;
namespace Target = KR::Tracker::Target;

class MoversTest : public krtest::ModulesTest {
 protected:
  /// A person standing at a map point, followed in a move mode at a relative position.
  void followPerson(Position3D at, const std::string& mode, const KRValue& relative) {
    addTarget("person", Target::TargetPeople, at, {}, KR::Sim::Layout::World);
    sim->callTracker("setMode", mode);
    sim->callTracker("setRelativePosition", relative);
    track(Target::TargetPeople);
  }
  /// The person in the robot frame, from the ground truth.
  Position3D seenFromRobot() {
    const Position3D at = sim->world().targetPosition("person", sim->time());
    return KR::Math::pinv(KR::Math::transformFromPose2D(sim->motion().getTruePose())) * at;
  }
};

TEST_F(MoversTest, MoveModeWalksToTheRelativePositionAndThenSendsNothing) {
  build();
  followPerson({1.8f, 0.3f, 0.6f}, "Move", KRValue{0.8f, 0.0f, 0.0f, 0.05f, 0.05f, 0.1f});
  sim->runFor(15.0);
  const Position3D p = seenFromRobot();
  EXPECT_NEAR(p.x, 0.8f, 0.05f);
  EXPECT_NEAR(p.y, 0.0f, 0.05f);
  EXPECT_EQ(events(Namer::getNameTargetReached()), 1u);
  EXPECT_FALSE(sim->motion().moveIsActive());
  // There, every command would be null: none is sent.
  record();
  sim->runFor(2.0);
  EXPECT_TRUE(calls("KRMotion", "move").empty());
  EXPECT_TRUE(calls("KRMotion", "stopMove").empty());
}

TEST_F(MoversTest, MoveModeKeepsToTheConfiguredSpeedAndRefusesUnknownSettings) {
  build();
  sim->callTracker("setMoveConfig", KRValue{KRValue{"MaxVelocityXY", 0.05f}});
  EXPECT_FLOAT_EQ(module<MotionMove>("_MotionMove")->snapshot().limits.maxVelocityXY, 0.05f);
  record();
  followPerson({2.0f, 0.0f, 0.6f}, "Move", KRValue{0.8f, 0.0f, 0.0f, 0.05f, 0.05f, 0.1f});
  sim->runFor(2.0);
  const auto moves = calls("KRMotion", "move");
  ASSERT_FALSE(moves.empty());
  for (const auto& m : moves) {
    EXPECT_LE(std::hypot(m.args[0].asFloat(), m.args[1].asFloat()), 0.05f + 1e-6f);
  }
  auto proxy = sim->broker().getProxy("_MotionMove");
  EXPECT_THROW(proxy->call("setParam", KRValue{KRValue{"Speed", 1.0f}}), KR::KRError);
  EXPECT_THROW(proxy->call("setParam", KRValue{KRValue{"MaxVelocityTheta", -1.0f}}), KR::KRError);
  proxy->call("setParam", KRValue());  // back to the base's limits
  EXPECT_EQ(module<MotionMove>("_MotionMove")->snapshot().limits.maxVelocityXY, 0.0f);
}

TEST_F(MoversTest, AStoppedMoverStopsOnlyTheBaseItSetGoing) {
  build();
  auto proxy = sim->broker().getProxy("_MotionMove");
  proxy->call("start");
  sim->motion().move(0.1f, 0.0f, 0.0f);  // someone else's walk
  record();
  proxy->call("stopMove");
  EXPECT_TRUE(calls("KRMotion", "stopMove").empty());
  EXPECT_TRUE(sim->motion().moveIsActive());
}

TEST_F(MoversTest, TheMoverStopsWhenTheTargetIsLost) {
  build();
  addTarget("person", Target::TargetPeople, {2.5f, 0.0f, 0.6f}, {{1.0, 10.0}},
            KR::Sim::Layout::World);
  sim->callTracker("setMode", std::string("Move"));
  sim->callTracker("setRelativePosition", KRValue{0.8f, 0.0f, 0.0f, 0.05f, 0.05f, 0.1f});
  track(Target::TargetPeople);
  sim->callTracker("setTimeOut", 500);
  sim->runFor(1.2);
  EXPECT_TRUE(sim->motion().moveIsActive());
  sim->runUntil(1.6);
  EXPECT_EQ(events(Namer::getNameLost()), 1u);
  EXPECT_FALSE(sim->motion().moveIsActive());
  EXPECT_FALSE(module<MotionMove>("_MotionMove")->snapshot().moving);
}

TEST_F(MoversTest, NavigateModeTakesTheWheeledRobotToTheTargetFacingIt) {
  build("rover.xml");
  followPerson({3.0f, 1.5f, 1.1f}, "Navigate", KRValue{1.2f, 0.0f, 0.0f, 0.1f, 0.1f, 0.1f});
  EXPECT_EQ(sim->callTracker<std::string>("getMode"), "Navigate");
  sim->runFor(20.0);
  const Position3D p = seenFromRobot();
  EXPECT_NEAR(p.x, 1.2f, 0.1f);
  EXPECT_NEAR(p.y, 0.0f, 0.1f);
  EXPECT_EQ(events(Namer::getNameTargetReached()), 1u);
  EXPECT_TRUE(module<NavigationMove>("_NavigationMove")->snapshot().running);
  sim->callTracker("setMode", std::string("Head"));
  EXPECT_FALSE(module<NavigationMove>("_NavigationMove")->snapshot().running);
}

TEST_F(MoversTest, NavigationOnARobotThatCannotNavigateIsLoggedOnceAndGoesNowhere) {
  build();
  addTarget("person", Target::TargetPeople, {2.0f, 0.0f, 0.6f}, {}, KR::Sim::Layout::World);
  track(Target::TargetPeople);
  ko::log::ScopedCapture capture;
  sim->broker().getProxy("_NavigationMove")->call("start");
  sim->runFor(1.0);
  const auto records = capture.records("KRTracker.NavigationMove");
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(records[0].level, ko::log::Level::error);
  EXPECT_EQ(records[0].location, "update");
  EXPECT_EQ(records[0].text.rfind("Could not navigate: ", 0), 0u);
  const auto pose = sim->motion().getTruePose();
  EXPECT_EQ(pose.x, 0.0f);
  EXPECT_EQ(pose.y, 0.0f);
}

}  // namespace
