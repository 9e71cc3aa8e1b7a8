// The head looker: where it turns the head, its dead band, speeds and resources.

#include <algorithm>
#include <cmath>

#include <kr/error.h>
#include <krsim/tracking/head_looker.h>

#include "sim/tracking/tracking_fixture.h"

namespace {

using namespace krtest;

class HeadLookerTest : public TrackingTest {};

TEST_F(HeadLookerTest, TheHeadTurnsToATargetAndStaysWhileItStandsStill) {
  const Position3D ball = followBall({1.0f, 0.45f, 0.65f});
  EXPECT_GT(lineOfSightDeg(ball), 25.0);
  sim->runFor(1.0);
  // Within the ball's dead band of 1.5 degrees, and not commanded again once there.
  EXPECT_LT(lineOfSightDeg(ball), 1.6);
  record();
  sim->runFor(1.0);
  EXPECT_TRUE(motionCalls("_trackerWithSpeed").empty());
  EXPECT_TRUE(module<KR::Sim::HeadLooker>(kHeadLookerModule)->snapshot().running);
  EXPECT_GE(events("KRTracker/HeadTracking/Restarted"), 1u);
}

TEST_F(HeadLookerTest, TheHeadMovesAtTheMaximumVelocityReachedAtTheMaximumAcceleration) {
  sim->callTracker("setMaximumVelocity", 0.5f);
  sim->callTracker("setMaximumAcceleration", 10.0f);
  record();
  // Within the hand-over angle (0.13 rad off): pursuit from the start, no full-speed turn.
  followBall({1.0f, 0.13f, 0.5f});
  sim->runFor(0.1);
  const auto commands = motionCalls("_trackerWithSpeed");
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
  sim->runFor(0.1);
  EXPECT_NEAR(sim->motion().getAngle(head.yaw.name) - yaw0, 0.05f, 0.002f);
}

// A ball detected 25 degrees off the head's axis: the head turns onto it faster than the
// tracker's pursuit limit (1 rad/s), within the joints' own limits, and does not go past it.
TEST_F(HeadLookerTest, AFarTargetIsTurnedOntoAtTheJointsLimitsWithoutOvershoot) {
  record();
  const float bearing = 25.0f * static_cast<float>(M_PI) / 180.0f;
  const Position3D ball = followBall({1.5f * std::cos(bearing), 1.5f * std::sin(bearing), 0.5f});
  float previous = sim->motion().getAngle("HeadYaw");
  float fastest = 0.0f;
  float farthest = previous;
  for (int i = 0; i < 200; ++i) {
    sim->step();
    const float yaw = sim->motion().getAngle("HeadYaw");
    fastest = std::max(fastest, (yaw - previous) / 0.01f);
    farthest = std::max(farthest, yaw);
    previous = yaw;
  }
  EXPECT_LT(lineOfSightDeg(ball), 1.6);
  const float settled = sim->motion().getAngle("HeadYaw");
  EXPECT_LT(farthest - settled, 1.0f * static_cast<float>(M_PI) / 180.0f);
  EXPECT_GT(fastest, 1.5f);
  EXPECT_LE(fastest, 7.3f * 1.01f);
  for (const auto& command : motionCalls("_trackerWithSpeed")) {
    EXPECT_LE(command.args[2][0].asFloat(), 1.0f);
    EXPECT_LE(command.args[2][1].asFloat(), 1.0f);
  }
}

TEST_F(HeadLookerTest, TheHeadLookerRefusesBadLimitsAndYieldsTheTakenHead) {
  for (const KRValue& bad :
       {KRValue{1.0f}, KRValue{0.0f, 1.0f}, KRValue{1.0f, -2.0f}, KRValue{"fast", 1.0f}}) {
    EXPECT_THROW(proxy(kHeadLookerModule)->call("setImplParam", bad), KR::KRError) << bad;
  }
  sim->motion().setResourceTaken("Head", true);
  record();
  followBall({1.0f, 0.45f, 0.65f});
  sim->runFor(0.5);
  EXPECT_TRUE(motionCalls("_trackerWithSpeed").empty());
  sim->motion().setResourceTaken("Head", false);
  sim->runFor(1.0);
  EXPECT_FALSE(motionCalls("_trackerWithSpeed").empty());
}

}  // namespace
