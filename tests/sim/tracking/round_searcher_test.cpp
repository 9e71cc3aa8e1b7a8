// The round searcher: looks for a lost target only when searching is on, turns round to find
// it, by the head or by the whole body; where it starts and which way it goes; its dwell;
// its end where the robot cannot turn; its settings.

#include <algorithm>
#include <cmath>
#include <vector>

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
  /// A fresh robot searching for a red ball that circles it at 1.5 m at `speed` [rad/s] from
  /// bearing 0 until `end` and is hidden over `hidden`; lost after `timeoutMs` unseen.
  void trackOrbitingBall(float speed, double end, KR::Sim::TimeInterval hidden, int timeoutMs) {
    build();
    sim->world().addTarget({"ball",
                            Target::TargetRedBall,
                            Path::orbit({0.0f, 0.0f, 0.0f}, 1.5f, 0.45f, 0.0f, speed, 0.0, end),
                            {hidden}});
    sim->callTracker("toggleSearch", true);
    track(Target::TargetRedBall);
    sim->callTracker("setTimeOut", timeoutMs);
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
  EXPECT_GT(std::fabs(sim->motion().getTruePose().theta), 0.3f);  // the base turned
  EXPECT_FALSE(state().searching);
  EXPECT_FALSE(sim->motion().moveIsActive());  // the turn was stopped
  EXPECT_LT(lineOfSightDeg(ball), 3.0);        // and the head follows the ball again
}

// From the first stop, one step either side (first on the side given), then outward on the
// other side to the head's reach and last on the side given, where the base turns round the
// back that way in one turn, from the head's reach, until the view meets what the first side
// saw; a robot that cannot turn keeps to what its head reaches, stopping at the reach; with no
// likely place, one side is swept out before the other and the base turns on from the other.
TEST(SearchPatternTest, StopsGoBothSidesOutwardThenRoundTheBack) {
  struct Case {
    const char* name;
    KR::Sim::SearchPattern pattern;
    std::vector<float> stops;
    int turn;
  };
  KR::Sim::SearchPattern left;
  left.origin = 0.5f;
  left.side = 1;
  left.step = 0.9f;
  left.view = 1.0f;
  left.torsoYaw = 0.0f;
  left.headLimit = 2.0f;
  KR::Sim::SearchPattern right = left;
  right.side = -1;
  KR::Sim::SearchPattern fixed = left;
  fixed.canTurn = false;
  KR::Sim::SearchPattern oneWay = left;  // nowhere more likely: one side, then the other
  oneWay.alternate = false;
  // Round from the first side's reach until the view (1 rad) meets what that side saw.
  const float turn = 2.0f * static_cast<float>(M_PI) - 1.0f;
  const Case cases[] = {
      {"left first", left, {0.5f, 1.4f, -0.4f, -1.3f, -2.0f, -2.0f + turn}, 1},
      {"right first", right, {0.5f, -0.4f, 1.4f, 2.0f, -1.3f, 2.0f - turn}, -1},
      {"cannot turn", fixed, {0.5f, 1.4f, -0.4f, -1.3f, -2.0f, 2.0f}, 1},
      {"one way", oneWay, {0.5f, 1.4f, 2.0f, -0.4f, -1.3f, 2.0f - turn}, -1},
  };
  for (const auto& c : cases) {
    const std::vector<float> got = c.pattern.stops();
    ASSERT_EQ(got.size(), c.stops.size()) << c.name;
    for (std::size_t i = 0; i < got.size(); ++i) {
      const float expected = KR::Math::modulo2PI(c.stops[i]);
      EXPECT_NEAR(KR::Math::modulo2PI(got[i] - expected), 0.0f, 1e-5f) << c.name << " stop " << i;
    }
    EXPECT_EQ(c.pattern.turn(), c.turn) << c.name;
  }
}

// With nothing to say which way the target went, the base's turn round the back heads for the
// point opposite the first stop the shorter way: an alternating sweep ends on that side, a
// one-way sweep starts on the other; with that point straight behind, the left comes first.
TEST(SearchPatternTest, WithoutAWayTheBaseTurnsTowardThePointOppositeTheFirstStop) {
  const struct {
    const char* name;
    float origin;  // relative to the torso [rad]
    bool alternate;
    int side;
  } cases[] = {{"right of the torso, alternating", -0.3f, true, 1},
               {"left of the torso, alternating", 0.3f, true, -1},
               {"right of the torso, one way", -0.3f, false, -1},
               {"left of the torso, one way", 0.3f, false, 1},
               {"straight ahead, alternating", 0.0f, true, 1},
               {"straight ahead, one way", 0.0f, false, 1}};
  for (const auto& c : cases) {
    KR::Sim::SearchPattern p;
    p.torsoYaw = 3.0f;  // across the wrap of the angles
    p.origin = KR::Math::modulo2PI(p.torsoYaw + c.origin);
    p.alternate = c.alternate;
    EXPECT_EQ(KR::Sim::sideOfTheBack(p), c.side) << c.name;
  }
}

