// Scenario files read section by section: what each section gives the scenario, the command
// line's replacements, and the mistakes refused with the file, the line and the field.

#include <sys/stat.h>

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
  - {name: follow, begin: 4, target: ball, relative_position: [0.9, 0, 0, 0.1, 0.1, 0.3], localisation: true, on_target_deg: 4}
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
  EXPECT_DOUBLE_EQ(s.phases[1].acquireDegrees, 4.0);
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

// The refusal of a file: its one line, or "accepted".
std::string refusal(const std::string& file, const ScenarioOptions& options = {}) {
  try {
    loadScenarioFile(file, options);
    return "accepted";
  } catch (const KR::KRError& e) {
    return e.message();
  } catch (const std::exception& e) {
    return e.what();
  }
}

struct Case {
  std::string name;
  std::string text;
  std::string where;        // what the line says after the file's name
  std::string reason = "";  // and further on, if anything
};

std::string edit(const std::string& from, const std::string& to) {
  return replaced(kShelf, from, to);
}

void expectRefused(const std::vector<Case>& cases) {
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const std::string file = write(c.name, c.text);
    const std::string message = refusal(file);
    EXPECT_EQ(message.rfind(file + c.where, 0), 0u) << message;
    EXPECT_NE(message.find(c.reason), std::string::npos) << message;
  }
}

