// The measuring side of a run, on the simulated services alone: the head and arm are
// commanded directly, so every expected figure is known.

#include <sstream>

#include <gtest/gtest.h>

#include <kr/model/modelutils.h>
#include <krsim/run.h>
#include <krtracker/tools/tools.h>

namespace {

using KR::Math::Position3D;
using KR::Sim::Scenario;
using KR::Sim::ScenarioRun;
using KR::Sim::Simulation;

class RunTest : public ::testing::Test {
 protected:
  /// The ball sits ahead and to the left; at 1 s the head and the left arm are turned to it,
  /// at 2 s it hides for half a second and an event is raised.
  Scenario scenario() {
    Scenario s;
    s.name = "measure";
    s.robotFile = KR::Sim::resolveRobotFile("kibo");
    s.duration = 3.0;
    KR::Sim::TargetScript ball;
    ball.name = "ball";
    ball.kind = "RedBall";
    ball.path = KR::Sim::Path::fixed(kBall);
    ball.hidden = {{2.0, 2.5}};
    s.targets = {ball};
    s.actions = {
        {1.0, "aim",
         [](Simulation& sim) {
           const auto& model = sim.robot().trackerModel();
           const Position3D inTorso = KR::Math::pinv(sim.motion().getMapToTorso()) * kBall;
           std::vector<std::string> names;
           std::vector<float> angles;
           ASSERT_TRUE(KR::Tracker::tools::computeLookAtAngles(
               inTorso, model, KR::Model::TRACK_EFFECTOR_CAMERA_TOP, false, names, angles));
           KR::Tracker::tools::computePointAtAngles(inTorso, model.leftArm, names, angles);
           sim.motion().setAngles(names, angles, {1.0f});
         }},
        {2.0, "events", [](Simulation& sim) {
           sim.memory().raiseEvent("KRTracker/TargetLost", KR::KRValue(true));
           sim.memory().raiseEvent("KRTracker/ObjectConverter5", KR::KRValue(1));
           sim.memory().raiseEvent("KRTracker/ObjectLookAt", KR::KRValue(1));
         }}};
    KR::Sim::Phase look;
    look.name = "look";
    look.begin = 0.0;
    look.end = 3.0;
    look.target = "ball";
    look.arms = {"LArm", "RArm"};
    look.settleSeconds = 1.5;
    s.phases = {look};
    return s;
  }

  static inline const Position3D kBall{1.0f, 0.4f, 0.3f};
};

TEST_F(RunTest, AcquisitionLineOfSightPointingAndEventsAreMeasuredPerPhase) {
  std::vector<std::string> progress;
  KR::Sim::SimulationConfig ideal;  // an ideal camera and ideal servos: known answers
  ideal.setPerception(KR::Sim::Perception::ideal());
  ideal.servo = KR::Sim::ServoModel::ideal();
  ScenarioRun run(scenario(), ideal);
  run.setProgress([&](const std::string& line) { progress.push_back(line); }, 1.0);
  run.runToEnd();
  EXPECT_FALSE(run.step());
  ASSERT_EQ(run.samples().size(), 300u);

  const auto summaries = run.summaries();
  ASSERT_EQ(summaries.size(), 1u);
  const auto& look = summaries[0];
  // In view from the start; on target once the head has turned, a few steps after 1 s.
  EXPECT_GT(look.acquireSeconds, 1.0);
  EXPECT_LT(look.acquireSeconds, 1.15);
  EXPECT_LT(look.lineOfSightDeg.max, 3.0);  // acquired below 3 degrees, then converging
  EXPECT_LT(run.samples().back().lineOfSightDeg, 0.05);
  // Tracked from acquisition to the end, except while hidden.
  EXPECT_NEAR(static_cast<double>(look.lineOfSightDeg.count), 300 - 100 * look.acquireSeconds - 50,
              2.0);
  // The left arm points exactly; the right arm is not commanded but the ball is in its reach.
  EXPECT_EQ(look.armDeg.count, 2u * 101u);  // 1.50 s to 3.00 s, less the hidden 2.00 to 2.49 s
  EXPECT_GT(look.armDeg.max, 30.0);
  double leftMax = 0.0;
  for (const auto& s : run.samples())
    leftMax = std::max(leftMax, double(s.leftArmDeg));
  EXPECT_LT(leftMax, 0.05);
  // Observations and the smoother's streams are not counted.
  ASSERT_EQ(look.events.size(), 1u);
  EXPECT_EQ(look.events[0], std::make_pair(std::string("KRTracker/TargetLost"), std::size_t{1}));

  const auto at = [&](double t) { return run.samples()[static_cast<std::size_t>(t * 100) - 1]; };
  EXPECT_FALSE(at(0.5).tracked);
  EXPECT_TRUE(at(0.5).perceived);
  EXPECT_TRUE(at(1.5).tracked);
  EXPECT_TRUE(at(2.2).inView);
  EXPECT_FALSE(at(2.2).perceived);
  EXPECT_TRUE(at(2.8).tracked);

  EXPECT_NE(std::find(progress.begin(), progress.end(), "[   1.00 s] aim"), progress.end());
  EXPECT_NE(std::find(progress.begin(), progress.end(), "[   2.00 s] event KRTracker/TargetLost"),
            progress.end());
  for (const auto& line : progress)
    EXPECT_EQ(line.find("ObjectLookAt"), std::string::npos);
}

TEST_F(RunTest, CsvHasOneLinePerStepAndTheSummaryOneRowPerPhase) {
  ScenarioRun run(scenario(), KR::Sim::SimulationConfig());
  run.runToEnd();
  std::ostringstream csv;
  run.writeCsv(csv);
  std::istringstream lines(csv.str());
  std::string line;
  ASSERT_TRUE(std::getline(lines, line));
  EXPECT_EQ(line, ScenarioRun::csvHeader());
  const auto columns = std::count(line.begin(), line.end(), ',');
  int rows = 0;
  while (std::getline(lines, line)) {
    ++rows;
    EXPECT_EQ(std::count(line.begin(), line.end(), ','), columns) << line;
    if (rows == 150) {
      EXPECT_EQ(line.rfind("1.50,look,0.0000,0.0000,0.0000,", 0), 0u) << line;
      EXPECT_NE(line.find(",1,1,1,"), std::string::npos) << line;  // in view, perceived, tracked
    }
  }
  EXPECT_EQ(rows, 300);

  const std::string table = KR::Sim::formatSummary(run.summaries());
  std::istringstream tableLines(table);
  std::string header;
  std::string row;
  ASSERT_TRUE(std::getline(tableLines, header));
  ASSERT_TRUE(std::getline(tableLines, row));
  EXPECT_EQ(header.rfind("phase  acquire [s]  LoS RMS [deg]  LoS max [deg]", 0), 0u) << header;
  EXPECT_EQ(header.find("follow"), std::string::npos);  // no phase measures it
  EXPECT_EQ(row.rfind("look ", 0), 0u) << row;
  EXPECT_EQ(row.substr(row.size() - std::string("KRTracker/TargetLost x1").size()),
            "KRTracker/TargetLost x1");
  EXPECT_FALSE(std::getline(tableLines, row));
}

}  // namespace
