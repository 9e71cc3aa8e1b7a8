// The round searcher: looks for a lost target only when searching is on, turns round to
// find it, by the head or by the whole body; its settings.

#include <kr/error.h>
#include <kr/target/targets.h>
#include <krsim/modules/roundsearcher.h>
#include <krtracker/tools/namer/namer.h>

#include "sim/modules_fixture.h"

namespace {

using KR::Sim::RoundSearcher;
using KR::Tracker::Namer;
namespace Target = KR::Tracker::Target;

class SearcherTest : public krtest::ModulesTest {
 protected:
  void SetUp() override {
    build();
    searcher = module<RoundSearcher>("_RoundSearcher");
  }
  /// A ball behind the robot, tracked with the given search settings.
  void trackBallBehind(bool search, bool wholeBody = false) {
    addTarget("ball", Target::TargetRedBall, ball);
    sim->callTracker("toggleSearch", search);
    sim->callTracker("searcherSetUseWholeBodyLookAt", wholeBody);
    track(Target::TargetRedBall);
    sim->callTracker("setTimeOut", 1000);
  }
  const KR::Math::Position3D ball{-1.5f, 0.4f, 0.45f};
  std::shared_ptr<RoundSearcher> searcher;
};

TEST_F(SearcherTest, ALostTargetIsSearchedForAndFollowedOnceFound) {
  trackBallBehind(true);
  EXPECT_TRUE(searcher->snapshot().enabled);
  sim->runUntil(1.2);
  ASSERT_EQ(events(Namer::getNameLost()), 1u);
  EXPECT_TRUE(searcher->snapshot().searching);
  sim->runUntil(20.0);
  const auto detected = eventTimes(Namer::getNameDetected());
  ASSERT_EQ(detected.size(), 1u);
  EXPECT_GT(std::fabs(sim->motion().getTruePose().theta), 2.0f);  // turned round
  EXPECT_FALSE(searcher->snapshot().searching);
  EXPECT_FALSE(sim->motion().moveIsActive());  // the turn was stopped
  EXPECT_LT(lineOfSightDeg(ball), 3.0);        // and the head follows the ball again
}

TEST_F(SearcherTest, TheWholeBodySearchTurnsTheGazeRoundTheRobot) {
  trackBallBehind(true, true);
  record();
  sim->runUntil(20.0);
  EXPECT_FALSE(calls("KRMotion", "_lookAtWb").empty());
  EXPECT_TRUE(calls("KRMotion", "moveTo").empty());
  EXPECT_EQ(events(Namer::getNameDetected()), 1u);
  EXPECT_LT(lineOfSightDeg(ball), 3.0);
}

TEST_F(SearcherTest, WithoutSearchingALostTargetStaysLost) {
  trackBallBehind(false);
  record();
  sim->runUntil(10.0);
  EXPECT_EQ(events(Namer::getNameLost()), 1u);
  EXPECT_EQ(events(Namer::getNameDetected()), 0u);
  EXPECT_TRUE(calls("KRMotion", "setAngles").empty());
  EXPECT_EQ(sim->motion().getTruePose().theta, 0.0f);
  EXPECT_FALSE(searcher->snapshot().searching);
}

TEST_F(SearcherTest, StoppingTheSearcherStopsItsTurn) {
  trackBallBehind(true);
  while (!sim->motion().moveIsActive() && sim->time() < 10.0) {
    sim->step();  // until the head has swept and the robot turns
  }
  ASSERT_TRUE(sim->motion().moveIsActive());
  EXPECT_TRUE(searcher->snapshot().searching);
  sim->callTracker("toggleSearch", false);
  EXPECT_FALSE(searcher->snapshot().enabled);
  EXPECT_FALSE(sim->motion().moveIsActive());
}

TEST_F(SearcherTest, SettingsAreCheckedAndInitializeRestoresThem) {
  auto proxy = sim->broker().getProxy("_RoundSearcher");
  EXPECT_FLOAT_EQ(proxy->call<float>("getFractionMaxSpeed"), RoundSearcher::kDefaultFraction);
  for (float bad : {0.0f, -0.5f, 1.5f}) {
    EXPECT_THROW(proxy->call("setFractionMaxSpeed", bad), KR::KRError) << bad;
  }
  sim->callTracker("setSearcherFractionMaxSpeed", 0.8f);
  sim->callTracker("searcherSetUseWholeBodyLookAt", true);
  EXPECT_FLOAT_EQ(sim->callTracker<float>("getSearcherFractionMaxSpeed"), 0.8f);
  EXPECT_TRUE(searcher->snapshot().useWholeBody);
  sim->callTracker("initialize");
  EXPECT_FLOAT_EQ(searcher->getFractionMaxSpeed(), RoundSearcher::kDefaultFraction);
  EXPECT_FALSE(searcher->snapshot().useWholeBody);
}

}  // namespace
