// The round searcher: looks for a lost target only when searching is on, turns round to find
// it, by the head or by the whole body; its settings.

#include <cmath>

#include <kr/error.h>
#include <krsim/tracking/round_searcher.h>

#include "sim/tracking/tracking_fixture.h"

namespace {

using namespace krtest;

class RoundSearcherTest : public TrackingTest {
 protected:
  /// A ball behind the robot, tracked with the given search settings.
  void trackBallBehind(bool search, bool wholeBody = false) {
    sim->callTracker("toggleSearch", search);
    sim->callTracker("searcherSetUseWholeBodyLookAt", wholeBody);
    trackBall(ball, 1000);
  }
  auto state() { return module<KR::Sim::RoundSearcher>(kRoundSearcherModule)->snapshot(); }
  const Position3D ball{-1.5f, 0.4f, 0.45f};
};

TEST_F(RoundSearcherTest, ALostTargetIsSearchedForAndFollowedOnceFound) {
  trackBallBehind(true);
  EXPECT_TRUE(state().enabled);
  sim->runUntil(1.2);
  ASSERT_EQ(events(Namer::getNameLost()), 1u);
  EXPECT_TRUE(state().searching);
  sim->runUntil(20.0);
  EXPECT_EQ(events(Namer::getNameDetected()), 1u);
  EXPECT_GT(std::fabs(sim->motion().getTruePose().theta), 2.0f);  // turned round
  EXPECT_FALSE(state().searching);
  EXPECT_FALSE(sim->motion().moveIsActive());  // the turn was stopped
  EXPECT_LT(lineOfSightDeg(ball), 3.0);        // and the head follows the ball again
}

TEST_F(RoundSearcherTest, TheWholeBodySearchTurnsTheGazeRoundTheRobot) {
  trackBallBehind(true, true);
  record();
  sim->runUntil(20.0);
  EXPECT_FALSE(motionCalls("_lookAtWb").empty());
  EXPECT_TRUE(motionCalls("moveTo").empty());
  EXPECT_EQ(events(Namer::getNameDetected()), 1u);
  EXPECT_LT(lineOfSightDeg(ball), 3.0);
}

TEST_F(RoundSearcherTest, WithoutSearchingALostTargetStaysLost) {
  trackBallBehind(false);
  record();
  sim->runUntil(10.0);
  EXPECT_EQ(events(Namer::getNameLost()), 1u);
  EXPECT_EQ(events(Namer::getNameDetected()), 0u);
  EXPECT_TRUE(motionCalls("setAngles").empty());
  EXPECT_EQ(sim->motion().getTruePose().theta, 0.0f);
  EXPECT_FALSE(state().searching);
}

TEST_F(RoundSearcherTest, StoppingTheSearcherStopsItsTurn) {
  trackBallBehind(true);
  while (!sim->motion().moveIsActive() && sim->time() < 10.0)
    sim->step();  // until the head has swept and the robot turns
  ASSERT_TRUE(sim->motion().moveIsActive());
  EXPECT_TRUE(state().searching);
  sim->callTracker("toggleSearch", false);
  EXPECT_FALSE(state().enabled);
  EXPECT_FALSE(sim->motion().moveIsActive());
}

TEST_F(RoundSearcherTest, SettingsAreCheckedAndInitializeRestoresThem) {
  const float standard = KR::Sim::RoundSearcher::kDefaultFraction;
  auto searcher = proxy(kRoundSearcherModule);
  EXPECT_FLOAT_EQ(searcher->call<float>("getFractionMaxSpeed"), standard);
  for (float bad : {0.0f, -0.5f, 1.5f})
    EXPECT_THROW(searcher->call("setFractionMaxSpeed", bad), KR::KRError) << bad;
  sim->callTracker("setSearcherFractionMaxSpeed", 0.8f);
  sim->callTracker("searcherSetUseWholeBodyLookAt", true);
  EXPECT_FLOAT_EQ(sim->callTracker<float>("getSearcherFractionMaxSpeed"), 0.8f);
  EXPECT_TRUE(state().useWholeBody);
  sim->callTracker("initialize");
  EXPECT_FLOAT_EQ(searcher->call<float>("getFractionMaxSpeed"), standard);
  EXPECT_FALSE(state().useWholeBody);
}

}  // namespace
