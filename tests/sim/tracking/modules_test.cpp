// The tracking service's sub-modules on the simulated robot: the smoother, the round searcher,
// the lookers, the movers, the target manager, the "KRTracker" service and what they take
// from the configuration table. Each test places targets in the map frame and asserts the
// line of sight of the head camera, the events raised and the calls to KRMotion.

#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <limits>
#include <thread>

#include <ko/log.h>
#include <kr/error.h>
#include <kr/target/targets.h>
#include <krsim/run/simulation.h>
#include <krsim/tracking/arms_looker.h>
#include <krsim/tracking/head_looker.h>
#include <krsim/tracking/motion_move.h>
#include <krsim/tracking/navigation_move.h>
#include <krsim/tracking/round_searcher.h>
#include <krsim/tracking/smoother.h>
#include <krsim/tracking/target_manager.h>
#include <krtracker/config/krgenerictrackerconfig.h>
#include <krtracker/tools/namer/namer.h>
#include <krtracker/types/types/trackinfos.h>

#include "sim/helpers.h"
#include "support/error_of.h"

namespace {

using namespace krtest;
using KR::Tracker::Namer, testing::DoubleNear, testing::ElementsAre, testing::HasSubstr;
namespace Target = KR::Tracker::Target;

const KRValue kRelative{0.8f, 0.0f, 0.0f, 0.05f, 0.05f, 0.1f};

// A simulated robot (kibo unless built again) with the sub-modules and an ideal camera: a
// frame every step, no latency, no noise.
class ModulesTest : public ::testing::Test {
 protected:
  void SetUp() override { build(); }
  void build(const std::string& robotFile = "kibo.xml", KR::Math::Pose2D startPose = {}) {
    recorder.reset();
    sim.reset();
    KR::Sim::SimulationConfig config;
    config.physics = "kinematic";
    config.camera = KR::Sim::CameraConfig::ideal();
    config.robot = KR::Sim::RobotDescription::load(robotFile);
    config.seed = 3;
    config.startPose = startPose;
    config.modules = &KR::Sim::createTrackerModules;
    sim = std::make_unique<KR::Sim::Simulation>(config);
  }
  void TearDown() override {
    recorder.reset();
    sim.reset();
  }
  template <class M>
  std::shared_ptr<M> module(const std::string& name) {
    auto m = std::dynamic_pointer_cast<M>(sim->broker().getModule(name));
    EXPECT_NE(m, nullptr) << name;
    return m;
  }
  std::shared_ptr<KR::KRProxy> proxy(const std::string& name) {
    return sim->broker().getProxy(name);
  }
  /// A target standing still at a map point, seen by the top camera.
  void addTarget(const std::string& name, const std::string& kind, Position3D at,
                 std::vector<KR::Sim::TimeInterval> hidden = {},
                 KR::Sim::Layout layout = KR::Sim::Layout::Torso) {
    sim->world().addTarget({name, kind, Path::fixed(at), std::move(hidden), layout});
  }
  /// A target on a path, with the head threshold its events carry when not negative.
  void addPath(const std::string& name, const std::string& kind, Path path,
               float headThreshold = -1.0f) {
    sim->world().addTarget(
        {name, kind, std::move(path), {}, KR::Sim::Layout::Torso, 0.0f, false, headThreshold});
  }
  /// A red ball at a map point, hidden in the given intervals, tracked with a time-out [ms].
  void trackBall(Position3D at, int timeOutMs, std::vector<KR::Sim::TimeInterval> hidden = {}) {
    addTarget("ball", Target::TargetRedBall, at, std::move(hidden));
    track(Target::TargetRedBall);
    sim->callTracker("setTimeOut", timeOutMs);
  }
  /// Registers a kind of target with the tracker and tracks it, in a mode when given.
  void track(const std::string& kind, const std::string& mode = "") {
    if (!mode.empty())
      sim->callTracker("setMode", mode);
    sim->callTracker("registerTarget", kind, KRValue(0.06f));
    sim->callTracker("track", kind);
  }
  /// Angle between the top camera's line of sight and the direction to a map point [deg].
  double lineOfSightDeg(const Position3D& mapPoint) {
    return KR::Math::aimError(sim->motion().getMapToHeadEffector(0), mapPoint) * 180.0 / M_PI;
  }
  std::size_t events(const std::string& name) { return sim->memory().eventCount(name); }
  /// Times [s since the start] of the events of that name.
  std::vector<double> eventTimes(const std::string& name) {
    std::vector<double> out;
    for (const auto& e : sim->memory().eventHistory(name))
      out.push_back(std::chrono::duration<double>(e.time - sim->clock().start()).count());
    return out;
  }
  /// Starts recording every broker call.
  void record() { recorder = std::make_unique<krtest::CallRecorder>(sim->context().broker); }
  /// Recorded calls of a KRMotion method.
  std::vector<KR::KRCallRecord> motionCalls(const std::string& method) {
    std::vector<KR::KRCallRecord> out;
    for (const auto& r : recorder->records()) {
      if (r.module == "KRMotion" && r.method == method)
        out.push_back(r);
    }
    return out;
  }

