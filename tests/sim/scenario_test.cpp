// End-to-end: the tracker on the simulated robot, with the tracking service's sub-modules.

#include <algorithm>
#include <cmath>
#include <ctime>
#include <map>
#include <mutex>
#include <sstream>

#include <gtest/gtest.h>

#include <kr/model/modelutils.h>
#include <krsim/run.h>
#include <krtracker/tools/tools.h>

namespace {

using KR::Sim::PhaseMeasures;
using KR::Sim::PhaseSummary;
using KR::Sim::Sample;
using KR::Sim::ScenarioOptions;
using KR::Sim::ScenarioRun;

/// A finished run with what it streamed: every sample, the tracker's losses and detections
/// with their times, and the CSV.
struct Streams {
  std::vector<Sample> samples;
  std::map<std::string, std::vector<double>> events;
  std::mutex mutex;
};

struct Recorded {
  std::shared_ptr<Streams> streams = std::make_shared<Streams>();
  std::unique_ptr<ScenarioRun> run;
  std::vector<Sample>& samples = streams->samples;
  std::map<std::string, std::vector<double>>& events = streams->events;
  std::string csv;
  ScenarioRun* operator->() const { return run.get(); }
  ScenarioRun& operator*() const { return *run; }
};

Recorded runScenario(const std::string& name, ScenarioOptions options = {}, std::uint32_t seed = 1,
                     float noise = 0.005f) {
  KR::Sim::SimulationConfig config;
  config.seed = seed;
  config.noise = noise;
  config.setPerception(KR::Sim::Perception::ideal());
  config.servo = KR::Sim::ServoModel::ideal();
  config.modules = &KR::Sim::createTrackerModules;
  Recorded r;
  r.run = std::make_unique<ScenarioRun>(KR::Sim::makeScenario(name, options), config);
  auto streams = r.streams;  // outlives the run's subscriptions
  r.run->setSampleObserver([streams](const Sample& s) { streams->samples.push_back(s); });
  std::ostringstream csv;
  r.run->setCsv(&csv);
  auto& sim = r.run->simulation();
  for (const std::string event : {"KRTracker/TargetLost", "KRTracker/TargetDetected"}) {
    sim.memory().subscribe(event, [streams, &sim](const std::string& n, const KR::KRValue&) {
      std::lock_guard<std::mutex> lock(streams->mutex);
      streams->events[n].push_back(sim.time());
    });
  }
  r.run->runToEnd();
  r.csv = csv.str();
  return r;
}

PhaseMeasures phase(const Recorded& run, const std::string& name) {
  for (const auto& s : run->summaries()) {
    if (s.measures.name == name)
      return s.measures;
  }
  ADD_FAILURE() << "no phase " << name;
  return {};
}

/// Largest per-axis gap, in the robot frame, between the target and the requested offset.
std::pair<float, float> relativeGap(const Recorded& run, double from, float x, float y) {
  float gx = 0.0f;
  float gy = 0.0f;
  for (const Sample& s : run.samples) {
    if (s.time < from || !s.hasTarget)
      continue;
    const auto p = KR::Math::pinv(KR::Math::transformFromPose2D(s.robot)) * s.target;
    gx = std::max(gx, std::fabs(p.x - x));
    gy = std::max(gy, std::fabs(p.y - y));
  }
  return {gx, gy};
}

TEST(ScenarioTest, HeadModeAcquiresTheBallQuicklyAndKeepsItInSight) {
  ScenarioOptions options;
  options.duration = 20.0;
  auto run = runScenario("ball", options);
  // The premise: the ball never moves faster than half the head's velocity limit.
  const float limit = run->simulation().callTracker<float>("getMaximumVelocity");
  double fastest = 0.0;
  const auto& samples = run.samples;
  for (std::size_t i = 1; i < samples.size(); ++i) {
    const double turn =
        std::fabs(KR::Math::modulo2PI(samples[i].bearingYaw - samples[i - 1].bearingYaw));
    fastest = std::max(fastest, turn / (samples[i].time - samples[i - 1].time));
  }
  EXPECT_LE(fastest, 0.5 * limit);
  EXPECT_GT(fastest, 0.3 * limit);

  // The ball starts outside the field of view: the search counts in the time to on-target,
  // and the line of sight covers the moment it comes into view.
  const PhaseMeasures head = phase(run, "head tracking");
  ASSERT_TRUE(head.timeToOnTargetS && head.losRmsDeg && head.losP95Deg && head.onTargetPct);
  EXPECT_GT(*head.timeToOnTargetS, 2.0);
  EXPECT_LT(*head.timeToOnTargetS, 6.0);
  EXPECT_LT(*head.losRmsDeg, 3.0);
  EXPECT_LT(*head.losP95Deg, 3.0);
  EXPECT_GT(*head.onTargetPct, 70.0);
  EXPECT_FALSE(head.armsRmsDeg);  // effector None
}

TEST(ScenarioTest, WholeBodyWithArmsPointsBothForearmsAtTheBall) {
  ScenarioOptions options;
  options.duration = 38.0;
  auto run = runScenario("ball", options);
  const PhaseMeasures body = phase(run, "whole body + arms");
  std::size_t left = 0;
  std::size_t right = 0;
  for (const Sample& s : run.samples) {
    left += s.leftArmDeg >= 0.0f;
    right += s.rightArmDeg >= 0.0f;
  }
  EXPECT_GT(left, 800u);
  EXPECT_GT(right, 800u);
  ASSERT_TRUE(body.armsRmsDeg);
  EXPECT_LT(*body.armsRmsDeg, 3.0);
  // The body turned to follow the ball round.
  double turned = 0.0;
  for (const Sample& s : run.samples)
    turned = std::max(turned, static_cast<double>(std::fabs(s.robot.theta)));
  EXPECT_GT(turned, 0.5);
}

TEST(ScenarioTest, ABallLostBehindTheRobotIsSearchedForAndFoundAgain) {
  auto run = runScenario("ball");
  const int timeOutMs = run->simulation().callTracker<int>("getTimeOut");
  const auto lost = run.events["KRTracker/TargetLost"];
  const auto detected = run.events["KRTracker/TargetDetected"];
  // Hidden from 39 s to 44.5 s: one loss, a time-out after the last sight.
  std::vector<double> lostLate;
  std::copy_if(lost.begin(), lost.end(), std::back_inserter(lostLate),
               [](double t) { return t > 38.0; });
  ASSERT_EQ(lostLate.size(), 1u);
  EXPECT_NEAR(lostLate[0], 39.0 + timeOutMs / 1000.0, 0.25);
  const auto found =
      std::find_if(detected.begin(), detected.end(), [&](double t) { return t > lostLate[0]; });
  ASSERT_NE(found, detected.end()) << "never found again";
  EXPECT_GT(*found, 44.5);  // not before the ball shows again
  // The searcher turned the robot round to the ball behind it, which is followed to the end.
  const Sample& last = run.samples.back();
  EXPECT_GT(std::fabs(last.robot.theta), 1.5);
  EXPECT_TRUE(last.tracked);
  // Back on target counted from the loss, the search included: longer than the occlusion.
  const auto wait = phase(run, "lost and found").timeToOnTargetS;
  ASSERT_TRUE(wait);
  EXPECT_GT(*wait, 5.0);
  EXPECT_LT(*wait, 15.0);
}

TEST(ScenarioTest, LandmarksRelocateTheRobotWithinFiveCentimetresAndThreeDegrees) {
  auto run = runScenario("landmarks");
  const PhaseSummary loc = run->summaries().at(0);
  EXPECT_EQ(loc.localisationMissing, 0u);
  EXPECT_GE(loc.localisationM.count, 25u);
  EXPECT_LT(loc.localisationM.max, 0.05);
  EXPECT_LT(loc.localisationDeg.max, 3.0);
  // Meaningful only because odometry alone is far off: other origin, and drifting.
  auto& motion = run->simulation().motion();
  const auto odometry = motion.getOdometryPose();
  const auto truth = motion.getTruePose();
  EXPECT_GT(std::hypot(odometry.x - truth.x, odometry.y - truth.y), 0.3);
}

TEST(ScenarioTest, MoveModeKeepsItsDistanceToAWalkingPerson) {
  auto run = runScenario("people");
  const auto gap = relativeGap(run, 8.0, 0.9f, 0.0f);
  EXPECT_LE(gap.first, 0.15f + 0.05f);
  EXPECT_LE(gap.second, 0.15f + 0.05f);
  EXPECT_GT(run->simulation().motion().getTruePose().x, 1.0f);  // it walked after the person
}

TEST(ScenarioTest, NavigateFollowsOnTheWheeledRobotAndIsRefusedOnTheHumanoid) {
  auto run = runScenario("navigate");
  const auto gap = relativeGap(run, 8.0, 1.2f, 0.0f);
  EXPECT_LE(gap.first, 0.2f + 0.05f);
  EXPECT_LE(gap.second, 0.2f + 0.05f);
  const auto end = run->simulation().motion().getTruePose();
  EXPECT_GT(std::hypot(end.x, end.y), 3.0f);
  EXPECT_EQ(run->simulation().callTracker<std::string>("getMode"), "Navigate");

  auto humanoid = runScenario("people", {"", "", "", 1.0});
  auto& sim = humanoid->simulation();
  sim.callTracker("setMode", std::string("Navigate"));
  EXPECT_EQ(sim.callTracker<std::string>("getMode"), "Move");
  const auto modes = sim.callTracker<std::vector<std::string>>("getAvailableModes");
  EXPECT_EQ(std::count(modes.begin(), modes.end(), "Navigate"), 0);
}

TEST(ScenarioTest, OneShotLookBehindTurnsTheRobotAndPointAtAimsEachEffector) {
  auto run = runScenario("oneshot");
  const auto robot = KR::Model::ModelUtils::robotFromFile(run->scenario().robotFile);
  KR::Math::Position3D behind(-1.0f, 0.6f, 0.2f);
  float turn = 0.0f;
  const auto& head = robot->trackerModel().head;
  ASSERT_TRUE(KR::Tracker::tools::computeAngleLookBehind(head.yaw.min, head.yaw.max, behind, turn));
  const PhaseMeasures look = phase(run, "look behind");
  ASSERT_TRUE(look.timeToOnTargetS && look.onTargetPct);
  EXPECT_LT(*look.timeToOnTargetS, 3.0);
  EXPECT_GT(*look.onTargetPct, 40.0);
  for (const Sample& s : run.samples) {
    if (s.time > 5.0 && s.time < 6.0) {
      EXPECT_NEAR(s.robot.theta, turn, 0.01) << s.time;
    }
  }
  for (const char* name : {"point LArm", "point RArm", "point Arms"}) {
    const PhaseMeasures p = phase(run, name);
    ASSERT_TRUE(p.armsRmsDeg) << name;
    EXPECT_LT(*p.armsRmsDeg, 1.0) << name;
    EXPECT_FALSE(p.losRmsDeg) << name;  // only arms point
  }
  std::size_t both = 0;
  for (const Sample& s : run.samples)
    both += s.leftArmDeg >= 0.0f && s.rightArmDeg >= 0.0f;
  EXPECT_GT(both, 300u);  // "Arms" aims both forearms at once
}

TEST(ScenarioTest, TheSameSeedGivesTheSameCsvByteForByte) {
  ScenarioOptions options;
  options.duration = 25.0;
  auto csv = [&](std::uint32_t seed) { return runScenario("ball", options, seed, 0.01f).csv; };
  const std::string first = csv(7);
  EXPECT_EQ(std::count(first.begin(), first.end(), '\n'), 2501);
  EXPECT_EQ(first, csv(7));
  EXPECT_NE(first, csv(8));
}

TEST(ScenarioTest, TheDefaultScenarioRunsInUnderOneSecondOfCpu) {
  const std::clock_t start = std::clock();
  auto run = runScenario("ball");
  const double cpu = static_cast<double>(std::clock() - start) / CLOCKS_PER_SEC;
  EXPECT_EQ(run.samples.size(), 6000u);
  EXPECT_LT(cpu, 1.0);
}

}  // namespace
