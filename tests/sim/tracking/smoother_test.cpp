// The smoother: lost and detected events with the time-out, the maximum distance, the search
// event, what it publishes for the movers, the landmarks' robot position, its settings.

#include <cmath>
#include <limits>
#include <string>
#include <utility>
#include <vector>

#include <kr/error.h>
#include <krsim/tracking/smoother.h>
#include <krtracker/types/types/trackinfos.h>

#include "sim/tracking/tracking_fixture.h"

namespace {

using namespace krtest;

using testing::DoubleNear, testing::ElementsAre;

class SmootherTest : public TrackingTest {
 protected:
  auto state() { return module<KR::Sim::Smoother>(kSmootherModule)->snapshot(); }
};

TEST_F(SmootherTest, RaisesLostOnceAfterTheTimeOutAndDetectedWhenTheTargetIsBack) {
  trackBall({1.0f, 0.1f, 0.45f}, 1000, {{2.0, 5.0}});
  sim->runUntil(4.9);
  // The last observation before 2 s, then one second without any.
  EXPECT_THAT(eventTimes(Namer::getNameLost()), ElementsAre(DoubleNear(3.0, 0.06)));
  EXPECT_TRUE(state().lost);
  EXPECT_EQ(events(Namer::getNameDetected()), 0u);
  // No target for the lookers while lost.
  const std::size_t lookerEvents = events(Namer::getNameLooker());
  sim->runUntil(4.99);
  EXPECT_EQ(events(Namer::getNameLooker()), lookerEvents);
  sim->runUntil(5.5);
  EXPECT_THAT(eventTimes(Namer::getNameDetected()), ElementsAre(DoubleNear(5.0, 0.06)));
  EXPECT_EQ(events(Namer::getNameLost()), 1u);
  EXPECT_FALSE(state().lost);
}

// A ball behind the robot is never seen: lost once, at once, so that the search starts without
// waiting out the time-out; observations that are not finite, injected on its event, never
// reach the lookers.
TEST_F(SmootherTest, ATargetNeverSeenIsLostAtOnceAndNonFiniteObservationsAreDropped) {
  trackBall({-2.0f, 0.0f, 0.45f}, 500);
  sim->runUntil(2.0);
  EXPECT_THAT(eventTimes(Namer::getNameLost()), ElementsAre(DoubleNear(0.0, 0.011)));
  ASSERT_TRUE(state().lost);
  const std::string event = state().events.at(0);
  auto observation = [&](float x) {
    int sec = 0, usec = 0;
    KR::Sim::SimClock::split(sim->clock().now(), sec, usec);
    return KRValue{KRValue(std::vector<float>{x, 0.0f, 0.4f, 0.0f, 0.0f, 0.0f}),
                   KRValue{KRValue(sec), KRValue(usec)}, KRValue(0)};
  };
  for (const float bad : {std::nanf(""), std::numeric_limits<float>::infinity()}) {
    sim->memory().raiseEvent(event, observation(bad));
    sim->step();
  }
  EXPECT_EQ(events(Namer::getNameDetected()), 0u);
  EXPECT_EQ(events(Namer::getNameLooker()), 0u);
  sim->memory().raiseEvent(event, observation(1.0f));  // the same, finite: taken
  sim->step();
  EXPECT_EQ(events(Namer::getNameDetected()), 1u);
  EXPECT_GT(events(Namer::getNameLooker()), 0u);
}

TEST_F(SmootherTest, ObservationsBeyondTheMaximumDistanceAreDropped) {
  trackBall({1.5f, 0.0f, 0.45f}, 300);
  sim->callTracker("setMaximumDistanceDetection", 1.0f);
  sim->runUntil(1.0);
  EXPECT_EQ(state().maxDistance, 1.0f);
  EXPECT_EQ(events(Namer::getNameLooker()), 0u);
  EXPECT_EQ(events(Namer::getNameLost()), 1u);
}

TEST_F(SmootherTest, TheSearchEventIsRaisedAgainOnlyWhileTheTargetIsLost) {
  trackBall({1.0f, 0.0f, 0.45f}, 500, {{1.0, 10.0}});
  sim->runUntil(0.5);
  module<KR::Sim::Smoother>(kSmootherModule)->raiseSearchEvent();
  EXPECT_EQ(events(Namer::getNameLost()), 0u);
  sim->runUntil(2.0);
  ASSERT_EQ(events(Namer::getNameLost()), 1u);
  proxy(kSmootherModule)->call("_raiseSearchEvent");
  EXPECT_EQ(events(Namer::getNameLost()), 2u);
}

TEST_F(SmootherTest, MoversGetTheTargetWhenItHasMovedByTheHysteresisAndWhenItStops) {
  // From 1 s to 3 s the ball rolls 0.3 m to the left at 0.15 m/s, then stays.
  addPath("ball", Target::TargetRedBall,
          Path({{1.0, {1.2f, 0.0f, 0.45f}}, {3.0, {1.2f, 0.3f, 0.45f}}}));
  track(Target::TargetRedBall);
  const KRValue relative{0.5f, 0.0f, 0.0f, 0.1f, 0.1f, 0.2f};
  sim->callTracker("setRelativePosition", relative);
  std::vector<KRValue> moves;
  sim->memory().subscribe(Namer::getNameMove(),
                          [&](const std::string&, const KRValue& v) { moves.push_back(v); });
  sim->runUntil(1.0);
  ASSERT_EQ(moves.size(), 1u);  // the first sample, then nothing while it stands still
  EXPECT_EQ(moves[0][1], relative);
  sim->runUntil(5.0);
  // Three steps of 0.1 m at most, and one more where it came to rest.
  ASSERT_GE(moves.size(), 3u);
  ASSERT_LE(moves.size(), 5u);
  auto y = [&](std::size_t i) {
    return KR::Tracker::types::TrackInfos(moves[i][0]).getWorldToObject3D().y;
  };
  for (std::size_t i = 2; i + 1 < moves.size(); ++i)  // the last one: where it rests
    EXPECT_GT(y(i), y(i - 1));
  EXPECT_NEAR(y(moves.size() - 1), 0.3f, 0.02f);
  const KRValue& speed = moves.back()[2];
  EXPECT_LT(std::hypot(speed[0].asFloat(), speed[1].asFloat()), KR::Sim::Smoother::kRestSpeed);
}

TEST_F(SmootherTest, LandmarksGiveTheRobotPoseInTheMapDespiteOdometryDrift) {
  build("kibo.xml", {0.7f, -0.4f, 0.5f});
  sim->motion().setOdometryDrift(0.08f, 0.05f);
  addTarget("mark0", Target::TargetLandMarks, {2.2f, 0.8f, 0.4f});
  addTarget("mark1", Target::TargetLandMarks, {1.8f, 1.6f, 0.4f});
  track(Target::TargetLandMarks);
  EXPECT_EQ(module<KR::Sim::Smoother>(kSmootherModule)->getPosition(), KRValue());  // no map yet
  sim->callTracker("setTargetCoordinates",
                   KRValue{KRValue{2.2f, 0.8f, 0.4f}, KRValue{1.8f, 1.6f, 0.4f}});
  sim->callTracker("stop");  // the coordinates reach the smoother when tracking starts
  sim->callTracker("track", std::string(Target::TargetLandMarks));
  // Walk a little so that odometry departs from the truth.
  sim->motion().move(0.05f, 0.0f, 0.1f);
  sim->runFor(3.0);
  sim->motion().stopMove();
  sim->runFor(0.5);
  const auto position = sim->callTracker<std::vector<float>>("getRobotPosition");
  ASSERT_EQ(position.size(), 6u);
  const auto truth = sim->motion().getTruePose();
  const auto odometry = sim->motion().getOdometryPose();
  EXPECT_GT(std::hypot(odometry.x - truth.x, odometry.y - truth.y), 0.5);
  EXPECT_NEAR(position[0], truth.x, 0.02);
  EXPECT_NEAR(position[1], truth.y, 0.02);
  EXPECT_NEAR(KR::Math::modulo2PI(position[5] - truth.theta), 0.0, 0.02);
}

TEST_F(SmootherTest, RefusesBadSettings) {
  auto smoother = proxy(kSmootherModule);
  const std::vector<std::pair<std::string, std::vector<KRValue>>> cases{
      {"setTimeOut", {0}},
      {"setMaxDistance", {-1.0f}},
      {"_setMoveHysteresis", {KRValue{0.1f, 0.1f}}},
      {"_setMoveHysteresis", {KRValue{0.1f, -0.1f, 0.0f}}},
      {"setTarget", {KRValue{1.0f, 0.0f}}},
      {"setTarget", {KRValue{1.0f, "x", 0.0f}}},
      {"setMap", {KRValue{KRValue{50, KRValue{1.0f}}}}},
      {"setMap", {KRValue{KRValue{"50", KRValue{1.0f, 2.0f}}}}},
      {"startEvent", {}},
      {"startEvent", {"a", "b", "c"}},
      {"restart", {""}},
  };
  for (const auto& c : cases)
    EXPECT_THROW(smoother->callValues(c.first, c.second), KR::KRError) << c.first;
  EXPECT_EQ(smoother->call<int>("getTimeOut"), 3000);
  EXPECT_EQ(smoother->call<std::vector<float>>("_getMoveHysteresis"),
            (std::vector<float>{0.1f, 0.1f, 0.02f}));
  EXPECT_FALSE(state().running);
}

}  // namespace