// The gaze rests one frame, the delivery of that frame and the servos' settling: a faster or
// quicker camera rests less, a camera without a rate takes a frame every update.
TEST(SearchPatternTest, TheDwellFollowsTheCameraRateAndLatency) {
  const double settle = 0.05;
  const struct {
    double rateHz, latencyS, dwellS;
  } cases[] = {{15.0, 0.08, 1.0 / 15.0 + 0.08 + settle},
               {30.0, 0.08, 1.0 / 30.0 + 0.08 + settle},
               {15.0, 0.2, 1.0 / 15.0 + 0.2 + settle},
               {0.0, 0.0, 0.01 + settle}};
  for (const auto& c : cases)
    EXPECT_NEAR(KR::Sim::searchDwell(c.rateHz, c.latencyS), c.dwellS, 1e-12) << c.rateHz;
}

// A ball going round the robot, or standing, vanishes at 2 s: through the time-out the gaze
// follows its predicted path (or stays), and the search starts there, going on to the side it
// was moving to (the left when it stood).
TEST_F(RoundSearcherTest, TheSearchStartsWhereTheLostTargetWasGoingOnItsSide) {
  const struct {
    const char* name;
    float speed;  // about the robot [rad/s]
    int side;
  } cases[] = {{"moving left", 0.3f, 1}, {"moving right", -0.3f, -1}, {"still", 0.0f, 1}};
  for (const auto& c : cases) {
    trackOrbitingBall(c.speed, 30.0, {2.0, 30.0}, 1000);
    sim->runUntil(2.0);
    const float vanished = 2.0f * c.speed;  // the ball's bearing when it hid
    const float headAtHiding = sim->motion().getAngle("HeadYaw");
    while (!state().searching && sim->time() < 4.0)
      sim->step();
    sim->step();
    ASSERT_TRUE(state().searching) << c.name;
    const auto pattern = state().pattern;
    EXPECT_EQ(pattern.side, c.side) << c.name;
    const float ahead = KR::Math::modulo2PI(pattern.origin - vanished);
    const float gazeMoved = sim->motion().getAngle("HeadYaw") - headAtHiding;
    if (c.speed == 0.0f) {
      EXPECT_NEAR(ahead, 0.0f, 0.05f) << c.name;
      EXPECT_NEAR(gazeMoved, 0.0f, 0.05f) << c.name;
    } else {
      // One second of time-out at 0.3 rad/s, predicted along the tangent: about 0.3 rad on.
      EXPECT_GT(ahead * static_cast<float>(c.side), 0.15f) << c.name;
      EXPECT_GT(gazeMoved * static_cast<float>(c.side), 0.15f) << c.name;
    }
  }
}

// A ball going fast round the robot vanishes: its predicted place at the loss lies past the
// head's reach. The search starts at the reach on that side, takes in what the head reaches,
// across to the other side, and only then turns the base, toward the predicted place.
TEST_F(RoundSearcherTest, APredictedPlacePastTheReachIsSearchedFromTheReachThenTurnedToward) {
  const struct {
    const char* name;
    float speed;  // about the robot [rad/s]
    float side;
  } cases[] = {{"going left", 0.8f, 1.0f}, {"going right", -0.8f, -1.0f}};
  for (const auto& c : cases) {
    trackOrbitingBall(c.speed, 30.0, {1.5, 30.0}, 2000);
    record();
    while (!state().searching && sim->time() < 5.0)
      sim->step();
    sim->step();
    ASSERT_TRUE(state().searching) << c.name;
    const auto pattern = state().pattern;
    EXPECT_NEAR(KR::Math::modulo2PI(pattern.origin - pattern.torsoYaw), c.side * pattern.headLimit,
                1e-3f)
        << c.name;
    float across = 0.0f;  // farthest the head went to the other side before the base turned
    while (motionCalls("moveTo").empty() && sim->time() < 10.0) {
      sim->step();
      across = std::max(across, -c.side * sim->motion().getAngle("HeadYaw"));
    }
    const auto turns = motionCalls("moveTo");
    ASSERT_FALSE(turns.empty()) << c.name;
    EXPECT_GT(turns.front().args[2].asFloat() * c.side, 0.5f) << c.name;
    EXPECT_GT(across, 1.5f) << c.name;
  }
}

