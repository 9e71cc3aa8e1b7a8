// The motion mover: keeping the relative position, skipping null commands, its speed limits,
// stopping when the target is lost.

#include <cmath>

#include <kr/error.h>
#include <krsim/tracking/motion_move.h>

#include "sim/tracking/tracking_fixture.h"

namespace {

using namespace krtest;

class MotionMoveTest : public TrackingTest {
 protected:
  auto state() { return module<KR::Sim::MotionMove>(kMotionMoveModule)->snapshot(); }
};

TEST_F(MotionMoveTest, MoveModeWalksToTheRelativePositionAndThenSendsNothing) {
  followPerson({1.8f, 0.3f, 0.6f}, "Move", kRelative);
  sim->runFor(15.0);
  const Position3D p = seenFromRobot();
  EXPECT_NEAR(p.x, 0.8f, 0.05f);
  EXPECT_NEAR(p.y, 0.0f, 0.05f);
  EXPECT_EQ(events(Namer::getNameTargetReached()), 1u);
  EXPECT_FALSE(sim->motion().moveIsActive());
  // There, every command would be null: none is sent.
  record();
  sim->runFor(2.0);
  EXPECT_TRUE(motionCalls("move").empty());
  EXPECT_TRUE(motionCalls("stopMove").empty());
}

TEST_F(MotionMoveTest, MoveModeKeepsToTheConfiguredSpeedAndRefusesUnknownSettings) {
  sim->callTracker("setMoveConfig", KRValue{KRValue{"MaxVelocityXY", 0.05f}});
  EXPECT_FLOAT_EQ(state().limits.maxVelocityXY, 0.05f);
  record();
  followPerson({2.0f, 0.0f, 0.6f}, "Move", kRelative);
  sim->runFor(2.0);
  const auto moves = motionCalls("move");
  ASSERT_FALSE(moves.empty());
  for (const auto& m : moves)
    EXPECT_LE(std::hypot(m.args[0].asFloat(), m.args[1].asFloat()), 0.05f + 1e-6f);
  auto mover = proxy(kMotionMoveModule);
  EXPECT_THROW(mover->call("setParam", KRValue{KRValue{"Speed", 1.0f}}), KR::KRError);
  EXPECT_THROW(mover->call("setParam", KRValue{KRValue{"MaxVelocityTheta", -1.0f}}), KR::KRError);
  mover->call("setParam", KRValue());  // back to the base's limits
  EXPECT_EQ(state().limits.maxVelocityXY, 0.0f);
}

TEST_F(MotionMoveTest, TheMoverStopsWhenTheTargetIsLost) {
  followPerson({2.5f, 0.0f, 0.6f}, "Move", kRelative, {{1.0, 10.0}});
  sim->callTracker("setTimeOut", 500);
  sim->runFor(1.2);
  EXPECT_TRUE(sim->motion().moveIsActive());
  sim->runUntil(1.6);
  EXPECT_EQ(events(Namer::getNameLost()), 1u);
  EXPECT_FALSE(sim->motion().moveIsActive());
  EXPECT_FALSE(state().moving);
}

}  // namespace