// Every fault of a file is found before anything is built, run or written, and named by the
// file, the line and the field: calls checked against their service's method tables, a script
// that makes no sense as a whole, and files written to hurt.
TEST(ScenarioFileReaderTest, EveryFaultIsRefusedWithItsPlace) {
  const std::string moveTo = "{time: 1, call: moveTo, args: [0.5, 0, 0], service: KRMotion}";
  std::string bomb = "&a0 [1, 1, 1, 1, 1, 1, 1, 1, 1, 1]";
  for (int level = 1; level < 9; ++level) {
    const std::string below = "*a" + std::to_string(level - 1);
    std::string list;
    for (int k = 0; k < 10; ++k)
      list += (k ? ", " : "") + below;
    bomb += ", &a" + std::to_string(level) + " [" + list + "]";
  }
  const std::string fifo = ::testing::TempDir() + "/krsim_scenario_robot_fifo";
  ::unlink(fifo.c_str());
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
  const std::string big = ::testing::TempDir() + "/krsim_scenario_big_robot.xml";
  std::ofstream(big) << krtest::readRobotFile("kibo.xml") << std::string(2 << 20, ' ');
  expectRefused({
      // Fields and values.
      {"missing_name", edit("name: shelf\n", ""), ":1: name: missing"},
      {"not_a_number", edit("duration: 10", "duration: soon"), ":3: duration: expects a number"},
      {"infinite", edit("duration: 10", "duration: .inf"), ":3: duration: expects a number"},
      {"unknown_field", edit("robot: kibo", "robto: kibo"), ":2: robto: unknown field"},
      {"misspelt_field", edit("settle_s: 1.5", "settle: 1.5"),
       ":18: phases[0].settle: unknown field"},
      {"layout", edit("layout: world", "layout: head"), ":9: targets[0].layout: expects"},
      {"short_point", edit("fixed: [1.5, 0, 0.3]", "points: [[0, 1, 0, 0], [1, 1, 0]]"),
       ":10: targets[0].points[1]: expects a list of 4 numbers"},
      {"keyframes", edit("fixed: [1.5, 0, 0.3]", "points: [[1, 1, 0, 0], [0, 1, 0, 0]]"),
       ":10: targets[0].points[1]: keyframes go back in time"},
      {"target", edit("end: 4, target: ball", "end: 4, target: cup"),
       ":18: phases[0].target: no target is called 'cup'"},
      {"negative_time", edit("{time: 0, call: setMode", "{time: -1, call: setMode"),
       ":13: actions[0].time: expects a number from 0"},
      {"bad_yaml", edit("phases:\n", "phases: [\n"), ":", "bad YAML"},
      // Calls.
      {"misspelt", edit("call: setEffector", "call: setEfector"),
       ":14: actions[1].call: KRTracker has no method 'setEfector' (did you mean 'setEffector'?)"},
      {"unknown", edit("call: setEffector", "call: dance"),
       ":14: actions[1].call: KRTracker has no method 'dance'"},
      {"motion_name", edit("call: moveTo", "call: moveTwo"),
       ":15: actions[2].call: KRMotion has no method 'moveTwo' (did you mean 'moveTo'?)"},
      {"service", edit("service: KRMotion", "service: KRMotor"),
       ":15: actions[2].service: expects KRTracker or KRMotion, not 'KRMotor'"},
      {"too_many", edit("args: [LArm]", "args: [LArm, RArm]"),
       ":14: actions[1].args: KRTracker.setEffector expects 1 argument(s), got 2"},
      {"none", edit(", args: [LArm]}", "}"),
       ":14: actions[1].args: KRTracker.setEffector expects 1 argument(s), got 0"},
      {"kind", edit("args: [LArm]", "args: [3]"),
       ":14: actions[1].args: KRTracker.setEffector argument 1 must be string, got int 3"},
      {"motion_kind", edit("args: [0.5, 0, 0]", "args: [0.5, 0, near]"),
       ":15: actions[2].args: KRMotion.moveTo argument 3 must be a float or an int"},
      {"look_count", edit(moveTo, "{time: 1, call: lookAt, args: [[1, 0, 0], 0, 0.5]}"),
       ":15: actions[2].args: KRTracker.lookAt expects 4 or 5 arguments, got 3"},
      {"look_kind", edit(moveTo, "{time: 1, call: lookAt, args: [[1, 0, 0], 0, 1, 0.5, yes]}"),
       ":15: actions[2].args: KRTracker.lookAt argument 5 must be bool"},
      {"args", edit("args: [Head]", "args: Head"), ":13: actions[0].args: expects a list"},
      {"backwards", edit("{time: 4, call: setMode", "{time: 0.5, call: setMode"),
       ":16: actions[3].time: calls go back in time"},
      // The script as a whole.
      {"open_ended", edit("duration: 10", "duration: 10\nopen_ended: maybe"),
       ":4: open_ended: expects true or false, not 'maybe'"},
      {"hidden", edit("hidden: [[2, 3], [6, 6.5]]", "hidden: 2"),
       ":11: targets[0].hidden: expects a list of [from, to] intervals"},
      {"relative", edit("[0.9, 0, 0, 0.1, 0.1, 0.3]", "[0.9, 0]"),
       ":19: phases[1].relative_position: expects a list of 6 numbers"},
      {"kind", edit("kind: RedBall", "kind: BlueBall"),
       ":8: targets[0].kind: expects one of RedBall, Face, People, Sound, LandMarks, not "
       "'BlueBall'"},
      {"twice", edit("robot: kibo", "robot: kibo\nrobot: rover"), ":3: robot: given twice"},
      {"twice_nested", edit("layout: world", "layout: world\n    layout: torso"),
       ":10: targets[0].layout: given twice"},
      {"twice_flow", edit("{time: 0, call: setMode", "{time: 0, time: 1, call: setMode"),
       ":13: actions[0].time: given twice"},
      {"documents", kShelf + std::string("---\nname: second\n"),
       ":21: ---: a second YAML document"},
      {"reversed", edit("[6, 6.5]", "[6.5, 6]"),
       ":11: targets[0].hidden[1]: the interval ends before it begins (6.5 s to 6 s)"},
      {"late_call", edit("{time: 4, call: setMode", "{time: 10.5, call: setMode"),
       ":16: actions[3].time: at 10.5 s, after the end of the script (duration 10 s)"},
      {"late_phase", edit("{name: follow, begin: 4", "{name: follow, begin: 11"),
       ":19: phases[1].begin: begins at 11 s, after the end of the script"},
      {"effector", edit("effector: LArm, settle_s", "effector: Leg, settle_s"),
       ":18: phases[0].effector: expects one of Arms, LArm, RArm, None, not 'Leg'"},
      // Files written to hurt.
      {"bomb", edit("args: [Head]}", "args: [" + bomb + "]}"), ":13: actions[0].args[3][",
       "more than 10000 values in the arguments (aliases included)"},
      {"deep", edit("args: [Head]}", "args: [[[[[[[[[[1]]]]]]]]]]}"), ":13: actions[0].args[0][0]",
       "lists nested more than 8 deep"},
      {"samples",
       edit("fixed: [1.5, 0, 0.3]",
            "sample_s: 0.01\n    polar: [[0, 0, 1, 0], [1000000, 90, 1, 0]]"),
       ":11: targets[0].polar: needs 100000001 samples, more than the paths of a file may hold "
       "(4000000 in all)"},
      {"repeats",
       replaced(edit("duration: 10", "duration: 604800"), "fixed: [1.5, 0, 0.3]",
                "repeat_every: 0.01\n    points: [[0, 1, 0, 0]]\n    repeat_from: 0"),
       ":10: targets[0].repeat_every: needs 60480000 samples"},
      {"climbs", edit("name: shelf", "name: ../../shelf"), ":1: name: expects a plain file name"},
      {"dot", edit("name: shelf", "name: .."), ":1: name: expects a plain file name"},
      {"hidden_file", edit("name: shelf", "name: .shelf"), ":1: name: expects a plain file name"},
      {"escape", edit("name: shelf", "name: \"shelf\\e[2J\""),
       ":1: name: expects a text without control characters, not 'shelf\\x1b[2J'"},
      {"c1", edit("name: shelf", "name: \"shelf\\x9b2J\""),
       ":1: name: expects a text without control characters, not 'shelf\\xc2\\x9b2J'"},
      {"device", edit("robot: kibo", "robot: /dev/zero"),
       ":2: robot: robot '/dev/zero' is not a regular file"},
      {"fifo", edit("robot: kibo", "robot: " + fifo),
       ":2: robot: robot '" + fifo + "' is not a regular file"},
      {"folder", edit("robot: kibo", "robot: " + ::testing::TempDir()), ":2: robot: robot '",
       "is not a regular file"},
      {"big", edit("robot: kibo", "robot: " + big), ":2: robot: robot '" + big + "' is 2",
       "more than the 1048576 accepted"},
  });
  const std::string missing = ::testing::TempDir() + "/krsim_no_such_scenario.yaml";
  EXPECT_EQ(refusal(missing).rfind(missing + ": cannot read the file", 0), 0u) << refusal(missing);
  ::unlink(fifo.c_str());
}

// What sits right beside those faults passes: both forms of lookAt, a call named with its
// service, a call at the very end of the script, and the paths of a week of pursuit, the
// longest run.
TEST(ScenarioFileReaderTest, WhatIsRightBesideTheFaultsIsAccepted) {
  const std::string moveTo = "{time: 1, call: moveTo, args: [0.5, 0, 0], service: KRMotion}";
  const std::string file =
      write("calls", edit(moveTo,
                          "{time: 1, call: lookAt, args: [[1, 0, 0], 0, 0.5, false]}\n"
                          "  - {time: 2, call: lookAt, args: [[1, 0, 0], 0, 1, 0.5, true]}\n"
                          "  - {time: 3, call: track, args: [RedBall], service: KRTracker}"));
  EXPECT_EQ(refusal(file), "accepted");
  EXPECT_EQ(refusal(write("at_end", edit("{time: 4, call: setMode", "{time: 10, call: setMode"))),
            "accepted");
  const auto pursuit = KR::Sim::makeScenario("pursuit", {nullptr, "", "", 7 * 24 * 3600.0});
  EXPECT_GT(pursuit.targets[0].path.keyframes().size(), 3000000u);
}

}  // namespace