  std::unique_ptr<KR::Sim::Simulation> sim;
  std::unique_ptr<krtest::CallRecorder> recorder;
};

// ---------------------------------------------------------------------------------------------
// The smoother: lost and detected events with the time-out, the maximum distance, the search
// event, what it publishes for the movers, the landmarks' robot position.

class SmootherTest : public ModulesTest {
 protected:
  auto state() { return module<KR::Sim::Smoother>("_Smoother")->snapshot(); }
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

// A ball behind the robot is never seen: lost once, one time-out after the start; observations
// that are not finite, injected on its event, never reach the lookers.
TEST_F(SmootherTest, ATargetNeverSeenIsLostAfterOneTimeOutAndNonFiniteObservationsAreDropped) {
  trackBall({-2.0f, 0.0f, 0.45f}, 500);
  sim->runUntil(2.0);
  EXPECT_THAT(eventTimes(Namer::getNameLost()), ElementsAre(DoubleNear(0.5, 0.02)));
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
  module<KR::Sim::Smoother>("_Smoother")->raiseSearchEvent();
  EXPECT_EQ(events(Namer::getNameLost()), 0u);
  sim->runUntil(2.0);
  ASSERT_EQ(events(Namer::getNameLost()), 1u);
  proxy("_Smoother")->call("_raiseSearchEvent");
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
  EXPECT_EQ(module<KR::Sim::Smoother>("_Smoother")->getPosition(), KRValue());  // no map yet
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
  auto smoother = proxy("_Smoother");
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

// ---------------------------------------------------------------------------------------------
// The round searcher: looks for a lost target only when searching is on, turns round to find
// it, by the head or by the whole body; its settings.

class SearcherTest : public ModulesTest {
 protected:
  /// A ball behind the robot, tracked with the given search settings.
  void trackBallBehind(bool search, bool wholeBody = false) {
    sim->callTracker("toggleSearch", search);
    sim->callTracker("searcherSetUseWholeBodyLookAt", wholeBody);
    trackBall(ball, 1000);
  }
  auto state() { return module<KR::Sim::RoundSearcher>("_RoundSearcher")->snapshot(); }
  const Position3D ball{-1.5f, 0.4f, 0.45f};
};

TEST_F(SearcherTest, ALostTargetIsSearchedForAndFollowedOnceFound) {
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

TEST_F(SearcherTest, TheWholeBodySearchTurnsTheGazeRoundTheRobot) {
  trackBallBehind(true, true);
  record();
  sim->runUntil(20.0);
  EXPECT_FALSE(motionCalls("_lookAtWb").empty());
  EXPECT_TRUE(motionCalls("moveTo").empty());
  EXPECT_EQ(events(Namer::getNameDetected()), 1u);
  EXPECT_LT(lineOfSightDeg(ball), 3.0);
}

TEST_F(SearcherTest, WithoutSearchingALostTargetStaysLost) {
  trackBallBehind(false);
  record();
  sim->runUntil(10.0);
  EXPECT_EQ(events(Namer::getNameLost()), 1u);
  EXPECT_EQ(events(Namer::getNameDetected()), 0u);
  EXPECT_TRUE(motionCalls("setAngles").empty());
  EXPECT_EQ(sim->motion().getTruePose().theta, 0.0f);
  EXPECT_FALSE(state().searching);
}

TEST_F(SearcherTest, StoppingTheSearcherStopsItsTurn) {
  trackBallBehind(true);
  while (!sim->motion().moveIsActive() && sim->time() < 10.0)
    sim->step();  // until the head has swept and the robot turns
  ASSERT_TRUE(sim->motion().moveIsActive());
  EXPECT_TRUE(state().searching);
  sim->callTracker("toggleSearch", false);
  EXPECT_FALSE(state().enabled);
  EXPECT_FALSE(sim->motion().moveIsActive());
}

TEST_F(SearcherTest, SettingsAreCheckedAndInitializeRestoresThem) {
  const float standard = KR::Sim::RoundSearcher::kDefaultFraction;
  auto searcher = proxy("_RoundSearcher");
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

// ---------------------------------------------------------------------------------------------
// The head, whole-body and arms lookers: where they turn the robot, their dead bands, speeds
// and resources, the arms' reach.

class LookersTest : public ModulesTest {
 protected:
  /// The ball at a map point, followed in the given mode.
  Position3D followBall(Position3D at, const std::string& mode = "Head") {
    addTarget("ball", Target::TargetRedBall, at);
    track(Target::TargetRedBall, mode);
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
  EXPECT_TRUE(motionCalls("_trackerWithSpeed").empty());
  EXPECT_TRUE(module<KR::Sim::HeadLooker>("_HeadLooker")->snapshot().running);
  EXPECT_GE(events("KRTracker/HeadTracking/Restarted"), 1u);
}

TEST_F(LookersTest, TheHeadMovesAtTheMaximumVelocityReachedAtTheMaximumAcceleration) {
  sim->callTracker("setMaximumVelocity", 0.5f);
  sim->callTracker("setMaximumAcceleration", 10.0f);
  record();
  followBall({1.0f, 0.45f, 0.5f});
  sim->runFor(0.3);
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
  sim->runFor(0.2);
  EXPECT_NEAR(sim->motion().getAngle(head.yaw.name) - yaw0, 0.1f, 0.002f);
}

TEST_F(LookersTest, TheHeadLookerRefusesBadLimitsAndYieldsTheTakenHead) {
  for (const KRValue& bad :
       {KRValue{1.0f}, KRValue{0.0f, 1.0f}, KRValue{1.0f, -2.0f}, KRValue{"fast", 1.0f}}) {
    EXPECT_THROW(proxy("_HeadLooker")->call("setImplParam", bad), KR::KRError) << bad;
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

TEST_F(LookersTest, NothingIsSentOnceTheLookersAreStopped) {
  followBall({1.0f, 0.45f, 0.65f}, "WholeBody");
  sim->callTracker("setEffector", std::string("Arms"));
  sim->runFor(0.5);
  sim->callTracker("stop");
  record();
  sim->runFor(0.5);
  for (const char* method : {"_trackerWithSpeed", "_lookAtWb", "setAngles", "move", "moveTo"})
    EXPECT_TRUE(motionCalls(method).empty()) << method;
  EXPECT_FALSE(sim->motion().isWholeBodyGazeActive());  // the held gaze was cancelled
}

TEST_F(LookersTest, TheWholeBodyLookerTurnsTheBaseTowardATargetToTheSide) {
  // Seen ahead, then walking round to the robot's left.
  addPath("ball", Target::TargetRedBall,
          Path::orbit({0.0f, 0.0f, 0.0f}, 1.5f, 0.5f, 0.2f, 0.5f, 0.5, 3.3));
  track(Target::TargetRedBall, "WholeBody");
  sim->runFor(5.0);
  const Position3D at = sim->world().targetPosition("ball", sim->time());
  ASSERT_GT(std::atan2(at.y, at.x), 1.5f);
  // The base turned most of the way, the head took the rest.
  EXPECT_GT(sim->motion().getTruePose().theta, 1.0f);
  EXPECT_LT(lineOfSightDeg(at), 8.0);
  record();
  sim->runFor(1.0);
  EXPECT_TRUE(motionCalls("_lookAtWb").empty());  // settled within its dead band
}

TEST_F(LookersTest, TheWholeBodyGazeSwingsAcrossAMovingTargetWithinItsDeadBand) {
  // A ball circling the robot at 0.2 rad/s and rising slowly. Between two gazes the camera
  // goes from about half the whole-body band (5 degrees) ahead of the ball to half a band
  // behind, instead of from on it to a whole band behind; and each gaze aims the pitch too,
  // though the rise alone never leaves the band.
  KR::Sim::TargetScript ball;
  ball.name = "ball";
  ball.kind = Target::TargetRedBall;
  for (int i = 0; i <= 180; ++i) {
    const double t = 0.05 * i;
    const double angle = -0.6 + 0.2 * t;
    ball.path.add(t, Position3D(static_cast<float>(1.2 * std::cos(angle)),
                                static_cast<float>(1.2 * std::sin(angle)),
                                static_cast<float>(0.4 + 0.012 * t)));
  }
  sim->world().addTarget(ball);
  sim->callTracker("setMode", std::string("WholeBody"));
  track(Target::TargetRedBall);
  sim->runFor(2.0);
  double ahead = 0.0;   // most negative: the ball to the right of the camera's axis
  double behind = 0.0;  // most positive: the ball to its left, where it is going
  double vertical = 0.0;
  for (int i = 0; i < 600; ++i) {
    sim->runFor(0.01);
    const Position3D at = sim->world().targetPosition("ball", sim->time());
    const Position3D seen = KR::Math::pinv(sim->motion().getMapToHeadEffector(0)) * at;
    const double deg = std::atan2(seen.y, seen.x) * 180.0 / M_PI;
    ahead = std::min(ahead, deg);
    behind = std::max(behind, deg);
    vertical = std::max(vertical, std::fabs(std::atan2(seen.z, seen.x)) * 180.0 / M_PI);
  }
  EXPECT_LT(ahead, -1.5);
  EXPECT_GT(behind, 1.5);
  EXPECT_LT(behind, 3.5);
  EXPECT_LT(vertical, 1.5);
}

TEST_F(LookersTest, ArmsAreWithinReachWhenTheyCanPointAtTheTarget) {
  const auto& model = sim->robot().trackerModel();
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
    SCOPED_TRACE(::testing::Message() << c.target);
    float leftError = 0.0f;
    EXPECT_EQ(KR::Sim::ArmsLooker::isWithinReach(model.leftArm, c.target, &leftError), c.left);
    EXPECT_EQ(KR::Sim::ArmsLooker::isWithinReach(model.rightArm, c.target), c.right);
    if (c.left) {
      EXPECT_LE(leftError, KR::Sim::ArmsLooker::kReachTolerance);
    }
  }
}

TEST_F(LookersTest, BothArmsPointAtATargetWithinReachAndGoBackToRestOutsideIt) {
  const Position3D at(1.0f, 0.2f, 0.5f);
  addPath("ball", Target::TargetRedBall, Path({{0.0, at}, {2.0, at}, {2.1, {2.8f, 0.2f, 0.5f}}}));
  sim->callTracker("setEffector", std::string("Arms"));
  track(Target::TargetRedBall);
  const auto arms = module<KR::Sim::ArmsLooker>("_ArmsLooker")->snapshot();
  EXPECT_EQ(arms.effector, "Arms");
  EXPECT_FALSE(arms.wholeBody);
  sim->runFor(1.0);
  EXPECT_LT(pointingDeg("LArm", at), 1.5);
  EXPECT_LT(pointingDeg("RArm", at), 1.5);
  sim->runUntil(3.5);  // now 2.8 m away: out of reach
  const auto& model = sim->robot().trackerModel();
  EXPECT_NEAR(sim->motion().getAngle(model.leftArm.joints[0].name), 1.4f, 1e-3);
  EXPECT_NEAR(sim->motion().getAngle(model.rightArm.joints[0].name), 1.4f, 1e-3);
  EXPECT_THROW(proxy("_ArmsLooker")->call("setImplParam", KRValue{"Legs", true}), KR::KRError);
}

// ---------------------------------------------------------------------------------------------
// The movers: keeping the relative position, skipping null commands, their limits, and
// navigation only where the robot can navigate.

class MoversTest : public ModulesTest {
 protected:
  /// A person standing at a map point, followed in a move mode at a relative position.
  void followPerson(Position3D at, const std::string& mode, const KRValue& relative,
                    std::vector<KR::Sim::TimeInterval> hidden = {}) {
    addTarget("person", Target::TargetPeople, at, std::move(hidden), KR::Sim::Layout::World);
    sim->callTracker("setMode", mode);
    sim->callTracker("setRelativePosition", relative);
    track(Target::TargetPeople);
  }
  /// The person in the robot frame, from the ground truth.
  Position3D seenFromRobot() {
    const Position3D at = sim->world().targetPosition("person", sim->time());
    return KR::Math::pinv(KR::Math::transformFromPose2D(sim->motion().getTruePose())) * at;
  }
  auto state() { return module<KR::Sim::MotionMove>("_MotionMove")->snapshot(); }
};

TEST_F(MoversTest, MoveModeWalksToTheRelativePositionAndThenSendsNothing) {
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

TEST_F(MoversTest, MoveModeKeepsToTheConfiguredSpeedAndRefusesUnknownSettings) {
  sim->callTracker("setMoveConfig", KRValue{KRValue{"MaxVelocityXY", 0.05f}});
  EXPECT_FLOAT_EQ(state().limits.maxVelocityXY, 0.05f);
  record();
  followPerson({2.0f, 0.0f, 0.6f}, "Move", kRelative);
  sim->runFor(2.0);
  const auto moves = motionCalls("move");
  ASSERT_FALSE(moves.empty());
  for (const auto& m : moves)
    EXPECT_LE(std::hypot(m.args[0].asFloat(), m.args[1].asFloat()), 0.05f + 1e-6f);
  auto mover = proxy("_MotionMove");
  EXPECT_THROW(mover->call("setParam", KRValue{KRValue{"Speed", 1.0f}}), KR::KRError);
  EXPECT_THROW(mover->call("setParam", KRValue{KRValue{"MaxVelocityTheta", -1.0f}}), KR::KRError);
  mover->call("setParam", KRValue());  // back to the base's limits
  EXPECT_EQ(state().limits.maxVelocityXY, 0.0f);
}

TEST_F(MoversTest, AStoppedMoverStopsOnlyTheBaseItSetGoing) {
  proxy("_MotionMove")->call("start");
  sim->motion().move(0.1f, 0.0f, 0.0f);  // someone else's walk
  record();
  proxy("_MotionMove")->call("stopMove");
  EXPECT_TRUE(motionCalls("stopMove").empty());
  EXPECT_TRUE(sim->motion().moveIsActive());
}

TEST_F(MoversTest, TheMoverStopsWhenTheTargetIsLost) {
  followPerson({2.5f, 0.0f, 0.6f}, "Move", kRelative, {{1.0, 10.0}});
  sim->callTracker("setTimeOut", 500);
  sim->runFor(1.2);
  EXPECT_TRUE(sim->motion().moveIsActive());
  sim->runUntil(1.6);
  EXPECT_EQ(events(Namer::getNameLost()), 1u);
  EXPECT_FALSE(sim->motion().moveIsActive());
  EXPECT_FALSE(state().moving);
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
  const auto navigation = module<KR::Sim::NavigationMove>("_NavigationMove");
  EXPECT_TRUE(navigation->snapshot().running);
  sim->callTracker("setMode", std::string("Head"));
  EXPECT_FALSE(navigation->snapshot().running);
}

TEST_F(MoversTest, NavigationOnARobotThatCannotNavigateIsLoggedOnceAndGoesNowhere) {
  addTarget("person", Target::TargetPeople, {2.0f, 0.0f, 0.6f}, {}, KR::Sim::Layout::World);
  track(Target::TargetPeople);
  ko::log::ScopedCapture capture;
  proxy("_NavigationMove")->call("start");
  sim->runFor(1.0);
  const auto records = capture.records("KRTracker.NavigationMove");
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(records[0].level, ko::log::Level::error);
  EXPECT_EQ(records[0].location, "update");
  EXPECT_EQ(records[0].text.rfind("Could not navigate: ", 0), 0u);
  EXPECT_EQ(sim->motion().getTruePose().x, 0.0f);
  EXPECT_EQ(sim->motion().getTruePose().y, 0.0f);
}

// ---------------------------------------------------------------------------------------------
// The target manager: Namer ids and event names, what the world publishes, errors.

class TargetManagerTest : public ModulesTest {
 protected:
  void SetUp() override {
    build();
    manager = proxy("_KRTargetManager");
  }
  void add(const std::string& kind, const KRValue& params = {}) {
    manager->call("addTarget", kind, params);
  }
  std::vector<int> ids(const std::string& kind) {
    return manager->call<std::vector<int>>("getTargetIds", kind);
  }
  std::shared_ptr<KR::KRProxy> manager;
};

TEST_F(TargetManagerTest, ReservesNamerIdsAndPublishesUnderTheirNames) {
  add(Target::TargetRedBall, KRValue(0.06f));
  add(Target::TargetLandMarks, KRValue{80, 81});
  EXPECT_EQ(ids(Target::TargetRedBall), std::vector<int>{10});
  EXPECT_EQ(ids(Target::TargetLandMarks), (std::vector<int>{50, 51}));
  EXPECT_THROW(Namer::getInstance().getId(51), KR::KRError);  // taken by the manager

  manager->call("setActiveTarget", std::string(Target::TargetLandMarks));
  EXPECT_EQ(manager->call<std::string>("getEventName"), "KRTracker/ObjectConverter50");
  EXPECT_EQ(manager->call<std::string>("getSecondEventName"), "KRTracker/ObjectConverter51");
  const auto direct = module<KR::Sim::TargetManager>("_KRTargetManager");
  EXPECT_EQ(direct->kindOfEvent("KRTracker/ObjectConverter51"), Target::TargetLandMarks);
  EXPECT_EQ(direct->getTargetParams(Target::TargetLandMarks), (KRValue{80, 81}));

  // Nothing is published before "start", every registered target after, nothing once stopped.
  EXPECT_TRUE(sim->world().publishing().empty());
  manager->call("start");
  const auto published = sim->world().publishing();
  ASSERT_EQ(published.size(), 2u);
  EXPECT_EQ(published.at(Target::TargetRedBall),
            std::vector<std::string>{"KRTracker/ObjectConverter10"});
  EXPECT_EQ(published.at(Target::TargetLandMarks).size(), 2u);
  add(Target::TargetFace);
  EXPECT_EQ(sim->world().publishing().count(Target::TargetFace), 1u);
  manager->call("stopManager");
  EXPECT_TRUE(sim->world().publishing().empty());

  // Removing gives the ids back and forgets the active target.
  manager->call("removeTarget", std::string(Target::TargetLandMarks));
  EXPECT_EQ(Namer::getInstance().getId(51), "KRTracker/ObjectConverter51");
  Namer::getInstance().releaseId(51);
  EXPECT_EQ(manager->call<std::string>("getEventName"), "");
  EXPECT_EQ(manager->call<std::vector<std::string>>("getRegisteredTargets"),
            (std::vector<std::string>{Target::TargetFace, Target::TargetRedBall}));
  manager->call("removeAllTargets");
  EXPECT_FALSE(manager->call<bool>("isTargetManaged", std::string(Target::TargetRedBall)));
  EXPECT_EQ(Namer::getInstance().getId(10), "KRTracker/ObjectConverter10");
  Namer::getInstance().releaseId(10);
}

TEST_F(TargetManagerTest, AnIdTakenElsewhereMovesTheTargetOnByAHundred) {
  Namer::getInstance().getId(20);
  add(Target::TargetFace);
  EXPECT_EQ(ids(Target::TargetFace), std::vector<int>{120});
  Namer::getInstance().releaseId(20);
}

TEST_F(TargetManagerTest, ARawEventReplacesTheActiveTarget) {
  add(Target::TargetRedBall);
  manager->call("setActiveTarget", std::string(Target::TargetRedBall));
  manager->call("setActiveEvent", std::string("Custom/Event"));
  EXPECT_EQ(manager->call<std::string>("getEventName"), "Custom/Event");
  EXPECT_EQ(manager->call<std::string>("getSecondEventName"), "");
}

TEST_F(TargetManagerTest, RefusesWhatItCannotDo) {
  const std::string unsupported =
      "Unsupported target: \"Cat\". Could be: RedBall, Face, People, Sound, LandMarks.";
  const struct {
    std::string method;
    std::vector<KRValue> args;
    std::string message;
  } cases[] = {
      {"addTarget", {"Cat", KRValue()}, unsupported},
      {"setActiveTarget", {"Face"}, "Target \"Face\" is not registered."},
      {"removeTarget", {"Face"}, "Target \"Face\" is not registered."},
      {"setActiveEvent", {""}, "The event name is empty."},
      {"setExtractorPeriod", {"Face", 0}, "The period must be strictly positive, not 0 ms."},
      {"getExtractorPeriod", {"Cat"}, unsupported},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.method);
    const KR::KRError e = krtest::krErrorOf([&] { manager->callValues(c.method, c.args); });
    EXPECT_EQ(e.module(), "_KRTargetManager");
    EXPECT_EQ(e.method(), c.method);
    EXPECT_EQ(e.message(), c.message);
  }
}

TEST_F(TargetManagerTest, ExtractorPeriodsAreTheWorldsObservationPeriods) {
  EXPECT_EQ(manager->call<int>("getExtractorPeriod", std::string(Target::TargetSound)),
            KR::Sim::World::defaultPeriodMs(Target::TargetSound));
  manager->call("setExtractorPeriod", std::string(Target::TargetFace), 120);
  EXPECT_EQ(sim->world().getPeriodMs(Target::TargetFace), 120);
  EXPECT_EQ(manager->call<int>("getExtractorPeriod", std::string(Target::TargetFace)), 120);
}

TEST_F(TargetManagerTest, ActiveTargetPositionIsTheLastObservationInTheTorsoFrame) {
  const Position3D ball(1.2f, 0.3f, 0.1f);
  addTarget("ball", Target::TargetRedBall, ball);
  add(Target::TargetRedBall);
  manager->call("setActiveTarget", std::string(Target::TargetRedBall));
  EXPECT_TRUE(manager->call<std::vector<float>>("getActiveTargetPosition").empty());
  manager->call("start");
  sim->runFor(0.2);
  const auto p = manager->call<std::vector<float>>("getActiveTargetPosition");
  ASSERT_EQ(p.size(), 3u);
  const Position3D expected = KR::Math::pinv(sim->motion().getMapToTorso()) * ball;
  EXPECT_NEAR(p[0], expected.x, 1e-4);
  EXPECT_NEAR(p[1], expected.y, 1e-4);
  EXPECT_NEAR(p[2], expected.z, 1e-4);
}

// ---------------------------------------------------------------------------------------------
// The "KRTracker" service: the tracker's methods reached through the broker by name, also from
// a client thread while the robot runs.

class TrackerServiceTest : public ModulesTest {
 protected:
  void SetUp() override {
    build();
    tracker = proxy("KRTracker");
  }
  std::shared_ptr<KR::KRProxy> tracker;
};

TEST_F(TrackerServiceTest, ForwardsTheTrackersMethodsByName) {
  EXPECT_EQ(tracker->call<std::vector<std::string>>("getAvailableModes"),
            (std::vector<std::string>{"Head", "WholeBody", "Move"}));
  tracker->call("setMode", std::string("WholeBody"));
  EXPECT_EQ(tracker->call<std::string>("getMode"), "WholeBody");
  tracker->call("registerTarget", std::string("Face"), KRValue());
  tracker->call("track", std::string("Face"));
  EXPECT_TRUE(tracker->call<bool>("isActive"));
  EXPECT_EQ(tracker->call<std::string>("getActiveTarget"), "Face");
  tracker->call("stopTracker");
  EXPECT_FALSE(tracker->call<bool>("isActive"));
  EXPECT_EQ(tracker->call<std::string>("getActiveTarget"), "");
  // Built and initialised on the sub-modules: the smoother got the default time-out.
  EXPECT_EQ(tracker->call<int>("getTimeOut"), 3000);
}

TEST_F(TrackerServiceTest, LookAtTakesItsTwoFormsAndNothingElse) {
  record();
  tracker->callValues("lookAt", {KRValue{1.0f, 0.2f, 0.3f}, 0, 0.5f, false});
  tracker->callValues("lookAt", {KRValue{1.0f, -0.2f, 0.3f}, 0, 1, 0.5f, false});
  EXPECT_EQ(motionCalls("_trackerWithSpeed").size(), 2u);
  const KR::KRError e = krtest::krErrorOf([&] {
    tracker->callValues("lookAt", {KRValue{1.0f, 0.2f, 0.3f}, 0, 0.5f});
  });
  EXPECT_EQ(e.module(), "KRTracker");
  EXPECT_THAT(e.message(), HasSubstr("not 3 arguments"));
}

TEST_F(TrackerServiceTest, TheConfigurationTableTravelsAsNameValuePairs) {
  tracker->call("setTrackerConfig", KRValue{KRValue{"ARMS_THRESHOLD", 0.1f}});
  const KRValue table = tracker->call<KRValue>("getTrackerConfig");
  ASSERT_EQ(table.size(), 15u);  // the three gain vectors are not floats
  const auto& pairs = table.asArray();
  const auto arms = std::find_if(pairs.begin(), pairs.end(), [](const KRValue& p) {
    return p[0] == KRValue("ARMS_THRESHOLD");
  });
  ASSERT_NE(arms, pairs.end());
  EXPECT_FLOAT_EQ((*arms)[1].asFloat(), 0.1f);
  EXPECT_NE(tracker->call<std::string>("getTrackerConfigStr").find("ARMS_THRESHOLD: +0.1000"),
            std::string::npos);
}

TEST_F(TrackerServiceTest, ClientsMayCallWhileTheRobotRuns) {
  const Position3D ball(1.2f, 0.3f, 0.6f);
  addTarget("ball", Target::TargetRedBall, ball);
  sim->callTracker("toggleSearch", true);
  track(Target::TargetRedBall);
  std::atomic<bool> done{false};
  std::atomic<int> calls{0};
  std::thread client([&] {
    auto other = proxy("KRTracker");
    const std::vector<std::string> modes{"WholeBody", "Move", "Head"};
    const std::vector<std::string> effectors{"Arms", "LArm", "None"};
    for (int i = 0; !done; ++i, ++calls) {
      other->call("setMode", modes[i % 3]);
      other->call("setEffector", effectors[i % 3]);
      other->call<std::vector<float>>("getTargetPosition", 0);
      other->call("toggleSearch", i % 2 == 0);
    }
  });
  // Steps interleave with the client's calls for at least 5 s of simulated time.
  while (sim->time() < 5.0 || calls < 100) {
    sim->step();
    std::this_thread::yield();
  }
  done = true;
  client.join();
  // Whatever the interleaving, the tracker is left consistent and follows the ball again.
  tracker->call("setMode", std::string("Head"));
  tracker->call("setEffector", std::string("None"));
  tracker->call("toggleSearch", true);  // the churn may have lost the ball: find it again
  sim->runFor(20.0);
  EXPECT_TRUE(tracker->call<bool>("isActive"));
  EXPECT_LT(lineOfSightDeg(ball), 3.0);
}

// ---------------------------------------------------------------------------------------------
// What the sub-modules take from the configuration table: the LOG_ switches that write their
// diagnostic files, and the head threshold of each kind of target.

namespace fs = std::filesystem;

class ConfigurationTest : public ModulesTest {
 protected:
  void TearDown() override {
    ModulesTest::TearDown();
    KR::Tracker::resetConfig();
    fs::remove_all(directory);
  }
  const fs::path directory =
      fs::temp_directory_path() / ("krsim-modules-logs-" + std::to_string(::getpid()));
};

TEST_F(ConfigurationTest, EachLogSwitchWritesTheCommandsOfItsModules) {
  const std::vector<std::string> files{"HeadLooker.txt", "WholeBodyLooker.txt", "ArmsLooker.txt",
                                       "MotionMove.txt", "Smoother_input.txt"};
  const struct {
    KR::Tracker::ConfigKey key;
    std::string mode;
    std::string effector;
    std::string file;
    std::string header;
  } cases[] = {
      {KR::Tracker::LOG_HEAD_COMMAND, "Head", "None", "HeadLooker.txt", "#Time HeadYaw HeadPitch#"},
      {KR::Tracker::LOG_HEAD_COMMAND, "WholeBody", "None", "WholeBodyLooker.txt",
       "#Time HeadYaw HeadPitch#"},
      {KR::Tracker::LOG_ARM_COMMAND, "Head", "LArm", "ArmsLooker.txt",
       "#Time LShoulderPitch LShoulderRoll LElbowYaw LElbowRoll LWristYaw#"},
      {KR::Tracker::LOG_MOVE_COMMAND, "Move", "None", "MotionMove.txt", "#Time X Y Theta#"},
      {KR::Tracker::LOG_INPUT_DATA, "Head", "None", "Smoother_input.txt",
       "WorldToObjectX WorldToObjectY WorldToObjectZ WorldToObjectWx WorldToObjectWy "
       "WorldToObjectWz Distance HeadThreshold SourceId TrackEffector Timestamp isValid "},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.file);
    TearDown();
    build();  // the tracker's initialisation resets the table: switch on afterwards
    fs::create_directories(directory);
    KR::Tracker::setLogDirectory(directory.string() + "/");
    KR::Tracker::setConfigValue(c.key, KRValue(true));
    addTarget("ball", Target::TargetRedBall, {1.6f, 0.4f, 0.6f});
    sim->callTracker("setMode", c.mode);
    sim->callTracker("setEffector", c.effector);
    sim->callTracker("setRelativePosition", kRelative);
    track(Target::TargetRedBall);
    sim->runFor(1.0);
    std::istringstream written(krtest::readFile((directory / c.file).string()));
    std::string header;
    std::getline(written, header);
    EXPECT_EQ(header, c.header);
    std::string line;
    EXPECT_TRUE(std::getline(written, line)) << "no line after the header";
    for (const auto& other : files) {
      if (other != c.file) {
        EXPECT_FALSE(fs::exists(directory / other)) << other;
      }
    }
  }
}

TEST_F(ConfigurationTest, TheLookersGetTheHeadThresholdOfTheTargetsKindUnlessTheEventHasOne) {
  addTarget("ann", Target::TargetFace, {1.2f, 0.0f, 0.6f});
  addPath("ball", Target::TargetRedBall, Path::fixed({1.0f, 0.2f, 0.5f}), 0.2f);
  KR::Tracker::setConfigValue(KR::Tracker::FACE_HEAD_THRESHOLD, KRValue(0.07f));
  auto lookerThreshold = [&]() {
    return KR::Tracker::types::TrackInfos(sim->memory().getData(Namer::getNameLooker()))
        .getHeadThreshold();
  };
  track(Target::TargetFace);
  sim->runFor(0.3);
  EXPECT_FLOAT_EQ(lookerThreshold(), 0.07f);
  track(Target::TargetRedBall);
  sim->runFor(0.3);
  EXPECT_FLOAT_EQ(lookerThreshold(), 0.2f);
}

}  // namespace
