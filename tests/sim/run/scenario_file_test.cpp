// Scenario files read section by section: what each section gives the scenario, the command
// line's replacements, and the mistakes refused with the file, the line and the field (the
// command line's tests cover the others).

#include <cmath>
#include <fstream>

#include <gtest/gtest.h>

#include <kr/error.h>
#include <krsim/run/scenario.h>

#include "sim/helpers.h"

namespace {

using namespace krtest;
using KR::Sim::loadScenarioFile;

const char* const kShelf = R"(name: shelf
robot: kibo
duration: 10
start_pose: [1, -0.5, 90]
odometry_drift: [0.02, 0.01]
targets:
  - name: ball
    kind: RedBall
    layout: world
    fixed: [1.5, 0, 0.3]
    hidden: [[2, 3], [6, 6.5]]
actions:
  - {time: 0, call: setMode, args: [Head]}
  - {time: 0, call: setEffector, args: [LArm]}
  - {time: 1, call: moveTo, args: [0.5, 0, 0], service: KRMotion}
  - {time: 4, call: setMode, args: [WholeBody]}
phases:
  - {name: look, begin: 0, end: 4, target: ball, effector: LArm, settle_s: 1.5}
  - {name: follow, begin: 4, target: ball, relative_position: [0.9, 0, 0, 0.1, 0.1, 0.3], localisation: true}
)";

std::string write(const std::string& name, const std::string& text) {
  const std::string path = ::testing::TempDir() + "/krsim_scenario_file_" + name + ".yaml";
  std::ofstream(path) << text;
  return path;
}

TEST(ScenarioFileReaderTest, EachSectionFillsItsPartOfTheScenario) {
  const auto s = loadScenarioFile(write("shelf", kShelf), {});
  EXPECT_EQ(s.name, "shelf");
  EXPECT_EQ(s.robot->path, KR::Sim::resolveRobotFile("kibo"));
  EXPECT_DOUBLE_EQ(s.duration, 10.0);
  EXPECT_FLOAT_EQ(s.startPose.x, 1.0f);
  EXPECT_FLOAT_EQ(s.startPose.y, -0.5f);
  EXPECT_NEAR(s.startPose.theta, M_PI / 2, 1e-6);  // given in degrees
  EXPECT_FLOAT_EQ(s.odometryDriftLinear, 0.02f);
  EXPECT_FLOAT_EQ(s.odometryDriftAngular, 0.01f);

  ASSERT_EQ(s.targets.size(), 1u);
  EXPECT_EQ(s.targets[0].layout, KR::Sim::Layout::World);
  ASSERT_EQ(s.targets[0].hidden.size(), 2u);
  EXPECT_DOUBLE_EQ(s.targets[0].hidden[1].end, 6.5);

  ASSERT_EQ(s.actions.size(), 4u);
  EXPECT_DOUBLE_EQ(s.actions[2].time, 1.0);
  EXPECT_EQ(s.actions[2].description.rfind("KRMotion.moveTo(0.5", 0), 0u)
      << s.actions[2].description;
  EXPECT_EQ(s.modeText, "Head then WholeBody");

  ASSERT_EQ(s.phases.size(), 2u);
  EXPECT_EQ(s.phases[0].arms, (std::vector<std::string>{"LArm"}));
  EXPECT_DOUBLE_EQ(s.phases[0].settleSeconds, 1.5);
  EXPECT_DOUBLE_EQ(s.phases[1].end, 10.0);  // open: the end of the run
  ASSERT_TRUE(s.phases[1].relativePosition);
  EXPECT_FLOAT_EQ((*s.phases[1].relativePosition)[0], 0.9f);
  EXPECT_TRUE(s.phases[1].measureLocalisation);
  EXPECT_FALSE(s.phases[0].measureLocalisation);
}

TEST(ScenarioFileReaderTest, TheCommandLinesModeEffectorAndDurationReplaceTheFiles) {
  ScenarioOptions options;
  options.mode = "Navigate";
  options.effector = "Arms";
  options.duration = 30.0;
  const auto s = loadScenarioFile(write("replaced", kShelf), options);
  EXPECT_EQ(s.modeText, "Navigate");
  EXPECT_NE(s.actions[0].description.find("Navigate"), std::string::npos);
  EXPECT_NE(s.actions[1].description.find("Arms"), std::string::npos);
  EXPECT_EQ(s.phases[0].arms, (std::vector<std::string>{"LArm", "RArm"}));
  EXPECT_DOUBLE_EQ(s.duration, 10.0);  // a script with an end keeps it
  const auto open = loadScenarioFile(
      write("open", replaced(kShelf, "duration: 10", "open_ended: true\nduration: 10")), options);
  EXPECT_DOUBLE_EQ(open.duration, 30.0);
}

TEST(ScenarioFileReaderTest, SectionMistakesNameTheFileTheLineAndTheField) {
  const struct {
    std::string name;
    std::string from, to;
    std::string where;  // after the file's name
  } cases[] = {
      {"open_ended", "duration: 10", "duration: 10\nopen_ended: maybe",
       ":4: open_ended: expects true or false, not 'maybe'"},
      {"hidden", "hidden: [[2, 3], [6, 6.5]]", "hidden: 2",
       ":11: targets[0].hidden: expects a list of [from, to] intervals"},
      {"args", "args: [Head]", "args: Head", ":13: actions[0].args: expects a list"},
      {"backwards", "{time: 4, call: setMode", "{time: 0.5, call: setMode",
       ":16: actions[3].time: calls go back in time"},
      {"relative", "[0.9, 0, 0, 0.1, 0.1, 0.3]", "[0.9, 0]",
       ":19: phases[1].relative_position: expects a list of 6 numbers"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const std::string file = write(c.name, replaced(kShelf, c.from, c.to));
    try {
      loadScenarioFile(file, {});
      ADD_FAILURE() << "accepted";
    } catch (const KR::KRError& e) {
      EXPECT_NE(e.message().find(file + c.where), std::string::npos) << e.message();
    }
  }
  try {
    loadScenarioFile(::testing::TempDir() + "/krsim_no_such_scenario.yaml", {});
    ADD_FAILURE() << "accepted";
  } catch (const KR::KRError& e) {
    EXPECT_NE(e.message().find("krsim_no_such_scenario.yaml: cannot read the file"),
              std::string::npos)
        << e.message();
  }
}

}  // namespace