// A ball that stays hidden through the first round: the next rounds are whole turns of the base
// ("move") on the way the first round turned round the back, the way the ball was going, and
// the ball is found once it shows again.
TEST_F(RoundSearcherTest, LaterRoundsTurnTheBaseOnTheFirstRoundsWay) {
  const struct {
    const char* name;
    float speed;  // about the robot [rad/s]
    float side;
  } cases[] = {{"going left", 0.3f, 1.0f}, {"going right", -0.3f, -1.0f}};
  for (const auto& c : cases) {
    trackOrbitingBall(c.speed, 40.0, {2.0, 14.0}, 1000);
    record();
    while (state().phase != KR::Sim::RoundSearcherState::Phase::Turn && sim->time() < 14.0)
      sim->step();
    EXPECT_EQ(state().round, 1) << c.name;
    const auto backTurns = motionCalls("moveTo");
    const auto wholeTurns = motionCalls("move");
    ASSERT_FALSE(backTurns.empty()) << c.name;
    ASSERT_EQ(wholeTurns.size(), 1u) << c.name;
    EXPECT_GT(backTurns.back().args[2].asFloat() * c.side, 0.0f) << c.name;
    EXPECT_GT(wholeTurns.front().args[2].asFloat() * c.side, 0.0f) << c.name;
    while (events(Namer::getNameDetected()) == 0 && sim->time() < 30.0)
      sim->step();
    EXPECT_GT(sim->time(), 14.0) << c.name;
    EXPECT_EQ(events(Namer::getNameDetected()), 1u) << c.name;
  }
}

// A ball behind on either side, found while the base turns round the back with the head at its
// reach: the base turns on onto it without stopping, and the head comes back to the centre as
// the base catches up.
TEST_F(RoundSearcherTest, AFindAtTheHeadsReachTurnsTheBaseOnWithoutStopping) {
  const struct {
    const char* name;
    Position3D ball;
  } cases[] = {{"behind left", {-1.5f, 0.6f, 0.45f}}, {"behind right", {-1.5f, -0.6f, 0.45f}}};
  for (const auto& c : cases) {
    build();
    sim->callTracker("toggleSearch", true);
    trackBall(c.ball, 1000);
    record();
    while (events(Namer::getNameDetected()) == 0 && sim->time() < 20.0)
      sim->step();
    ASSERT_EQ(events(Namer::getNameDetected()), 1u) << c.name;
    EXPECT_GT(std::fabs(sim->motion().getAngle("HeadYaw")), 1.5f) << c.name;
    sim->step();  // the search halts at its next update
    EXPECT_TRUE(motionCalls("stopMove").empty()) << c.name;
    EXPECT_TRUE(sim->motion().moveIsActive()) << c.name;
    sim->runUntil(sim->time() + 4.0);
    EXPECT_LT(lineOfSightDeg(c.ball), 3.0) << c.name;
    EXPECT_LT(std::fabs(sim->motion().getAngle("HeadYaw")), 0.3f) << c.name;
  }
}

// A robot whose base cannot turn searches what its head reaches at each height, then ends the
// search with its own event and looks back where the target was.
TEST_F(RoundSearcherTest, WhereTheRobotCannotTurnTheSearchEndsOnItsOwnEvent) {
  KR::Sim::BaseLimits still = sim->motion().getBaseLimits();
  still.maxAngularSpeed = 0.0f;
  sim->motion().setBaseLimits(still);
  record();
  trackBallBehind(true);
  sim->runUntil(15.0);
  EXPECT_TRUE(motionCalls("moveTo").empty());
  EXPECT_FALSE(state().searching);
  ASSERT_EQ(events(KR::Sim::RoundSearcher::kSearchEnded), 1u);
  EXPECT_EQ(sim->memory().getData(KR::Sim::RoundSearcher::kSearchEnded).asString(), "exhausted");
  EXPECT_EQ(events(KR::Sim::RoundSearcher::kSearchStarted), 1u);
  EXPECT_EQ(events(Namer::getNameDetected()), 0u);
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
